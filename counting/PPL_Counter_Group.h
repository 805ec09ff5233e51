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
// list, the pair and the settings: every operation may be called from any
// thread. None fails.
class PPL_Counter_Group {
public:
    // An empty group, pair (-1, -1), settings zero-filled.
    PPL_Counter_Group();
    // Empties the list; the counters themselves are left alone.
    ~PPL_Counter_Group();

    // Appends a counter unless that pointer is in the list already. True.
    bool add_ppl_counter(Abstract_PPL_Counter* counter);
    // Removes every entry of that pointer (an absent one is no error). True.
    bool del_ppl_counter(Abstract_PPL_Counter* counter);
    bool is_in_group(const Abstract_PPL_Counter* counter) const;
    int num();
    // Empties the list and sets the pair to (-1, -1); the settings stay
    // readable until new ones are set.
    void clear();

    // Sums over the list in insertion order, as signed 32-bit numbers that
    // wrap: in counts of IN and DUAL counters, out counts of OUT and DUAL
    // ones (any other direction adds to neither), stay-in as in minus out.
    // The accumulated counts (set_ppl_in/out) feed only the record file; the
    // cameras' totals (total_cam) feed events, alarms and the status file.
    int get_in_count();
    int get_out_count();
    int get_stayin_count();
    int get_total_cam_in_count();
    int get_total_cam_out_count();
    int get_total_cam_stayin_count();

    // Sets the in (in true) or the out camera and prints the pair ("pair in:
    // N, pair out: M") on standard output.
    void set_cam_pair(bool in, int cam);
    void get_cam_pair(std::pair<int, int>& pair);
    // Whether both cameras equal the pair given.
    bool compare_cam_pair(std::pair<int, int>& pair);

    // Copies the settings in and prints them in one line on standard output.
    void set_ppl_settings(const _PPL_CAM_SETTINGS& s);
    void get_ppl_settings(_PPL_CAM_SETTINGS& s);
    // Whether the settings equal s in every field, all 16 bytes of ResetTime
    // included.
    bool compare_ppl_settings(const _PPL_CAM_SETTINGS& s);
    // Whether the clear-count flag is exactly 1.
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
