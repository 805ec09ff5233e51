// The fast event path must behave exactly like the plain one it replaced:
// the head reader like a reader taking one byte at a time, the counter's
// number reader like a string stream, and a burst must lose no message.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "CameraSim.h"
#include "Sandbox.h"
#include "UBrand_PPL_Counter.h"
#include "http_parser.h"

namespace {

// Everything a head reader leaves behind: result, context, buffer and the
// bytes still unread, with the input arriving all at once or byte by byte.
std::string ReadArriving(const std::string& input, uint32_t size, bool byte_by_byte) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
        return "socketpair failed";
    std::vector<char> buffer(size, '\0');
    HTTP_CONTEXT ctx;
    ctx.buffer = buffer.data();
    ctx.buffer_size = size;
    size_t sent = 0;
    int result = 0;
    do {
        size_t n = byte_by_byte ? std::min<size_t>(1, input.size() - sent) : input.size();
        if (write(fds[1], input.data() + sent, n) != static_cast<ssize_t>(n))
            return "write failed";
        sent += n;
        result = http_read_until_got_request(fds[0], &ctx, {0, 0});
    } while (result == 0 && sent < input.size());
    char rest[8192];
    ssize_t n = recv(fds[0], rest, sizeof(rest), MSG_DONTWAIT);
    close(fds[0]);
    close(fds[1]);
    std::string s = std::to_string(result) + "|" + std::to_string(ctx.received) + "|" +
                    std::to_string(ctx.position) + "|" + std::to_string(ctx.state) + "|" +
                    ctx.method + "|" + ctx.path + "|" + ctx.query;
    for (const auto& field : ctx.headers)
        s += "|H" + field.first + "=" + field.second;
    for (const auto& field : ctx.params)
        s += "|P" + field.first + "=" + field.second;
    return s + "|" + std::string(buffer.begin(), buffer.end()) + "|" +
           std::string(rest, n > 0 ? static_cast<size_t>(n) : 0) + input.substr(sent);
}

// Every head ending, then random streams: heads in pieces across waits,
// malformed first lines, heads too big for the buffer, bodies behind heads.
TEST(HeadReaderArrival, OutcomeDoesNotDependOnHowBytesArrive) {
    std::vector<std::string> inputs;
    for (const char* end : {"\n\n", "\r\r", "\r\n\n", "\r\n\r\n", "\r\n\r\r", "\n\r\r"}) {
        for (const char* first : {"GET /a HTTP/1.1\r\nA: 1", "GET /a x \r\nB:", "GET /a"})
            inputs.push_back(first + std::string(end) + "BODY");
    }
    std::vector<std::string> pieces = {
        "GET",  "POST", " ", "\t",  "/a",   "?b=1+2&c=%41;d", "HTTP/1.1",          "\r", "\n",
        "\r\n", "X",    ":", "  v", "\x01", "\xff",           "Content-Length: 5", "%",  "&"};
    pieces.push_back(std::string(300, 'x'));
    std::mt19937 random(20240611);
    for (int round = 0; round < 400; ++round) {
        std::string input = round % 2 ? "POST /e?q=%7e HTTP/1.1\r\n" : "";
        for (int n = static_cast<int>(random() % 40); n > 0; --n)
            input += pieces[random() % pieces.size()];
        inputs.push_back(input);
    }
    for (const std::string& input : inputs) {
        uint32_t size = input.size() < 30 ? HTTP_HEAD_BUFFER_SIZE : 2 + random() % 1200;
        EXPECT_EQ(ReadArriving(input, size, true), ReadArriving(input, size, false))
            << "input " << testing::PrintToString(input) << ", buffer of " << size;
    }
}

// The number as a string stream reads it into an int, 0 when it cannot.
int StreamValue(const std::string& text) {
    std::stringstream stream(text);
    int value = 0;
    return stream >> value ? value : 0;
}

TEST(CounterNumbers, ReadAsAStreamReadsThem) {
    UBrand_PPL_Counter counter(0);
    std::vector<std::string> texts = {
        "5",   " 5",    "+5",  "-5",         "007",        "5abc",        "5 6",
        "abc", "",      " ",   "-",          "+",          "--5",         "+-5",
        "- 5", "0x10",  "1e3", "2147483647", "2147483648", "-2147483648", "-2147483649",
        "-0",  "\1771", "1\1", "\xd9\xa1"};
    texts.insert(texts.end(), {"\t\n\v\f\r12", "00000000000000000000042", std::string(20, '9')});
    for (const std::string& text : texts) {
        testing::internal::CaptureStderr();
        counter.CountingResult("{\"TotalIn\":" + text + ",\"TotalOut\":" + text + "}");
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(StreamValue(text), counter.get_ppl_total_cam_in()) << "[" << text << "]";
        EXPECT_EQ(StreamValue(text), counter.get_ppl_total_cam_out()) << "[" << text << "]";
    }
}

struct TotalsCB : Abstract_PPL_CB {
    void count_result(Abstract_PPL_Counter* c) override {
        std::lock_guard<std::mutex> guard(lock);
        totals_in.push_back(c->get_ppl_total_cam_in());
    }
    std::vector<int> TotalsIn() {
        std::lock_guard<std::mutex> guard(lock);
        return totals_in;
    }

    std::mutex lock;
    std::vector<int> totals_in;
};

// Messages sent together, some with heads longer than one look at the
// socket, are each read whole and counted in order on one connection.
TEST(CounterBurst, EventsArrivingTogetherAreEachCountedInOrder) {
    camsim::Camera cam;
    ASSERT_TRUE(cam.Start());
    TotalsCB cb;
    UBrand_PPL_Counter counter(0);
    counter.set_ppl_count_callback(&cb);
    counter.set_server_addr("127.0.0.1");
    counter.set_server_port(cam.Port());
    counter.start();
    ASSERT_TRUE(cam.WaitForSubscribers(1, 3000));
    ASSERT_TRUE(ppltest::WaitFor(3000, [&] { return counter.is_connect(); }));
    std::string burst;
    std::vector<int> expected;
    for (int n = 1; n <= 200; ++n) {
        std::string body = camsim::Camera::EventBody(1, 0, {n, 0});
        burst += "POST /LAPI/V1.0/System/Event/Notification HTTP/1.1\r\n" +
                 (n % 10 ? "" : "X-Pad: " + std::string(600, 'p') + "\r\n") +
                 "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
        expected.push_back(n);
    }
    ASSERT_EQ(1, cam.SendRaw(burst));
    EXPECT_TRUE(ppltest::WaitFor(5000, [&] { return cb.TotalsIn().size() >= expected.size(); }));
    EXPECT_EQ(expected, cb.TotalsIn());
    EXPECT_EQ(1, cam.AcceptedConnections());
    counter.stop();
}

}  // namespace
