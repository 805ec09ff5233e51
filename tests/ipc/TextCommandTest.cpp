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

TEST_F(TextCommand, ReplyGoesToTheSenderAndIsLogged) {
    Deliver("action=ppl_status");
    testing::internal::CaptureStderr();
    EXPECT_TRUE(server_.Reply(NTextCommand::SUCCESS, "&count=%d", 5));
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("reply: reply=success&count=5"), std::string::npos) << log;
    EXPECT_EQ(Answer(), "reply=success&count=5");
}

TEST_F(TextCommand, OnlyThePlainHeartbeatStaysOutOfTheLog) {
    Deliver("action=heartbeat");
    testing::internal::CaptureStderr();
    EXPECT_TRUE(server_.Reply(NTextCommand::HEARTBEAT));
    EXPECT_EQ(testing::internal::GetCapturedStderr().find("reply:"), std::string::npos);
    EXPECT_EQ(Answer(), "reply=heartbeat");

    testing::internal::CaptureStderr();
    EXPECT_TRUE(server_.Reply(NTextCommand::HEARTBEAT, "&n=%d", 1));
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("reply: reply=heartbeat&n=1"), std::string::npos) << log;
    EXPECT_EQ(Answer(), "reply=heartbeat&n=1");
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

    server_.SetCommand(NTextCommand::BUSY, "&a=%d", 1);
    EXPECT_STREQ(server_.GetSendBuffer(), "reply=busy&a=1");
}

TEST(TextCommandService, AnswersOnItsFixedPath) {
    PPL_ENTER_SANDBOX_OR_SKIP();
    NTextCommand service("/tmp/SI_PPLCOUNTER", nullptr);
    NTextCommand caller("/tmp/caller", "/tmp/SI_PPLCOUNTER");
    EXPECT_EQ(service.Wait(0, 0), 0);
    EXPECT_GT(caller.SendCommand(NTextCommand::SUCCESS, "&action=%s", "ppl_status"), 0);
    ASSERT_TRUE(ppltest::WaitFor(2000, [&] { return service.Wait(0, 0) > 0; }));
    ASSERT_GT(service.RecvBuffer(), 0);
    EXPECT_STREQ(service.GetKeyValue("action"), "ppl_status");
    EXPECT_TRUE(service.Reply(NTextCommand::ERROR, "&state=%s", "idle"));
    ASSERT_GT(caller.Wait(2, 0), 0);
    ASSERT_GT(caller.RecvBuffer(), 0);
    EXPECT_EQ(caller.GetResult(), NTextCommand::ERROR);
    EXPECT_STREQ(caller.GetKeyValue("state"), "idle");
}

}  // namespace
