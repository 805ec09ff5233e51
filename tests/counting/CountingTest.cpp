#include <gtest/gtest.h>

#include <cstring>

#include "Abstract_PPL_Counter.h"
#include "PPL_Counter_Group.h"

namespace {

// A counter whose camera totals the test sets directly.
class FakeCounter : public Abstract_PPL_Counter {
public:
    FakeCounter(PPL_DIR d, int in, int out, int cam_in = 0, int cam_out = 0)
        : cam_in_(cam_in), cam_out_(cam_out) {
        set_dir(d);
        set_ppl_in(in);
        set_ppl_out(out);
    }
    ~FakeCounter() override = default;
    int get_ppl_total_cam_in() override { return cam_in_; }
    int get_ppl_total_cam_out() override { return cam_out_; }
    int get_ppl_total_cam_stayin() override { return cam_in_ - cam_out_; }
    void reset_ppl_in() override {
        ++in_resets;
        Abstract_PPL_Counter::reset_ppl_in();
    }
    int in_resets = 0;

private:
    int cam_in_, cam_out_;
};

_PPL_CAM_SETTINGS MakeSettings(const char* reset_time) {
    _PPL_CAM_SETTINGS s;
    std::memset(&s, 0, sizeof(s));
    std::strncpy(s.ResetTime, reset_time, sizeof(s.ResetTime) - 1);
    s.ClearCounts = 0;
    s.ResetEnable = 1;
    s.ReportInterval = 5;
    s.Sensitivity = 3;
    return s;
}

TEST(CounterBase, StartsDualWithZeroAndAccumulates) {
    FakeCounter c(PPL_DIR_DUAL, 0, 0);
    Abstract_PPL_Counter& base = c;
    EXPECT_EQ(PPL_DIR_DUAL, base.get_dir());
    EXPECT_EQ(0, base.get_ppl_stayin());
    base.set_ppl_in(3);
    base.set_ppl_in(3);
    base.set_ppl_out(-1);
    EXPECT_EQ(6, base.get_ppl_in());
    EXPECT_EQ(-1, base.get_ppl_out());
    base.set_ppl_out(10);
    EXPECT_EQ(-3, base.get_ppl_stayin());  // not clamped
}

TEST(CounterBase, ResetRunsTheOverrides) {
    FakeCounter c(PPL_DIR_IN, 4, 2);
    c.reset_ppl();
    EXPECT_EQ(1, c.in_resets);
    EXPECT_EQ(0, c.get_ppl_in());
    EXPECT_EQ(0, c.get_ppl_out());
}

TEST(CounterBase, DirectionLabels) {
    EXPECT_STREQ("In", PPL_DIR_Label(0));
    EXPECT_STREQ("Out", PPL_DIR_Label(1));
    EXPECT_STREQ("Dual", PPL_DIR_Label(2));
    EXPECT_STREQ("Unknown", PPL_DIR_Label(7));
    EXPECT_STREQ("Unknown", PPL_DIR_Label(-1));
}

TEST(CounterGroup, EmptyGroupSumsToZero) {
    PPL_Counter_Group g;
    EXPECT_EQ(0, g.num());
    EXPECT_EQ(0, g.get_in_count() + g.get_out_count() + g.get_stayin_count());
    EXPECT_EQ(0, g.get_total_cam_in_count());
    EXPECT_EQ(0, g.get_total_cam_out_count());
    EXPECT_EQ(0, g.get_total_cam_stayin_count());
}

TEST(CounterGroup, DuplicatesAreIgnoredAndDeleteRemoves) {
    PPL_Counter_Group g;
    FakeCounter a(PPL_DIR_IN, 1, 0);
    FakeCounter b(PPL_DIR_OUT, 0, 1);
    EXPECT_TRUE(g.add_ppl_counter(&a));
    EXPECT_TRUE(g.add_ppl_counter(&a));
    EXPECT_EQ(1, g.num());
    EXPECT_EQ(1, g.get_in_count());      // counted once
    EXPECT_TRUE(g.del_ppl_counter(&b));  // absent: no error
    EXPECT_TRUE(g.del_ppl_counter(&a));
    EXPECT_EQ(0, g.num());
    EXPECT_FALSE(g.is_in_group(&a));
}

TEST(CounterGroup, SumsByDirection) {
    PPL_Counter_Group g;
    FakeCounter in_cam(PPL_DIR_IN, 10, 4, 100, 40);
    FakeCounter out_cam(PPL_DIR_OUT, 3, 7, 30, 70);
    g.add_ppl_counter(&in_cam);
    g.add_ppl_counter(&out_cam);
    EXPECT_TRUE(g.is_in_group(&out_cam));
    EXPECT_EQ(10, g.get_in_count());
    EXPECT_EQ(7, g.get_out_count());
    EXPECT_EQ(3, g.get_stayin_count());
    EXPECT_EQ(100, g.get_total_cam_in_count());
    EXPECT_EQ(70, g.get_total_cam_out_count());
    EXPECT_EQ(30, g.get_total_cam_stayin_count());

    FakeCounter dual(PPL_DIR_DUAL, 5, 2, 50, 20);
    FakeCounter unknown(static_cast<PPL_DIR>(9), 1000, 1000, 1000, 1000);
    g.add_ppl_counter(&dual);
    g.add_ppl_counter(&unknown);  // counted in neither total
    EXPECT_EQ(15, g.get_in_count());
    EXPECT_EQ(9, g.get_out_count());
    EXPECT_EQ(150, g.get_total_cam_in_count());
    EXPECT_EQ(90, g.get_total_cam_out_count());

    g.del_ppl_counter(&in_cam);
    g.del_ppl_counter(&out_cam);
    g.del_ppl_counter(&unknown);
    EXPECT_EQ(5, g.get_in_count());
    EXPECT_EQ(2, g.get_out_count());
    EXPECT_EQ(3, g.get_stayin_count());
}

TEST(CounterGroup, ClearEmptiesListAndPairButKeepsSettings) {
    PPL_Counter_Group g;
    FakeCounter a(PPL_DIR_IN, 1, 0);
    g.add_ppl_counter(&a);
    testing::internal::CaptureStdout();
    g.set_cam_pair(true, 2);
    g.set_cam_pair(false, 3);
    _PPL_CAM_SETTINGS s = MakeSettings("01:02:03");
    g.set_ppl_settings(s);
    EXPECT_EQ(
        "pair in: 2, pair out: -1\npair in: 2, pair out: 3\n"
        "ppl settings. [ResetEnable] = 1 [ResetTime] = 01:02:03 [ReportInterval] = 5 "
        "[Sensitivity] = 3 [ClearCounts] = 0\n",
        testing::internal::GetCapturedStdout());
    std::pair<int, int> pair(2, 3);
    EXPECT_TRUE(g.compare_cam_pair(pair));

    g.clear();
    EXPECT_EQ(0, g.num());
    g.get_cam_pair(pair);
    EXPECT_EQ(std::make_pair(-1, -1), pair);
    _PPL_CAM_SETTINGS back;
    g.get_ppl_settings(back);
    EXPECT_EQ(0, std::memcmp(&s, &back, sizeof(s)));
}

TEST(CounterGroup, SettingsCompareEveryFieldAndAllSixteenBytes) {
    PPL_Counter_Group g;
    testing::internal::CaptureStdout();
    _PPL_CAM_SETTINGS s = MakeSettings("23:59:00");
    g.set_ppl_settings(s);
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(g.compare_ppl_settings(s));

    _PPL_CAM_SETTINGS tail = s;
    tail.ResetTime[15] = 'x';  // after the terminator
    EXPECT_FALSE(g.compare_ppl_settings(tail));

    for (int field = 0; field < 4; ++field) {
        _PPL_CAM_SETTINGS d = s;
        int* fields[] = {&d.ClearCounts, &d.ResetEnable, &d.ReportInterval, &d.Sensitivity};
        *fields[field] += 1;
        EXPECT_FALSE(g.compare_ppl_settings(d)) << "field " << field;
    }
    EXPECT_FALSE(g.get_ppl_clear_counting());
    s.ClearCounts = 2;
    testing::internal::CaptureStdout();
    g.set_ppl_settings(s);
    EXPECT_FALSE(g.get_ppl_clear_counting());
    s.ClearCounts = 1;
    g.set_ppl_settings(s);
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(g.get_ppl_clear_counting());
}

}  // namespace
