// The counter's side of the fast event path: its number reader and a burst
// of events that arrive together.
#include <gtest/gtest.h>

#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "CameraSim.h"
#include "Sandbox.h"
#include "UBrand_PPL_Counter.h"

namespace {

class TotalsCB : public Abstract_PPL_CB {
public:
    void count_result(Abstract_PPL_Counter* c) override {
        std::lock_guard<std::mutex> guard(lock_);
        totals_in_.push_back(c->get_ppl_total_cam_in());
    }
    std::vector<int> TotalsIn() {
        std::lock_guard<std::mutex> guard(lock_);
        return totals_in_;
    }

private:
    std::mutex lock_;
    std::vector<int> totals_in_;
};

// What a stream makes of the text as an int, 0 when it cannot.
int StreamValue(const std::string& text) {
    std::stringstream stream;
    stream << text;
    int value = 0;
    return stream >> value ? value : 0;
}

TEST(CounterNumbers, ReadAsAStreamReadsThem) {
    const std::vector<std::string> texts = {"5",
                                            " 5",
                                            "\t\n\v\f\r12",
                                            "+5",
                                            "-5",
                                            "007",
                                            "5abc",
                                            "5 6",
                                            "abc",
                                            "",
                                            " ",
                                            "-",
                                            "+",
                                            "--5",
                                            "+-5",
                                            "- 5",
                                            "0x10",
                                            "1e3",
                                            "2147483647",
                                            "2147483648",
                                            "-2147483648",
                                            "-2147483649",
                                            "00000000000000000000042",
                                            "99999999999999999999",
                                            "-0",
                                            "\x7f"
                                            "1",
                                            "1\x01",
                                            "\xd9\xa1"};
    UBrand_PPL_Counter counter(0);
    for (const std::string& text : texts) {
        testing::internal::CaptureStderr();
        counter.CountingResult("{\"ObjectIn\":" + text + ",\"ObjectOut\":0,\"TotalIn\":" + text +
                               ",\"TotalOut\":" + text + "}");
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(StreamValue(text), counter.get_ppl_total_cam_in()) << "[" << text << "]";
        EXPECT_EQ(StreamValue(text), counter.get_ppl_total_cam_out()) << "[" << text << "]";
    }
}

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
    const int kEvents = 200;
    std::string burst;
    for (int n = 1; n <= kEvents; ++n)
        burst += camsim::Camera::EventMessage(camsim::Camera::EventBody(1, 0, {n, 0}));
    ASSERT_EQ(1, cam.SendRaw(burst));
    EXPECT_TRUE(ppltest::WaitFor(5000, [&] { return cb.TotalsIn().size() >= kEvents; }));
    std::vector<int> expected;
    for (int n = 1; n <= kEvents; ++n)
        expected.push_back(n);
    EXPECT_EQ(expected, cb.TotalsIn());
    EXPECT_EQ(1, cam.AcceptedConnections());  // no message was misread
    counter.stop();
    cam.Stop();
}

}  // namespace
