#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "http_parser.h"

namespace {

const timeval kWait = {0, 100000};

// A connected socket pair and a zeroed head buffer with a guard area behind
// the part the reader is told about.
class HttpReader : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds_));
        UseBuffer(HTTP_HEAD_BUFFER_SIZE);
    }
    void TearDown() override {
        close(fds_[0]);
        if (fds_[1] >= 0)
            close(fds_[1]);
    }
    void UseBuffer(uint32_t size) {
        storage_.assign(size + kGuard, '\0');
        ctx_ = HTTP_CONTEXT();
        ctx_.buffer = storage_.data();
        ctx_.buffer_size = size;
    }
    void Peer(const std::string& bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(fds_[1], bytes.data(), bytes.size()));
    }
    int Read() { return http_read_until_got_request(fds_[0], &ctx_, kWait); }
    std::string Rest() {
        char buf[256];
        ssize_t n = recv(fds_[0], buf, sizeof(buf), MSG_DONTWAIT);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
    }
    bool GuardIntact() {
        for (size_t i = ctx_.buffer_size; i < storage_.size(); ++i) {
            if (storage_[i] != '\0')
                return false;
        }
        return true;
    }

    static const size_t kGuard = 64;
    int fds_[2] = {-1, -1};
    std::vector<char> storage_;
    HTTP_CONTEXT ctx_;
};

TEST_F(HttpReader, ReadsHeadAndLeavesBodyOnSocket) {
    Peer("POST /x HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello");
    EXPECT_EQ(39, Read());
    EXPECT_EQ("POST", ctx_.method);
    EXPECT_EQ("/x", ctx_.path);
    EXPECT_EQ("", ctx_.query);
    EXPECT_EQ("5", ctx_.headers["Content-Length"]);
    EXPECT_EQ("hello", Rest());
}

TEST_F(HttpReader, EveryWayAHeadCanEnd) {
    const std::vector<std::string> endings = {"\n\n",     "\r\r",     "\r\n\n",
                                              "\r\n\r\n", "\r\n\r\r", "\n\r\r"};
    for (const std::string& end : endings) {
        for (const std::string& first :
             {std::string("GET /a HTTP/1.1"), std::string("GET /a x ")}) {
            UseBuffer(HTTP_HEAD_BUFFER_SIZE);
            std::string head = first + "\r\nA: 1" + end;
            Peer(head + "BODY");
            EXPECT_EQ(static_cast<int>(head.size()), Read()) << testing::PrintToString(head);
            EXPECT_EQ("/a", ctx_.path);
            EXPECT_EQ("1", ctx_.headers["A"]);
            EXPECT_EQ("BODY", Rest());
        }
    }
}

TEST_F(HttpReader, TwoWordFirstLineEndsTheHeadAtOnce) {
    Peer("GET /only\r\nX: y\r\n\r\n");
    EXPECT_EQ(10, Read());
    EXPECT_EQ("GET", ctx_.method);
    EXPECT_EQ("/only", ctx_.path);
    EXPECT_TRUE(ctx_.headers.empty());
    EXPECT_EQ("\nX: y\r\n\r\n", Rest());
}

TEST_F(HttpReader, MalformedFirstLines) {
    for (const char* bad :
         {"GET /a HTTP/1.1 more\r\n\r\n", "GET\r\n", "GET \r\n", "GET /a  \r\n", "\r\n"}) {
        UseBuffer(HTTP_HEAD_BUFFER_SIZE);
        Peer(bad);
        EXPECT_EQ(-EPROTO, Read()) << bad;
        EXPECT_EQ(11, ctx_.state);
        Rest();
    }
    Peer("x");
    EXPECT_EQ(-EPROTO, Read());  // the same context stays malformed
}

TEST_F(HttpReader, QueryIsSplitAndDecoded) {
    Peer("GET /a?b=1+2&c=%41;d&&b2=%7e HTTP/1.1\r\n\r\n");
    ASSERT_GT(Read(), 0);
    EXPECT_EQ("/a", ctx_.path);
    EXPECT_EQ("b=1+2&c=%41;d&&b2=%7e", ctx_.query);
    std::map<std::string, std::string> expected = {
        {"b", "1 2"}, {"c", "A"}, {"d", ""}, {"b2", "~"}};
    EXPECT_EQ(expected, ctx_.params);
}

TEST_F(HttpReader, HeaderNamesAsWrittenValuesWithoutLeadingBlanks) {
    Peer("GET / HTTP/1.1\nX:   v\nX : w\nno colon here\nY:\t\tz:z \nX: again\n\n");
    ASSERT_GT(Read(), 0);
    std::map<std::string, std::string> expected = {{"X", "again"}, {"X ", "w"}, {"Y", "z:z "}};
    EXPECT_EQ(expected, ctx_.headers);
}

TEST_F(HttpReader, WaitWithoutBytesLeavesContextAsItWas) {
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
}

TEST_F(HttpReader, PeerCloseAndBadArguments) {
    Peer("GET /a HT");
    close(fds_[1]);
    fds_[1] = -1;
    EXPECT_EQ(-1, Read());
    EXPECT_EQ(-EINVAL, http_read_until_got_request(-1, &ctx_, kWait));
    EXPECT_EQ(-EINVAL, http_read_until_got_request(fds_[0], nullptr, kWait));
    timeval negative = {-1, 0};
    EXPECT_EQ(-EINVAL, http_read_until_got_request(fds_[0], &ctx_, negative));
}

TEST_F(HttpReader, OversizedHeadFailsWithinTheBuffer) {
    UseBuffer(64);
    Peer("GET /a HTTP/1.1\r\nX: " + std::string(200, 'v') + "\r\n\r\n");
    EXPECT_EQ(-EMSGSIZE, Read());
    EXPECT_EQ(63u, ctx_.received);
    EXPECT_EQ('\0', storage_[63]);
    EXPECT_TRUE(GuardIntact());
}

TEST_F(HttpReader, ReadableWakeDescriptorEndsTheWait) {
    int wake = eventfd(1, EFD_CLOEXEC);
    ASSERT_GE(wake, 0);
    timeval long_wait = {5, 0};
    EXPECT_EQ(0, http_read_until_got_request(fds_[0], &ctx_, long_wait, wake));
    close(wake);
}

TEST(UnescapeUrl, DecodesEscapesAndKeepsBrokenOnes) {
    auto un = [](std::string s) { return unescape_url(&s[0]); };
    EXPECT_EQ("Abc~j", un("%41%62c%7e%6A"));
    EXPECT_EQ("a+b c", un("a+b c"));
    EXPECT_EQ("%", un("%"));
    EXPECT_EQ("x%4", un("x%4"));
    EXPECT_EQ("%zz%4g", un("%zz%4g"));
    EXPECT_EQ(std::string("a\0b", 3), un("a%00b"));
    EXPECT_EQ("", unescape_url(nullptr));
}

}  // namespace
