#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "ReplacementHttp.h"

using namespace pplreplacement;

TEST(ReplacementHttp, Base64MatchesKnownVectors) {
    EXPECT_EQ(Base64Encode(""), "");
    EXPECT_EQ(Base64Encode("f"), "Zg==");
    EXPECT_EQ(Base64Encode("fo"), "Zm8=");
    EXPECT_EQ(Base64Encode("foo"), "Zm9v");
    EXPECT_EQ(Base64Encode("foobar"), "Zm9vYmFy");
    EXPECT_EQ(Base64Encode("admin:pass word"), "YWRtaW46cGFzcyB3b3Jk");
    EXPECT_EQ(Base64Encode(std::string("\xff\xfe\x00", 3)), "//4A");
}

TEST(ReplacementHttp, TargetNeedsDottedAddressAndPort) {
    HttpTarget t;
    EXPECT_EQ(MakeTarget("127.0.0.1", "8080", "u", "p", &t), 0);
    EXPECT_EQ(t.port, 8080);
    EXPECT_EQ(MakeTarget("127.0.0.1", "65535", "u", "p", &t), 0);
    for (const char* port : {"0", "65536", "", "80a", "-1", " 80", "99999999999"})
        EXPECT_EQ(MakeTarget("127.0.0.1", port, "u", "p", &t), -EINVAL) << port;
    EXPECT_EQ(MakeTarget("camera.local", "80", "u", "p", &t), -EINVAL);
}

TEST(ReplacementHttp, RequestBytes) {
    HttpTarget t;
    ASSERT_EQ(MakeTarget("10.0.0.7", "81", "admin", "secret", &t), 0);
    EXPECT_EQ(ComposeRequest(t, "POST", "/x", "text/plain", "a=1"),
              "POST /x HTTP/1.1\r\n"
              "Host: 10.0.0.7:81\r\n"
              "Authorization: Basic YWRtaW46c2VjcmV0\r\n"
              "Content-Type: text/plain\r\n"
              "Content-Length: 3\r\n"
              "Connection: close\r\n\r\n"
              "a=1");
    EXPECT_EQ(ComposeRequest(t, "GET", "/y", "", ""),
              "GET /y HTTP/1.1\r\n"
              "Host: 10.0.0.7:81\r\n"
              "Authorization: Basic YWRtaW46c2VjcmV0\r\n"
              "Content-Length: 0\r\n"
              "Connection: close\r\n\r\n");
}

TEST(ReplacementHttp, AnswerWithAndWithoutLength) {
    HttpAnswer a;
    const std::string head = "HTTP/1.1 200 OK\r\ncontent-length:  5 \r\n\r\n";
    EXPECT_EQ(ParseAnswer(head + "in=1", false, &a), -EAGAIN);
    EXPECT_EQ(ParseAnswer(head + "in=1", true, &a), -EPROTO);
    ASSERT_EQ(ParseAnswer(head + "in=12trailing", false, &a), 0);
    EXPECT_EQ(a.status, 200);
    EXPECT_EQ(a.body, "in=12");

    const std::string open = "HTTP/1.0 404\r\nServer: cam\r\n\r\nnot here";
    EXPECT_EQ(ParseAnswer(open, false, &a), -EAGAIN);
    ASSERT_EQ(ParseAnswer(open, true, &a), 0);
    EXPECT_EQ(a.status, 404);
    EXPECT_EQ(a.body, "not here");

    EXPECT_EQ(ParseAnswer("HTTP/1.1 200 OK\r\nContent-", false, &a), -EAGAIN);
    EXPECT_EQ(ParseAnswer("HTTP/1.1 200 OK\r\nContent-", true, &a), -EPROTO);
}

TEST(ReplacementHttp, MalformedAnswersAreRefused) {
    HttpAnswer a;
    for (const char* bad : {
             "HTTP/2 200 OK\r\n\r\n",
             "HTTP/1.1 2000 OK\r\n\r\n",
             "HTTP/1.1 20 OK\r\n\r\n",
             "HTTP/1.1 099 OK\r\n\r\n",
             "HTTP/1.x 200 OK\r\n\r\n",
             "ICY 200 OK\r\n\r\n",
             "HTTP/1.1 200 OK\r\nno colon here\r\n\r\n",
             "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\n",
             "HTTP/1.1 200 OK\r\nContent-Length: 1x\r\n\r\n",
             "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nContent-Length: 3\r\n\r\nabc",
             "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n",
         })
        EXPECT_EQ(ParseAnswer(bad, true, &a), -EPROTO) << bad;
}

TEST(ReplacementHttp, OversizedAnswersAreRefused) {
    HttpAnswer a;
    std::string long_head = "HTTP/1.1 200 OK\r\nX: " + std::string(kMaxHeadBytes, 'a');
    EXPECT_EQ(ParseAnswer(long_head, false, &a), -EMSGSIZE);
    EXPECT_EQ(ParseAnswer(long_head + "\r\n\r\n", false, &a), -EMSGSIZE);
    std::string big_length =
        "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(kMaxBodyBytes + 1) + "\r\n\r\n";
    EXPECT_EQ(ParseAnswer(big_length, false, &a), -EMSGSIZE);
    std::string endless = "HTTP/1.1 200 OK\r\n\r\n" + std::string(kMaxBodyBytes + 1, 'b');
    EXPECT_EQ(ParseAnswer(endless, false, &a), -EMSGSIZE);
}
