#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "http_parser.h"

namespace {

using Fields = std::map<std::string, std::string>;

// A connected socket pair; a zeroed guard area follows the head buffer.
class HttpReader : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds_));
        UseBuffer(HTTP_HEAD_BUFFER_SIZE);
    }
    void TearDown() override {
        close(fds_[0]);
        close(fds_[1]);
    }
    void UseBuffer(uint32_t size) {
        storage_.assign(size + 64, '\0');
        ctx_ = HTTP_CONTEXT();
        ctx_.buffer = storage_.data();
        ctx_.buffer_size = size;
    }
    void Peer(const std::string& bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(fds_[1], bytes.data(), bytes.size()));
    }
    int Read() { return http_read_until_got_request(fds_[0], &ctx_, {0, 100000}); }
    std::string Rest() {
        char buf[256];
        ssize_t n = recv(fds_[0], buf, sizeof(buf), MSG_DONTWAIT);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
    }

    int fds_[2] = {-1, -1};
    std::vector<char> storage_;
    HTTP_CONTEXT ctx_;
};

// Both kinds of three-word first line with every head ending; the body stays.
TEST_F(HttpReader, EveryWayAHeadCanEnd) {
    for (const char* end : {"\r\n\r\n", "\n\n", "\r\r", "\r\n\n", "\r\n\r\r", "\n\r\r"}) {
        for (const char* first : {"POST /x HTTP/1.1", "POST /x x "}) {
            UseBuffer(HTTP_HEAD_BUFFER_SIZE);
            std::string head = std::string(first) + "\r\nContent-Length: 5" + end;
            Peer(head + "hello");
            EXPECT_EQ(static_cast<int>(head.size()), Read()) << testing::PrintToString(head);
            EXPECT_EQ("POST", ctx_.method);
            EXPECT_EQ("/x", ctx_.path);
            EXPECT_EQ((Fields{{"Content-Length", "5"}}), ctx_.headers);
            EXPECT_EQ("hello", Rest());
        }
    }
}

TEST_F(HttpReader, TwoWordFirstLineEndsTheHeadAtOnce) {
    Peer("GET /only\r\nX: y\r\n\r\n");
    EXPECT_EQ(10, Read());
    EXPECT_EQ("/only", ctx_.path);
    EXPECT_EQ("\nX: y\r\n\r\n", Rest());
}

TEST_F(HttpReader, MalformedFirstLines) {
    for (const char* bad :
         {"GET /a HTTP/1.1 more\r\n\r\n", "GET\r\n", "GET \r\n", "GET /a  \r\n", "\r\n"}) {
        UseBuffer(HTTP_HEAD_BUFFER_SIZE);
        Peer(bad);
        EXPECT_EQ(-EPROTO, Read()) << bad;
        Rest();
    }
    Peer("xy");
    EXPECT_EQ(-EPROTO, Read());  // the same context stays malformed, one byte further
    EXPECT_EQ("y", Rest());
}

// Broken escapes are kept; header names as written, the last value wins.
TEST_F(HttpReader, QueryAndHeaderFields) {
    const std::string query = "b=1+2&c=%41;d&&b2=%7e%00;e=%zz%4";
    Peer("GET /a?" + query + " HTTP/1.1\nX:   v\nX : w\nno colon\nY:\t\tz:z \nX: 2\n\n");
    ASSERT_GT(Read(), 0);
    EXPECT_EQ("/a", ctx_.path);
    EXPECT_EQ(query, ctx_.query);
    Fields params = {
        {"b", "1 2"}, {"c", "A"}, {"d", ""}, {"b2", std::string("~\0", 2)}, {"e", "%zz%4"}};
    EXPECT_EQ(params, ctx_.params);
    EXPECT_EQ((Fields{{"X", "2"}, {"X ", "w"}, {"Y", "z:z "}}), ctx_.headers);
}

// A wait without a byte keeps the context, also in the middle of a head,
// which the next call then reads on.
TEST_F(HttpReader, WaitWithoutBytesThenPeerClose) {
    EXPECT_EQ(0, Read());
    EXPECT_EQ(0u, ctx_.received);
    EXPECT_EQ(0, ctx_.state);
    Peer("GET /a");
    EXPECT_EQ(0, Read());
    EXPECT_EQ(6u, ctx_.received);
    int state = ctx_.state;
    EXPECT_EQ(0, Read());
    EXPECT_EQ(6u, ctx_.received);
    EXPECT_EQ(state, ctx_.state);
    Peer(" HTTP/1.1\r\n\r\n");
    EXPECT_EQ(19, Read());
    EXPECT_EQ("/a", ctx_.path);
    UseBuffer(HTTP_HEAD_BUFFER_SIZE);
    Peer("GET /a HT");
    shutdown(fds_[1], SHUT_WR);
    EXPECT_EQ(-1, Read());
}

TEST_F(HttpReader, OversizedHeadFailsWithinTheBuffer) {
    UseBuffer(64);
    const std::string head = "GET /a HTTP/1.1\r\nX: " + std::string(200, 'v') + "\r\n\r\n";
    Peer(head);
    EXPECT_EQ(-EMSGSIZE, Read());
    EXPECT_EQ(63u, ctx_.received);
    EXPECT_EQ(std::vector<char>(65, '\0'),
              std::vector<char>(storage_.begin() + 63, storage_.end()));
    EXPECT_EQ(head.substr(63), Rest());
}

}  // namespace
