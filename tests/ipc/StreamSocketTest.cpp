#include <string>

#include "IpcTestUtil.h"
#include "NModuleInterface.h"
#include "UTime.h"

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

TEST_F(StreamSocket, FramedMessagesBothWays) {
    EXPECT_EQ(commander_.Send("hello", 5), 5);
    ASSERT_GT(listener_.Wait(2, 0), 0);
    EXPECT_EQ(listener_.Recv(buf_, sizeof(buf_)), 5);
    EXPECT_STREQ(buf_, "hello");

    EXPECT_EQ(listener_.Send("back", 4), 4);
    ASSERT_GT(commander_.Wait(2, 0), 0);
    EXPECT_EQ(commander_.Recv(buf_, sizeof(buf_)), 4);
    EXPECT_STREQ(buf_, "back");
}

TEST_F(StreamSocket, TooSmallBufferAndEndOfStream) {
    EXPECT_EQ(commander_.Send("0123456789", 10), 10);
    ASSERT_GT(listener_.Wait(2, 0), 0);
    char small[10];
    EXPECT_EQ(listener_.Recv(small, sizeof(small)), -1);

    commander_.disconnect();
    EXPECT_EQ(listener_.Recv(buf_, 11), 10) << "the data stayed unread";
    ASSERT_GT(listener_.Wait(2, 0), 0);
    EXPECT_EQ(listener_.Recv(buf_, sizeof(buf_)), 0);
    EXPECT_EQ(listener_.GetFD(), -1);
}

TEST_F(StreamSocket, CommanderReconnectsOnceWhenThePeerIsGone) {
    listener_.disconnect();
    EXPECT_EQ(commander_.Send("again", 5), 5);
    ASSERT_GT(listener_.waitInbound(2, 0), 0);
    ASSERT_GE(listener_.accept(), 0);
    ASSERT_GT(listener_.Wait(2, 0), 0);
    EXPECT_EQ(listener_.Recv(buf_, sizeof(buf_)), 5);
    EXPECT_STREQ(buf_, "again");
}

TEST(TimedCommander, LateAnswersAreDiscarded) {
    ipctest::TempDir dir;
    std::string server_path = dir.Path("server");
    NCommandIPC server(server_path.c_str(), nullptr);
    NTimedCommander client(dir.Path("client").c_str(), server_path.c_str(), 5);
    EXPECT_EQ(client.GetLocalPath(), dir.Path("client0"));
    char buf[64];

    EXPECT_EQ(client.Send("q1", 2), 3);
    ASSERT_GT(server.Wait(2, 0), 0);
    ASSERT_EQ(server.Recv(buf, sizeof(buf)), 3);
    EXPECT_EQ(server.Send("a1", 2), 3);
    ASSERT_GT(client.Wait(2, 0), 0);
    EXPECT_EQ(client.Recv(buf, sizeof(buf)), 3);
    EXPECT_STREQ(buf, "a1");

    EXPECT_EQ(client.Send("q2", 2), 3);
    ASSERT_GT(server.Wait(2, 0), 0);
    ASSERT_EQ(server.Recv(buf, sizeof(buf)), 3);
    EXPECT_EQ(client.Wait(0, 0), 0);
    EXPECT_EQ(client.GetLocalPath(), dir.Path("client1"));
    testing::internal::CaptureStderr();
    EXPECT_LT(server.Send("a2", 2), 0) << "the old path is gone";
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(client.Send("q3", 2), 3);
    ASSERT_GT(server.Wait(2, 0), 0);
    ASSERT_EQ(server.Recv(buf, sizeof(buf)), 3);
    EXPECT_STREQ(server.GetRemotePath(), dir.Path("client1").c_str());
}

TEST(UTimeTest, ClocksAgree) {
    uint64_t ms = UTime::GetMonotonicMs();
    long seconds = UTime::getLogicTime();
    EXPECT_LE(static_cast<uint64_t>(seconds), ms / 1000 + 1);
    EXPECT_GE(static_cast<uint64_t>(seconds) + 1, ms / 1000);
    EXPECT_EQ(UTime::ElapsedMs(ms + 100000), 0u) << "a later start is no time at all";
    EXPECT_GT(UTime::GetRealTimeMs(), 1500000000000ull);
}

}  // namespace
