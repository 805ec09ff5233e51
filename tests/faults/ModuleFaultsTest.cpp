// Neighbouring modules that are not there yet, do not read their queue, or
// send oversized, empty, binary or unanswerable messages.
#include <poll.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "FaultFixture.h"

namespace ppltest {
namespace {

const char* const kCommandPath = "/tmp/SI_PPLCOUNTER";

// Next event on queue equal to text within timeout_ms.
bool QueueDelivers(NEventMQ& queue, const std::string& text, int timeout_ms = 5000) {
    return WaitFor(timeout_ms, [&] {
        char buffer[4096] = {0};
        return queue.Wait(0, 0) > 0 && queue.Recv(buffer, sizeof(buffer)) > 0 && buffer == text;
    });
}

// A raw datagram client of the command socket; bound to local unless empty.
class RawClient {
public:
    explicit RawClient(const std::string& local) : local_(local) {
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (!local.empty()) {
            sockaddr_un addr = Address(local);
            unlink(local.c_str());
            bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        }
    }
    virtual ~RawClient() {
        close(fd_);
        if (!local_.empty())
            unlink(local_.c_str());
    }
    bool Send(const std::string& bytes) {
        sockaddr_un to = Address(kCommandPath);
        return sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to),
                      sizeof(to)) == static_cast<ssize_t>(bytes.size());
    }
    // The next reply, "" when none came within timeout_ms.
    std::string Reply(int timeout_ms = 3000) {
        pollfd p = {fd_, POLLIN, 0};
        if (poll(&p, 1, timeout_ms) <= 0)
            return "";
        char buffer[1024] = {0};
        ssize_t n = recv(fd_, buffer, sizeof(buffer) - 1, 0);
        return n > 0 ? std::string(buffer) : "";
    }

private:
    static sockaddr_un Address(const std::string& path) {
        sockaddr_un addr;
        memset(&addr, 0, sizeof(addr));
        addr.sun_family = AF_UNIX;
        strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
        return addr;
    }
    std::string local_;
    int fd_;
};

std::string PaddedTo(std::string text, size_t size) {
    text += "&pad=";
    text.resize(size, 'x');
    return text;
}

TEST_F(FaultTest, QueueToTheModuleMissingAtStartThenAppearing) {
    ASSERT_EQ(msgctl(msgget(259, 0), IPC_RMID, nullptr), 0);
    StartCounting();
    in_cam_->Walk(2, 0);
    EXPECT_TRUE(StatusRecovers()) << "counting goes on while events are lost";
    ASSERT_NO_FATAL_FAILURE(ExpectAlive("sending to a missing queue"));

    NEventMQ late(259, true);
    in_cam_->Walk(1, 0);
    EXPECT_TRUE(QueueDelivers(late, ExpectedCountEvent())) << Excerpt(h_->Stderr());
    ExpectCleanStop();
}

TEST_F(FaultTest, QueueToTheModuleFullThenDrained) {
    StartCounting();
    NEventMQ filler(259, false);
    const std::string text(200, 'f');
    int sent = 0;
    while (sent < 10000 && filler.Send(text.c_str(), static_cast<unsigned int>(text.size())) > 0)
        ++sent;
    ASSERT_LT(sent, 10000) << "the queue never filled";
    in_cam_->Walk(2, 0);
    EXPECT_TRUE(StatusRecovers());
    ASSERT_NO_FATAL_FAILURE(ExpectAlive("a full queue"));

    while (!h_->NextEvent(300).empty()) {
    }
    EXPECT_TRUE(CountsRecover());
    ExpectCleanStop();
}

TEST_F(FaultTest, ModuleEventsOversizedEmptyBinaryOrOutOfRange) {
    StartCounting();
    const int out_connections = out_cam_->AcceptedConnections();
    // Too long for the 256-byte event buffer: dropped whole.
    ASSERT_TRUE(h_->SendModuleEvent(PaddedTo("event=del_camera&ch=1", 256)));
    ASSERT_TRUE(h_->SendModuleEvent(PaddedTo("event=del_camera&ch=1", 4091)));
    struct {
        long type;
        char text[8000];
    } record;
    record.type = 1;
    std::string big = PaddedTo("event=del_camera&ch=1", sizeof(record.text));
    memcpy(record.text, big.data(), sizeof(record.text));
    ASSERT_EQ(msgsnd(msgget(601, 0), &record, sizeof(record.text), IPC_NOWAIT), 0);
    // Empty, binary and channels that name no counter.
    for (const std::string& text :
         {std::string(), std::string("\x01\xff=&&=\0\x7f", 8),
          std::string("event=add_camera&ch=33"), std::string("event=del_camera&ch=33"),
          std::string("event=add_camera&ch=-1"), std::string("event=del_camera&ch=4294967295"),
          std::string("ch=1&event")}) {
        ASSERT_TRUE(h_->SendModuleEvent(text));
    }
    const std::string marker = PaddedTo("event=marker", 255);
    ASSERT_TRUE(h_->SendModuleEvent(marker));
    ASSERT_TRUE(WaitFor(5000, [&] {
        return h_->Stderr().find("receive event => " + marker + "\n") != std::string::npos;
    }));
    EXPECT_EQ(h_->Stderr().find("receive event => event=del_camera&ch=1&pad"), std::string::npos);
    EXPECT_EQ(out_cam_->Subscribers(), 1);
    EXPECT_EQ(out_cam_->AcceptedConnections(), out_connections);
    ASSERT_NO_FATAL_FAILURE(ExpectAlive("odd module events"));

    ASSERT_TRUE(h_->SendModuleEvent("event=del_camera&ch=1"));
    EXPECT_TRUE(WaitFor(5000, [&] { return out_cam_->Subscribers() == 0; }));
    ASSERT_TRUE(h_->SendModuleEvent("event=add_camera&ch=1"));
    EXPECT_TRUE(out_cam_->WaitForSubscribers(1, 5000));
    out_cam_->Walk(0, 1);
    EXPECT_TRUE(CountsRecover());
    ExpectCleanStop();
}

TEST_F(FaultTest, CommandsHugeEmptyBinaryUnanswerableAndInBursts) {
    StartCounting();
    const std::string connected = "reply=success&in0=connect&out0=connect";
    RawClient client("/tmp/faults-client");
    ASSERT_TRUE(client.Send(PaddedTo("action=ppl_get_service_status", 20000)));
    EXPECT_EQ(client.Reply(), connected) << "a long command is cut, not refused";
    ASSERT_TRUE(client.Send(""));
    EXPECT_EQ(client.Reply(500), "") << "an empty datagram is no command";
    ASSERT_TRUE(client.Send(std::string("\0", 1)));
    EXPECT_EQ(client.Reply(), "reply=error");
    ASSERT_TRUE(client.Send(std::string("\xff\x01\0action=ppl_config_change\r\n", 29)));
    EXPECT_EQ(client.Reply(), "reply=error");
    ASSERT_TRUE(client.Send("action=%s%s%n%n&group=%x"));
    EXPECT_EQ(client.Reply(), "reply=error");
    {
        RawClient unbound("");
        ASSERT_TRUE(unbound.Send("action=ppl_get_service_status"));
        ASSERT_TRUE(WaitFor(3000, [&] {
            return h_->Stderr().find("NCommandIPC send error") != std::string::npos;
        }));
    }
    ASSERT_NO_FATAL_FAILURE(ExpectAlive("odd commands"));

    // As many as the socket takes; every one is answered, ten a second.
    int accepted = 0;
    for (int i = 0; i < 40; ++i)
        accepted += client.Send("action=ppl_get_service_status") ? 1 : 0;
    ASSERT_GT(accepted, 0);
    for (int i = 0; i < accepted; ++i)
        ASSERT_EQ(client.Reply(3000), connected) << "reply " << i << " of " << accepted;
    EXPECT_EQ(client.Reply(300), "");

    // Commands queued behind a reload are answered after it.
    h_->ForgetEvents();
    ASSERT_TRUE(client.Send("action=ppl_config_change"));
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(client.Send("action=ppl_get_service_status"));
    EXPECT_EQ(client.Reply(), "reply=success");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(client.Reply(), connected);
    EXPECT_TRUE(h_->WaitEvent("event=ppl_enable&enable=1"));
    in_cam_->Walk(1, 0);
    EXPECT_TRUE(CountsRecover());
    ExpectCleanStop();
}

}  // namespace
}  // namespace ppltest
