#include <string>

#include "IpcTestUtil.h"
#include "NModuleInterface.h"

namespace {

class StreamSocket : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_GE(listener_.connect(path_.c_str()), 0);
        ASSERT_GE(commander_.connect(path_.c_str()), 0);
        ASSERT_GT(listener_.waitInbound(2, 0), 0);
        ASSERT_GE(listener_.accept(), 0);
    }

    ipctest::TempDir dir_;
    std::string path_ = dir_.Path("stream");
    NUnixCmdListener listener_;
    NUnixCommander commander_;
    char buf_[64] = {0};
};

TEST_F(StreamSocket, FramedMessagesBothWaysUntilTheEnd) {
    EXPECT_EQ(listener_.Send("back", 4), 4);
    ASSERT_GT(commander_.Wait(2, 0), 0);
    EXPECT_EQ(commander_.Recv(buf_, sizeof(buf_)), 4);
    EXPECT_STREQ(buf_, "back");

    EXPECT_EQ(commander_.Send("0123456789", 10), 10);
    ASSERT_GT(listener_.Wait(2, 0), 0);
    char small[10];
    EXPECT_EQ(listener_.Recv(small, sizeof(small)), -1);
    EXPECT_EQ(listener_.Recv(buf_, sizeof(buf_)), 10) << "the message stayed whole";
    EXPECT_STREQ(buf_, "0123456789");

    commander_.disconnect();
    ASSERT_GT(listener_.Wait(2, 0), 0);
    EXPECT_EQ(listener_.Recv(buf_, sizeof(buf_)), 0);
    EXPECT_EQ(listener_.GetFD(), -1);
}

TEST(TimedCommander, LateAnswersAreDiscarded) {
    ipctest::TempDir dir;
    std::string server_path = dir.Path("server");
    NCommandIPC server(server_path.c_str(), nullptr);
    NTimedCommander client(dir.Path("client").c_str(), server_path.c_str(), 5);
    char buf[64];
    auto ask = [&](const char* question) {
        EXPECT_EQ(client.Send(question, 2), 3);
        ASSERT_GT(server.Wait(2, 0), 0);
        ASSERT_EQ(server.Recv(buf, sizeof(buf)), 3);
    };
    ask("q1");
    EXPECT_STREQ(server.GetRemotePath(), dir.Path("client0").c_str());
    EXPECT_EQ(server.Send("a1", 2), 3);
    ASSERT_GT(client.Wait(2, 0), 0);
    EXPECT_EQ(client.Recv(buf, sizeof(buf)), 3);
    EXPECT_STREQ(buf, "a1");

    ask("q2");
    EXPECT_EQ(client.Wait(0, 0), 0);  // overdue: the client moves
    testing::internal::CaptureStderr();
    EXPECT_LT(server.Send("a2", 2), 0) << "the late answer finds no one";
    testing::internal::GetCapturedStderr();
    ask("q3");
    EXPECT_STREQ(server.GetRemotePath(), dir.Path("client1").c_str());
}

}  // namespace
