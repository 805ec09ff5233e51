#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <utility>

#include "ReplacementHttp.h"

using namespace pplreplacement;

TEST(ReplacementHttp, Base64AndTargetChecks) {
    const std::pair<std::string, std::string> vectors[] = {{"", ""},
                                                           {"f", "Zg=="},
                                                           {"fo", "Zm8="},
                                                           {"foobar", "Zm9vYmFy"},
                                                           {{"\xff\xfe\x00", 3}, "//4A"}};
    for (const auto& v : vectors)
        EXPECT_EQ(Base64Encode(v.first), v.second);

    HttpTarget t;
    EXPECT_EQ(MakeTarget("127.0.0.1", "65535", "u", "p", &t), 0);
    EXPECT_EQ(t.port, 65535);
    for (const char* port : {"0", "65536", "", "80a", "-1", " 80", "99999999999"})
        EXPECT_EQ(MakeTarget("127.0.0.1", port, "u", "p", &t), -EINVAL) << port;
    EXPECT_EQ(MakeTarget("camera.local", "80", "u", "p", &t), -EINVAL);
}

TEST(ReplacementHttp, AnswerEndsAtItsLengthOrAtTheClose) {
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
    EXPECT_EQ(ParseAnswer("HTTP/1.1 200 OK\r\nContent-", true, &a), -EPROTO);
}

TEST(ReplacementHttp, MalformedOrOversizedAnswersAreRefused) {
    HttpAnswer a;
    for (const char* bad : {
             "HTTP/2 200 OK\r\n\r\n",
             "HTTP/1.1 2000 OK\r\n\r\n",
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

    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const std::string long_head = ok + "X: " + std::string(kMaxHeadBytes, 'a');
    for (const std::string& big :
         {long_head, long_head + "\r\n\r\n",
          ok + "Content-Length: " + std::to_string(kMaxBodyBytes + 1) + "\r\n\r\n",
          ok + "\r\n" + std::string(kMaxBodyBytes + 1, 'b')})
        EXPECT_EQ(ParseAnswer(big, false, &a), -EMSGSIZE) << big.substr(0, 60);
}
