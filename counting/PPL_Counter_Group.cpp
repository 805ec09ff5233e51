#include "PPL_Counter_Group.h"

#include <algorithm>
#include <cstring>
#include <iostream>

PPL_Counter_Group::PPL_Counter_Group() {
    std::memset(&settings, 0, sizeof(settings));
    clear();
}

PPL_Counter_Group::~PPL_Counter_Group() {
    clear();
}

bool PPL_Counter_Group::add_ppl_counter(Abstract_PPL_Counter* counter) {
    std::lock_guard<std::mutex> guard(lock);
    if (std::find(counters.begin(), counters.end(), counter) == counters.end()) {
        counters.push_back(counter);
    }
    return true;
}

bool PPL_Counter_Group::del_ppl_counter(Abstract_PPL_Counter* counter) {
    std::lock_guard<std::mutex> guard(lock);
    counters.remove(counter);
    return true;
}

bool PPL_Counter_Group::is_in_group(const Abstract_PPL_Counter* counter) const {
    std::lock_guard<std::mutex> guard(lock);
    return std::find(counters.begin(), counters.end(), counter) != counters.end();
}

int PPL_Counter_Group::num() {
    std::lock_guard<std::mutex> guard(lock);
    return static_cast<int>(counters.size());
}

void PPL_Counter_Group::clear() {
    std::lock_guard<std::mutex> guard(lock);
    counters.clear();
    cam_pair = std::make_pair(-1, -1);
}

int PPL_Counter_Group::sum_by_dir(PPL_DIR side, int (Abstract_PPL_Counter::*getter)()) {
    std::lock_guard<std::mutex> guard(lock);
    unsigned int sum = 0;  // wraps like the signed 32-bit sum, without UB
    for (Abstract_PPL_Counter* c : counters) {
        PPL_DIR d = c->get_dir();
        if (d == side || d == PPL_DIR_DUAL) {
            sum += static_cast<unsigned int>((c->*getter)());
        }
    }
    return static_cast<int>(sum);
}

int PPL_Counter_Group::get_in_count() {
    return sum_by_dir(PPL_DIR_IN, &Abstract_PPL_Counter::get_ppl_in);
}

int PPL_Counter_Group::get_out_count() {
    return sum_by_dir(PPL_DIR_OUT, &Abstract_PPL_Counter::get_ppl_out);
}

int PPL_Counter_Group::get_stayin_count() {
    return PPL_Stayin(get_in_count(), get_out_count());
}

int PPL_Counter_Group::get_total_cam_in_count() {
    return sum_by_dir(PPL_DIR_IN, &Abstract_PPL_Counter::get_ppl_total_cam_in);
}

int PPL_Counter_Group::get_total_cam_out_count() {
    return sum_by_dir(PPL_DIR_OUT, &Abstract_PPL_Counter::get_ppl_total_cam_out);
}

int PPL_Counter_Group::get_total_cam_stayin_count() {
    return PPL_Stayin(get_total_cam_in_count(), get_total_cam_out_count());
}

void PPL_Counter_Group::set_cam_pair(bool in, int cam) {
    std::pair<int, int> now;
    {
        std::lock_guard<std::mutex> guard(lock);
        (in ? cam_pair.first : cam_pair.second) = cam;
        now = cam_pair;
    }
    std::cout << "pair in: " << now.first << ", pair out: " << now.second << std::endl;
}

void PPL_Counter_Group::get_cam_pair(std::pair<int, int>& pair) {
    std::lock_guard<std::mutex> guard(lock);
    pair = cam_pair;
}

bool PPL_Counter_Group::compare_cam_pair(std::pair<int, int>& pair) {
    std::lock_guard<std::mutex> guard(lock);
    return cam_pair.first == pair.first && cam_pair.second == pair.second;
}

void PPL_Counter_Group::set_ppl_settings(const _PPL_CAM_SETTINGS& s) {
    _PPL_CAM_SETTINGS now;
    {
        std::lock_guard<std::mutex> guard(lock);
        std::memcpy(&settings, &s, sizeof(settings));
        now = settings;
    }
    char reset_time[sizeof(now.ResetTime) + 1] = {0};
    std::memcpy(reset_time, now.ResetTime, sizeof(now.ResetTime));
    std::cout << "ppl settings. [ResetEnable] = " << now.ResetEnable
              << " [ResetTime] = " << reset_time << " [ReportInterval] = " << now.ReportInterval
              << " [Sensitivity] = " << now.Sensitivity << " [ClearCounts] = " << now.ClearCounts
              << std::endl;
}

void PPL_Counter_Group::get_ppl_settings(_PPL_CAM_SETTINGS& s) {
    std::lock_guard<std::mutex> guard(lock);
    std::memcpy(&s, &settings, sizeof(settings));
}

bool PPL_Counter_Group::compare_ppl_settings(const _PPL_CAM_SETTINGS& s) {
    std::lock_guard<std::mutex> guard(lock);
    return settings.ReportInterval == s.ReportInterval && settings.Sensitivity == s.Sensitivity &&
           settings.ResetEnable == s.ResetEnable && settings.ClearCounts == s.ClearCounts &&
           std::memcmp(settings.ResetTime, s.ResetTime, sizeof(settings.ResetTime)) == 0;
}

bool PPL_Counter_Group::get_ppl_clear_counting() {
    std::lock_guard<std::mutex> guard(lock);
    return settings.ClearCounts == 1;
}
