#include <gtest/gtest.h>

#include <cstring>
#include <utility>
#include <vector>

#include "Abstract_PPL_Counter.h"
#include "PPL_Counter_Group.h"

namespace {

// A counter whose camera totals the test sets directly.
struct FakeCounter : Abstract_PPL_Counter {
    explicit FakeCounter(int in = 0, int out = 0, PPL_DIR d = PPL_DIR_DUAL, int ci = 0, int co = 0)
        : cam_in(ci), cam_out(co) {
        if (d != PPL_DIR_DUAL)  // dual must come from the base itself
            set_dir(d);
        set_ppl_in(in);
        set_ppl_out(out);
    }
    ~FakeCounter() override = default;
    int get_ppl_total_cam_in() override { return cam_in; }
    int get_ppl_total_cam_out() override { return cam_out; }
    int get_ppl_total_cam_stayin() override { return cam_in - cam_out; }
    void reset_ppl_in() override {
        ++in_resets;
        Abstract_PPL_Counter::reset_ppl_in();
    }
    int cam_in, cam_out, in_resets = 0;
};

std::vector<int> Figures(PPL_Counter_Group& g) {
    return {
        g.get_in_count(),           g.get_out_count(),           g.get_stayin_count(),
        g.get_total_cam_in_count(), g.get_total_cam_out_count(), g.get_total_cam_stayin_count()};
}

TEST(CounterBase, NewCounterIsDualCountsAddAndResetRunsOverrides) {
    FakeCounter c;
    EXPECT_EQ(PPL_DIR_DUAL, c.get_dir());
    c.set_ppl_in(3);
    c.set_ppl_in(3);
    c.set_ppl_out(-1);
    EXPECT_EQ(std::make_pair(6, -1), std::make_pair(c.get_ppl_in(), c.get_ppl_out()));
    c.set_ppl_out(10);
    EXPECT_EQ(-3, c.get_ppl_stayin());  // not clamped
    c.reset_ppl();
    EXPECT_EQ(1, c.in_resets);
    EXPECT_EQ(std::make_pair(0, 0), std::make_pair(c.get_ppl_in(), c.get_ppl_out()));
}

TEST(CounterGroup, SumsByDirectionCountingEachCounterOnce) {
    PPL_Counter_Group g;
    EXPECT_EQ(Figures(g), std::vector<int>(6, 0));
    FakeCounter in_cam(10, 4, PPL_DIR_IN, 100, 40), out_cam(3, 7, PPL_DIR_OUT, 30, 70);
    for (FakeCounter* c : {&in_cam, &in_cam, &out_cam})  // a repeated add changes nothing
        EXPECT_TRUE(g.add_ppl_counter(c));
    EXPECT_EQ(2, g.num());
    EXPECT_EQ(Figures(g), (std::vector<int>{10, 7, 3, 100, 70, 30}));

    FakeCounter dual(5, 2, PPL_DIR_DUAL, 50, 20);
    FakeCounter unknown(1000, 1, static_cast<PPL_DIR>(9), 1000, 1);  // counted in neither
    g.add_ppl_counter(&dual);
    g.add_ppl_counter(&unknown);
    EXPECT_EQ(Figures(g), (std::vector<int>{15, 9, 6, 150, 90, 60}));
    for (FakeCounter* gone : {&in_cam, &out_cam, &unknown, &in_cam})  // absent is no error
        EXPECT_TRUE(g.del_ppl_counter(gone));
    EXPECT_FALSE(g.is_in_group(&in_cam));
    EXPECT_EQ(Figures(g), (std::vector<int>{5, 2, 3, 50, 20, 30}));
}

TEST(CounterGroup, SettingsCompareAllBytesAndSurviveClear) {
    PPL_Counter_Group g;
    FakeCounter a;
    g.add_ppl_counter(&a);
    _PPL_CAM_SETTINGS s{"01:02:03", 2, 1, 5, 3};  // zero-filled to the end of ResetTime
    testing::internal::CaptureStdout();
    g.set_cam_pair(true, 2);
    g.set_cam_pair(false, 3);
    g.set_ppl_settings(s);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "pair in: 2, pair out: -1\npair in: 2, pair out: 3\n"
              "ppl settings. [ResetEnable] = 1 [ResetTime] = 01:02:03 [ReportInterval] = 5 "
              "[Sensitivity] = 3 [ClearCounts] = 2\n");
    EXPECT_TRUE(g.compare_ppl_settings(s));
    EXPECT_FALSE(g.get_ppl_clear_counting()) << "only 1 clears";

    _PPL_CAM_SETTINGS d = s;
    d.ResetTime[15] = 'x';  // after the terminator
    EXPECT_FALSE(g.compare_ppl_settings(d));
    for (int field = 0; field < 4; ++field) {
        d = s;
        int* fields[] = {&d.ClearCounts, &d.ResetEnable, &d.ReportInterval, &d.Sensitivity};
        *fields[field] += 1;
        EXPECT_FALSE(g.compare_ppl_settings(d)) << "field " << field;
    }

    g.clear();
    std::pair<int, int> pair(2, 3);
    g.get_cam_pair(pair);
    EXPECT_EQ(std::make_pair(-1, -1), pair);
    EXPECT_EQ(0, g.num());
    g.get_ppl_settings(d);
    EXPECT_EQ(0, std::memcmp(&s, &d, sizeof(s)));
    d.ClearCounts = 1;
    g.set_ppl_settings(d);
    EXPECT_TRUE(g.get_ppl_clear_counting());
}

}  // namespace
