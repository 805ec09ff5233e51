#include <cstring>
#include <string>

#include "IpcTestUtil.h"
#include "NTextCommand.h"

namespace {

class TextCommand : public ::testing::Test {
protected:
    // The client sends text to the server, which receives and parses it.
    void Deliver(const std::string& text) {
        ASSERT_EQ(client_.Send(text.c_str(), text.size(), server_path_.c_str()),
                  static_cast<int>(text.size()) + 1);
        ASSERT_GT(server_.Wait(2, 0), 0);
        ASSERT_EQ(server_.RecvBuffer(), static_cast<int>(text.size()) + 1);
    }
    // What the client received as the answer; its last byte must be the zero.
    std::string Answer() {
        if (client_.Wait(2, 0) <= 0)
            return "<nothing>";
        int got = client_.RecvBuffer();
        if (got <= 0 || client_.GetCommand()[got - 1] != '\0')
            return "<malformed>";
        return std::string(client_.GetCommand(), got - 1);
    }

    ipctest::TempDir dir_;
    std::string server_path_ = dir_.Path("server");
    NTextCommand server_{server_path_.c_str(), nullptr};
    NTextCommand client_{dir_.Path("client").c_str(), nullptr};
};

TEST_F(TextCommand, CommandIsParsedAndKeptRaw) {
    Deliver("action=get&id= 3 &x");
    EXPECT_STREQ(server_.GetKeyValue("action"), "get");
    EXPECT_STREQ(server_.GetKeyValue("id"), "3");
    EXPECT_FALSE(server_.HasKey("x"));
    EXPECT_EQ(server_.GetSize(), 2u);
    EXPECT_STREQ(server_.GetCommand(), "action=get&id= 3 &x");

    Deliver("b=2");
    EXPECT_FALSE(server_.HasKey("action")) << "each command starts from an empty store";
}

TEST_F(TextCommand, RepliesGoToTheSenderAndAllButPlainHeartbeatsAreLogged) {
    Deliver("action=ppl_status");
    const struct {
        NTextCommand::RESULT result;
        const char* rest;
        const char* sent;
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
}

TEST_F(TextCommand, ResultWordsRoundTrip) {
    Deliver("action=any");
    const char* words[] = {"success", "error", "unsupport", "timeout", "busy", "heartbeat"};
    for (int r = NTextCommand::SUCCESS; r <= NTextCommand::HEARTBEAT; ++r) {
        EXPECT_EQ(std::string(NTextCommand::m_sResults[r]), std::string("reply=") + words[r]);
        ASSERT_TRUE(server_.Reply(static_cast<NTextCommand::RESULT>(r)));
        EXPECT_EQ(Answer(), NTextCommand::m_sResults[r]);
        EXPECT_EQ(client_.GetResult(), r);
    }
    const std::pair<const char*, NTextCommand::RESULT> replies[] = {
        {"reply=busy&a=1", NTextCommand::BUSY},
        {"a=1", NTextCommand::ERROR},
        {"reply=odd", NTextCommand::ERROR},
    };
    for (const auto& reply : replies) {
        server_.NCommandIPC::Send(reply.first, std::strlen(reply.first));
        EXPECT_EQ(Answer(), reply.first);
        EXPECT_EQ(client_.GetResult(), reply.second) << reply.first;
    }
}

TEST_F(TextCommand, TextsAreCutToTheBuffers) {
    std::string huge(20000, 'h');
    server_.SetReply(NTextCommand::SUCCESS, "&%s", huge.c_str());
    EXPECT_EQ(std::strlen(server_.GetSendBuffer()), NTextCommand::kBufferSize - 1u);
    EXPECT_EQ(std::strncmp(server_.GetSendBuffer(), "reply=success&hhh", 17), 0);

    std::string command = "k=" + huge;
    client_.NCommandIPC::Send(command.c_str(), command.size(), server_path_.c_str());
    ASSERT_GT(server_.Wait(2, 0), 0);
    EXPECT_EQ(server_.RecvBuffer(), NTextCommand::kBufferSize - 1);
    EXPECT_EQ(std::strlen(server_.GetKeyValue("k")), NTextCommand::kBufferSize - 3u);
}

}  // namespace
