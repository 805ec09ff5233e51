// The head reader takes a look at what the socket holds and then exactly
// the bytes a byte-by-byte reader would have read: never a byte of the body,
// the same bytes on every failure, and nothing kept of what it only looked at.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <random>
#include <string>
#include <vector>

#include "http_parser.h"
#include "ipc_va.h"

namespace {

const timeval kWait = {0, 100000};

std::string Message(const std::string& extra_header, const std::string& body) {
    return "POST /LAPI/V1.0/System/Event/Notification HTTP/1.1\r\n" + extra_header +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

class Looking : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_));
        UseBuffer(HTTP_HEAD_BUFFER_SIZE);
    }
    void TearDown() override {
        close(fds_[0]);
        close(fds_[1]);
    }
    void UseBuffer(uint32_t size) {
        storage_.assign(size, '\0');
        ctx_ = HTTP_CONTEXT();
        ctx_.buffer = storage_.data();
        ctx_.buffer_size = size;
    }
    void Peer(const std::string& bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(fds_[1], bytes.data(), bytes.size()));
    }
    int Read() { return http_read_until_got_request(fds_[0], &ctx_, kWait); }
    std::string Take(size_t n) {
        std::string got(n, '\0');
        ssize_t r = recv(fds_[0], &got[0], n, MSG_DONTWAIT);
        got.resize(r > 0 ? static_cast<size_t>(r) : 0);
        return got;
    }
    std::string Rest() { return Take(4096); }
    // Everything behind the received bytes is still zero.
    bool ZeroBehindReceived() {
        for (size_t i = ctx_.received; i < storage_.size(); ++i) {
            if (storage_[i] != '\0')
                return false;
        }
        return true;
    }

    int fds_[2] = {-1, -1};
    std::vector<char> storage_;
    HTTP_CONTEXT ctx_;
};

TEST_F(Looking, BackToBackMessagesAreReadOneHeadAtATime) {
    const std::vector<std::string> bodies = {"{\"TotalIn\":1}", "{}", std::string(300, 'b')};
    const std::vector<std::string> extras = {"", "X-Long: " + std::string(400, 'x') + "\r\n",
                                             "Content-Type: application/json\r\n"};
    std::string all;
    for (size_t i = 0; i < bodies.size(); ++i)
        all += Message(extras[i], bodies[i]);
    Peer(all);
    for (size_t i = 0; i < bodies.size(); ++i) {
        UseBuffer(HTTP_HEAD_BUFFER_SIZE);
        std::string whole = Message(extras[i], bodies[i]);
        int head = static_cast<int>(whole.size() - bodies[i].size());
        ASSERT_EQ(head, Read()) << "message " << i;
        EXPECT_EQ(std::to_string(bodies[i].size()), ctx_.headers["Content-Length"]);
        EXPECT_TRUE(ZeroBehindReceived()) << "message " << i;
        EXPECT_EQ(bodies[i], Take(bodies[i].size()));
    }
    EXPECT_EQ("", Rest());
}

TEST_F(Looking, MalformedFirstLineTakesTheBytesUpToTheFaultOnly) {
    Peer("GET / HTTP/1.1 x\r\nZ");
    EXPECT_EQ(-EPROTO, Read());
    EXPECT_EQ(16u, ctx_.received);
    // A further read with the same context takes one more byte and fails again.
    EXPECT_EQ(-EPROTO, Read());
    EXPECT_EQ(17u, ctx_.received);
    EXPECT_EQ("\nZ", Rest());
    EXPECT_TRUE(ZeroBehindReceived());
}

TEST_F(Looking, HeadInPiecesAcrossWaitsIsReadOnWithTheSameContext) {
    Peer("POST /x HT");
    EXPECT_EQ(0, Read());  // the rest did not come within the wait
    EXPECT_EQ(10u, ctx_.received);
    Peer("TP/1.1\r\nContent-Le");
    Peer("ngth: 2\r\n\r\nok");
    EXPECT_EQ(39, Read());
    EXPECT_EQ("POST", ctx_.method);
    EXPECT_EQ("/x", ctx_.path);
    EXPECT_EQ("2", ctx_.headers["Content-Length"]);
    EXPECT_EQ("ok", Rest());
}

TEST_F(Looking, OversizedHeadTakesNoMoreThanTheBufferHolds) {
    UseBuffer(64);
    const std::string head = "GET /a HTTP/1.1\r\nX: " + std::string(100, 'v') + "\r\n\r\n";
    Peer(head);
    EXPECT_EQ(-EMSGSIZE, Read());
    EXPECT_EQ(63u, ctx_.received);
    EXPECT_EQ(head.substr(63), Rest());
}

// What a reader made of a stream: the result, the context, the buffer and
// the bytes it left.
std::string Outcome(int result, const HTTP_CONTEXT& ctx, const std::vector<char>& buffer,
                    const std::string& left) {
    std::string s = std::to_string(result) + "|" + std::to_string(ctx.received) + "|" +
                    std::to_string(ctx.position) + "|" + std::to_string(ctx.state) + "|" +
                    ctx.method + "|" + ctx.path + "|" + ctx.query;
    for (const auto& h : ctx.headers)
        s += "|H" + h.first + "=" + h.second;
    for (const auto& p : ctx.params)
        s += "|P" + p.first + "=" + p.second;
    return s + "|" + std::string(buffer.begin(), buffer.end()) + "|" + left;
}

// Reads input with one context, the bytes arriving all at once or one at a
// time with the reader called after each.
std::string ReadArriving(const std::string& input, uint32_t size, bool one_at_a_time) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
        return "socketpair failed";
    std::vector<char> buffer(size, '\0');
    HTTP_CONTEXT ctx;
    ctx.buffer = buffer.data();
    ctx.buffer_size = size;
    const timeval no_wait = {0, 0};
    size_t sent = one_at_a_time ? 0 : input.size();
    if (write(fds[1], input.data(), sent) != static_cast<ssize_t>(sent))
        return "write failed";
    int result = http_read_until_got_request(fds[0], &ctx, no_wait);
    while (result == 0 && sent < input.size()) {
        if (write(fds[1], input.data() + sent++, 1) != 1)
            return "write failed";
        result = http_read_until_got_request(fds[0], &ctx, no_wait);
    }
    std::string left = input.substr(sent);
    char rest[4096];
    ssize_t n = recv(fds[0], rest, sizeof(rest), MSG_DONTWAIT);
    close(fds[0]);
    close(fds[1]);
    return Outcome(result, ctx, buffer,
                   std::string(rest, n > 0 ? static_cast<size_t>(n) : 0) + left);
}

// However the bytes arrive, the reader ends up with the same result, context
// and buffer, and leaves the same bytes: those of a reader that reads one
// byte at a time.
TEST(HeadReaderArrival, OutcomeDoesNotDependOnHowBytesArrive) {
    const std::vector<std::string> pieces = {
        "GET",  "POST", " ", "\t",  "/a",   "?b=1+2&c=%41;d", "HTTP/1.1",          "\r", "\n",
        "\r\n", "X",    ":", "  v", "\x01", "\xff",           "Content-Length: 5", "%",  "&"};
    std::mt19937 random(20240611);
    for (int round = 0; round < 400; ++round) {
        std::string input;
        for (int n = static_cast<int>(random() % 40); n > 0; --n)
            input += pieces[random() % pieces.size()];
        uint32_t size = 2 + random() % 300;
        EXPECT_EQ(ReadArriving(input, size, true), ReadArriving(input, size, false))
            << "input [" << input << "], buffer of " << size;
    }
}

// Bodies of many messages of very different head sizes, some split across
// writes, all read on one thread: each message starts from a clean head.
TEST(EventRead, ManyMessagesOnOneThreadKeepTheirBodies) {
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
    timeval wait = {1, 0};
    for (int i = 0; i < 40; ++i) {
        std::string extra = i % 3 == 0 ? "X-Pad: " + std::string(200 + i, 'p') + "\r\n" : "";
        std::string body = "{\"ObjectIn\":" + std::to_string(i) +
                           ",\"TotalOut\":" + std::string(static_cast<size_t>(i), '7') + "}";
        std::string bytes = Message(extra, body);
        size_t cut = i % 2 == 0 ? bytes.size() : bytes.size() - body.size() / 2;
        ASSERT_EQ(static_cast<ssize_t>(cut), write(fds[1], bytes.data(), cut));
        if (cut < bytes.size()) {
            ASSERT_EQ(static_cast<ssize_t>(bytes.size() - cut),
                      write(fds[1], bytes.data() + cut, bytes.size() - cut));
        }
        std::string msg;
        ASSERT_EQ(static_cast<int>(body.size()), ipcva_recv_msg(fds[0], msg, wait)) << i;
        EXPECT_EQ(body, msg);
    }
    close(fds[0]);
    close(fds[1]);
}

}  // namespace
