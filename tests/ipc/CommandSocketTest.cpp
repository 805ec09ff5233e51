#include <sys/stat.h>

#include <string>

#include "IpcTestUtil.h"
#include "NModuleInterface.h"

namespace {

class CommandSocket : public ::testing::Test {
protected:
    ipctest::TempDir dir_;
    std::string a_ = dir_.Path("a");
    std::string b_ = dir_.Path("b");
    char buf_[256] = {0};
};

bool IsSocket(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

TEST_F(CommandSocket, StaleFileIsReplacedAndRemovedAtTheEnd) {
    ASSERT_TRUE(ppltest::WriteWholeFile(a_, "left over"));
    {
        NCommandIPC endpoint;
        EXPECT_GE(endpoint.Connect(a_.c_str(), nullptr), 0);
        EXPECT_TRUE(IsSocket(a_));
        EXPECT_EQ(endpoint.Wait(0, 0), 0);
        EXPECT_LT(endpoint.Recv(buf_, sizeof(buf_)), 0);
    }
    EXPECT_FALSE(IsSocket(a_));
}

TEST_F(CommandSocket, ReplyGoesToTheSenderWithItsZero) {
    NCommandIPC server(a_.c_str(), nullptr);
    NCommandIPC client(b_.c_str(), nullptr);
    EXPECT_EQ(client.Send("x", 1, a_.c_str()), 2);
    ASSERT_GT(server.Wait(2, 0), 0);
    EXPECT_EQ(server.Recv(buf_, sizeof(buf_)), 2);
    EXPECT_STREQ(buf_, "x");
    EXPECT_STREQ(server.GetRemotePath(), b_.c_str());

    EXPECT_EQ(server.Send("ok", 2), 3);
    ASSERT_GT(client.Wait(2, 0), 0);
    EXPECT_EQ(client.getNumData(), 3);
    EXPECT_EQ(client.Recv(buf_, sizeof(buf_)), 3);
    EXPECT_EQ(std::string(buf_, 3), std::string("ok\0", 3));

    EXPECT_EQ(client.Send("abcdefghi", 9), 10);
    ASSERT_GT(server.Wait(2, 0), 0);
    char small[4];
    EXPECT_EQ(server.Recv(small, sizeof(small)), 3);
    EXPECT_STREQ(small, "abc");
    EXPECT_EQ(server.Wait(0, 0), 0) << "the rest of a cut datagram is lost";
}

TEST_F(CommandSocket, UnboundSenderCannotBeAnswered) {
    NCommandIPC server(a_.c_str(), nullptr);
    NCommandIPC anonymous;  // Send creates an unbound socket
    EXPECT_EQ(anonymous.Send("hi", 2, a_.c_str()), 3);
    ASSERT_GT(server.Wait(2, 0), 0);
    EXPECT_EQ(server.Recv(buf_, sizeof(buf_)), 3);
    EXPECT_STREQ(server.GetRemotePath(), "");

    testing::internal::CaptureStderr();
    EXPECT_LT(server.Send("ok", 2), 0);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("NCommandIPC send error. errno:"), std::string::npos) << err;
    EXPECT_NE(err.find(". local:" + a_ + ". remote:. msg:ok.\n"), std::string::npos) << err;
}

}  // namespace
