#ifndef PPL_COUNTER_GROUP_H
#define PPL_COUNTER_GROUP_H

#include <list>
#include <mutex>
#include <utility>

#include "Abstract_PPL_Counter.h"

// Camera counting settings of a group. Compared as a whole, including every
// byte of ResetTime after its terminator, so always zero-fill before use.
struct _PPL_CAM_SETTINGS {
    char ResetTime[16];  // "hours:minutes:seconds"
    int ClearCounts;
    int ResetEnable;
    int ReportInterval;
    int Sensitivity;
};

// The counters of one counted space, summed by direction, with the group's
// camera pair (in camera, out camera; -1 = none) and settings. Groups hold
// counters without owning them. The configuration pass rebuilds the list on
// the main thread while counters' threads sum it, so one lock guards the
// list, the pair and the settings.
class PPL_Counter_Group {
public:
    PPL_Counter_Group();
    ~PPL_Counter_Group();

    bool add_ppl_counter(Abstract_PPL_Counter* counter);
    bool del_ppl_counter(Abstract_PPL_Counter* counter);
    bool is_in_group(const Abstract_PPL_Counter* counter) const;
    int num();
    void clear();

    int get_in_count();
    int get_out_count();
    int get_stayin_count();
    int get_total_cam_in_count();
    int get_total_cam_out_count();
    int get_total_cam_stayin_count();

    void set_cam_pair(bool in, int cam);
    void get_cam_pair(std::pair<int, int>& pair);
    bool compare_cam_pair(std::pair<int, int>& pair);

    void set_ppl_settings(const _PPL_CAM_SETTINGS& s);
    void get_ppl_settings(_PPL_CAM_SETTINGS& s);
    bool compare_ppl_settings(const _PPL_CAM_SETTINGS& s);
    bool get_ppl_clear_counting();

private:
    // Sum of a getter over counters of the given directions (plus DUAL).
    int sum_by_dir(PPL_DIR side, int (Abstract_PPL_Counter::*getter)());

    std::list<Abstract_PPL_Counter*> counters;
    _PPL_CAM_SETTINGS settings;
    std::pair<int, int> cam_pair;
    mutable std::mutex lock;
};

#endif
