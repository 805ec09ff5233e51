#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <string>

#include "NModuleInterface.h"
#include "NTextCommand.h"
#include "Sandbox.h"

namespace {

// Socket files live in a private directory, removed with its contents.
class SocketDir : public ::testing::Test {
protected:
    std::string Path(const char* name) const { return dir_.File(name); }

    ppltest::TempDir dir_{"ppl-ipc-"};
    char buf_[256] = {0};
};

using CommandSocket = SocketDir;
using StreamSocket = SocketDir;

bool IsSocket(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

TEST_F(CommandSocket, StaleFileIsReplacedAndRemovedAtTheEnd) {
    std::string a = Path("a");
    ASSERT_TRUE(ppltest::WriteWholeFile(a, "left over"));
    {
        NCommandIPC endpoint;
        EXPECT_GE(endpoint.Connect(a.c_str(), nullptr), 0);
        EXPECT_TRUE(IsSocket(a));
        EXPECT_EQ(endpoint.Wait(0, 0), 0);
        EXPECT_LT(endpoint.Recv(buf_, sizeof(buf_)), 0);
    }
    EXPECT_FALSE(IsSocket(a));
}

TEST_F(CommandSocket, ReplyGoesToTheSenderAndLongDatagramsAreCut) {
    std::string a = Path("a"), b = Path("b");
    NCommandIPC server(a.c_str(), nullptr), client(b.c_str(), nullptr);
    EXPECT_EQ(client.Send("x", 1, a.c_str()), 2);
    ASSERT_GT(server.Wait(2, 0), 0);
    EXPECT_EQ(server.Recv(buf_, sizeof(buf_)), 2);
    EXPECT_STREQ(buf_, "x");
    EXPECT_EQ(server.Send("ok", 2), 3);
    ASSERT_GT(client.Wait(2, 0), 0);
    EXPECT_EQ(client.Recv(buf_, sizeof(buf_)), 3);
    EXPECT_EQ(std::string(buf_, 3), std::string("ok\0", 3));

    EXPECT_EQ(client.Send("abcdefghi", 9), 10);
    ASSERT_GT(server.Wait(2, 0), 0);
    char small[4];
    EXPECT_EQ(server.Recv(small, sizeof(small)), 3);
    EXPECT_STREQ(small, "abc");
    EXPECT_EQ(server.Wait(0, 0), 0) << "the rest of a cut datagram is lost";

    NCommandIPC anonymous;  // an unbound sender cannot be answered
    EXPECT_EQ(anonymous.Send("hi", 2, a.c_str()), 3);
    ASSERT_GT(server.Wait(2, 0), 0);
    EXPECT_EQ(server.Recv(buf_, sizeof(buf_)), 3);
    testing::internal::CaptureStderr();
    EXPECT_LT(server.Send("ok", 2), 0);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find(". local:" + a + ". remote:. msg:ok.\n"), std::string::npos) << err;
}

TEST_F(CommandSocket, WithoutSocketOrAddresses) {
    NCommandIPC endpoint, server(Path("a").c_str(), nullptr);
    EXPECT_EQ(endpoint.Wait(0, 0), -1) << "no socket";
    EXPECT_EQ(endpoint.Recv(buf_, sizeof(buf_)), -1);
    std::string too_long = Path(std::string(120, 'p').c_str());
    testing::internal::CaptureStderr();
    EXPECT_GE(endpoint.Connect(too_long.c_str(), too_long.c_str()), 0) << "a socket, unbound";
    EXPECT_STREQ(endpoint.GetRemotePath(), "");
    EXPECT_FALSE(endpoint.bind()) << "nothing to bind";
    EXPECT_EQ(endpoint.Send("x", 1), -1) << "nowhere to send";
    endpoint.destroySocket();
    EXPECT_EQ(endpoint.getNumData(), -1);
    std::string err = testing::internal::GetCapturedStderr();
    for (const char* text :
         {"NDGramIPC: bind error.", "NCommandIPC send error.", "NDGramIPC: GetNumData error."})
        EXPECT_NE(err.find(text), std::string::npos) << text << " in:\n" << err;

    EXPECT_EQ(endpoint.Send("x", 1, Path("a").c_str()), 2) << "a socket is made to send";
    ASSERT_GT(server.Wait(2, 0), 0);
    EXPECT_EQ(server.getNumData(), 2);
    EXPECT_EQ(server.Recv(buf_, 0), -1) << "no room at all";
    EXPECT_EQ(server.Recv(buf_, 1), 0) << "room for the zero alone";
}

TEST_F(CommandSocket, TimedCommanderMovesOnWhenAnAnswerIsOverdue) {
    std::string base = Path("t"), server_path = Path("server");
    NCommandIPC server(server_path.c_str(), nullptr);
    NTimedCommander idle(Path("idle").c_str(), server_path.c_str(), 5);
    EXPECT_EQ(idle.Wait(0, 0), 0);
    EXPECT_EQ(idle.GetLocalPath(), Path("idle0")) << "nothing sent: no answer is overdue";

    NTimedCommander commander(base.c_str(), server_path.c_str(), 5);
    EXPECT_EQ(commander.Send("q1", 2), 3);
    ASSERT_GT(server.Wait(2, 0), 0);
    server.Recv(buf_, sizeof(buf_));
    EXPECT_EQ(server.GetRemotePath(), base + "0");
    EXPECT_EQ(commander.Wait(0, 0), 0);
    EXPECT_EQ(commander.GetLocalPath(), base + "1") << "moved on";
    testing::internal::CaptureStderr();
    EXPECT_LT(server.Send("late", 4), 0) << "the late answer finds nobody";
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(commander.Send("q2", 2), 3);
    ASSERT_GT(server.Wait(2, 0), 0);
    server.Recv(buf_, sizeof(buf_));
    EXPECT_EQ(server.Send("a2", 2), 3);
    ASSERT_GT(commander.Wait(2, 0), 0);
    EXPECT_EQ(commander.Recv(buf_, sizeof(buf_)), 3);
    EXPECT_STREQ(buf_, "a2");
}

class TextCommand : public SocketDir {
protected:
    void SetUp() override {
        SocketDir::SetUp();
        server_.Connect(Path("server").c_str(), nullptr);
        client_.Connect(Path("client").c_str(), nullptr);
    }
    // The client sends text to the server, which receives and parses it.
    void Deliver(const std::string& text) {
        ASSERT_EQ(client_.Send(text.c_str(), text.size(), Path("server").c_str()),
                  static_cast<int>(text.size()) + 1);
        ASSERT_GT(server_.Wait(2, 0), 0);
        ASSERT_EQ(server_.RecvBuffer(), static_cast<int>(text.size()) + 1);
    }
    // What the client received as the answer; its last byte must be the zero.
    std::string Answer() {
        int got = client_.Wait(2, 0) > 0 ? client_.RecvBuffer() : 0;
        if (got <= 0 || client_.GetCommand()[got - 1] != '\0')
            return "<nothing or malformed>";
        return std::string(client_.GetCommand(), got - 1);
    }

    NTextCommand server_, client_;
};

TEST_F(TextCommand, ParsesRepliesToTheSenderAndLogsAllButPlainHeartbeats) {
    Deliver("action=get&id= 3 &x");
    EXPECT_STREQ(server_.GetKeyValue("action"), "get");
    EXPECT_STREQ(server_.GetKeyValue("id"), "3");
    EXPECT_EQ(server_.GetSize(), 2u);
    EXPECT_STREQ(server_.GetCommand(), "action=get&id= 3 &x");

    const struct {
        NTextCommand::RESULT result;
        const char *rest, *sent;
        bool logged;
    } cases[] = {
        {NTextCommand::SUCCESS, "&count=5", "reply=success&count=5", true},
        {NTextCommand::HEARTBEAT, "", "reply=heartbeat", false},
        {NTextCommand::HEARTBEAT, "&n=1", "reply=heartbeat&n=1", true},
    };
    for (const auto& c : cases) {
        testing::internal::CaptureStderr();
        EXPECT_TRUE(c.rest[0] ? server_.Reply(c.result, "%s", c.rest) : server_.Reply(c.result));
        std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(log.find("reply: " + std::string(c.sent)) != std::string::npos, c.logged) << log;
        EXPECT_EQ(log.find("reply:") != std::string::npos, c.logged) << log;
        EXPECT_EQ(Answer(), c.sent);
    }
    Deliver("b=2");
    EXPECT_FALSE(server_.HasKey("action")) << "each command starts from an empty store";
}

TEST_F(TextCommand, ResultWordsRoundTrip) {
    Deliver("action=any");
    const char* words[] = {"success", "error", "unsupport", "timeout", "busy", "heartbeat"};
    for (int r = NTextCommand::SUCCESS; r <= NTextCommand::HEARTBEAT; ++r) {
        ASSERT_TRUE(server_.Reply(static_cast<NTextCommand::RESULT>(r)));
        EXPECT_EQ(Answer(), std::string("reply=") + words[r]);
        EXPECT_EQ(client_.GetResult(), r);
    }
    for (const char* odd : {"a=1", "reply=odd"}) {
        server_.NCommandIPC::Send(odd, std::strlen(odd));
        EXPECT_EQ(Answer(), odd);
        EXPECT_EQ(client_.GetResult(), NTextCommand::ERROR) << odd;
    }
}

TEST_F(TextCommand, ComposedWithoutSendingAndCutToTheBuffer) {
    Deliver("action=x");
    server_.SetReply(NTextCommand::BUSY, "&n=%d", 2);
    EXPECT_STREQ(server_.GetSendBuffer(), "reply=busy&n=2");
    EXPECT_TRUE(server_.SendReply());
    EXPECT_EQ(Answer(), "reply=busy&n=2");
    client_.SetCommand(NTextCommand::SUCCESS, "&action=%s", "get");
    EXPECT_STREQ(client_.GetSendBuffer(), "reply=success&action=get");
    std::string huge(20000, 'a');
    EXPECT_EQ(client_.SendCommand(NTextCommand::SUCCESS, "&action=%s", huge.c_str()), 16384)
        << "cut to 16383 bytes and the zero";
    ASSERT_GT(server_.Wait(2, 0), 0);
    EXPECT_EQ(server_.RecvBuffer(), 16383) << "the receive buffer keeps room for a zero";
    EXPECT_EQ(std::string(server_.GetRecvBuffer()),
              "reply=success&action=" + huge.substr(0, 16362));
}

}  // namespace

TEST_F(StreamSocket, FramesRefusalsOneReconnectAndTheEnd) {
    NUnixCommander commander;
    NUnixCmdListener listener;
    std::string path = Path("stream"), too_long = Path(std::string(120, 'p').c_str());
    testing::internal::CaptureStderr();
    EXPECT_EQ(commander.connect(path.c_str()), -1) << "nobody listens";
    EXPECT_EQ(commander.connect(too_long.c_str()), -1);
    EXPECT_EQ(commander.Send("x", 1), -1) << "the one reconnect fails too";
    EXPECT_EQ(commander.Recv(buf_, sizeof(buf_)), -1);
    EXPECT_EQ(commander.Wait(0, 0), -1);
    EXPECT_EQ(listener.connect(too_long.c_str()), -1);
    EXPECT_EQ(listener.connect(Path("absent/stream").c_str()), -1);
    EXPECT_EQ(listener.accept(), -1) << "not listening";
    std::string err = testing::internal::GetCapturedStderr();
    for (std::string text :
         {"NUnixCommander: connect to " + path + " error.", std::string("Unsupported Unix Socket."),
          std::string("bind error"), std::string("create server socket error"),
          std::string("accept error")})
        EXPECT_NE(err.find(text), std::string::npos) << text << " in:\n" << err;

    ASSERT_GE(listener.connect(path.c_str()), 0);
    testing::internal::CaptureStdout();
    ASSERT_GE(commander.connect(path.c_str()), 0);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "command socket: " + std::to_string(commander.GetFD()) + "\n");
    ASSERT_GT(listener.waitInbound(2, 0), 0);
    ASSERT_GE(listener.accept(), 0);
    listener.disconnect();  // the server drops this client
    EXPECT_EQ(commander.Send("0123456789", 10), 10) << "one new connection is tried";
    ASSERT_GT(listener.waitInbound(2, 0), 0);
    ASSERT_GE(listener.accept(), 0);
    EXPECT_EQ(commander.Send("", 0), 0);
    ASSERT_GT(listener.Wait(2, 0), 0);
    char small[10];
    EXPECT_EQ(listener.Recv(small, sizeof(small)), -1);
    EXPECT_EQ(listener.Recv(buf_, sizeof(buf_)), 10) << "the message stayed whole";
    EXPECT_EQ(listener.Recv(buf_, sizeof(buf_)), 0) << "an empty message";
    EXPECT_EQ(listener.Send("back", 4), 4);
    ASSERT_GT(commander.Wait(2, 0), 0);
    EXPECT_EQ(commander.Recv(buf_, sizeof(buf_)), 4);
    EXPECT_STREQ(buf_, "back");

    uint32_t announced = 10;  // and then the end of the stream
    ASSERT_EQ(send(listener.GetFD(), &announced, sizeof(announced), 0), 4);
    listener.disconnect();
    ASSERT_GT(commander.waitInbound(2, 0), 0);
    EXPECT_EQ(commander.Recv(buf_, sizeof(buf_)), 0) << "the end in the middle of a message";
    EXPECT_EQ(commander.GetFD(), -1) << "the end closes the connection";
    ASSERT_GE(commander.connect(path.c_str()), 0);
    ASSERT_GE(listener.accept(), 0);
    commander.disconnect();
    EXPECT_EQ(listener.Recv(buf_, sizeof(buf_)), 0) << "the end between messages";
}
