#ifndef PPL_ABSTRACT_PPL_COUNTER_H
#define PPL_ABSTRACT_PPL_COUNTER_H

#include <atomic>

// Direction of a counter's camera. Values outside the three named ones are
// logged as "Unknown" and counted in neither group total.
enum PPL_DIR : int {
    PPL_DIR_IN = 0,
    PPL_DIR_OUT = 1,
    PPL_DIR_DUAL = 2,
    PPL_DIR_TRANSIT = 3,  // set only on a separate out camera's way to PPL_DIR_OUT
};

// Label used by the counters' log lines: "In", "Out", "Dual" or "Unknown".
const char* PPL_DIR_Label(int dir);

// Stay-in = in - out, wrapping like a camera's own signed 32-bit arithmetic
// (totals are whatever 32-bit values the cameras send), never overflowing.
inline int PPL_Stayin(int in, int out) {
    return static_cast<int>(static_cast<unsigned int>(in) - static_cast<unsigned int>(out));
}

class Abstract_PPL_Counter;

// Notified by a counter, on the counter's own thread, after its counts changed.
class Abstract_PPL_CB {
public:
    virtual ~Abstract_PPL_CB() = default;
    virtual void count_result(Abstract_PPL_Counter* counter) = 0;
};

// A camera counter. Two count families live side by side: ppl_in/ppl_out are
// accumulated through the additive setters; the total-cam getters report the
// camera's own running totals. Events, alarms and status use the latter.
// Counts and direction are written by a worker thread and read by the service
// thread, so they are atomics; reads and writes stay plain word accesses.
class Abstract_PPL_Counter {
public:
    Abstract_PPL_Counter();
    virtual ~Abstract_PPL_Counter();

    virtual void set_dir(PPL_DIR d);
    virtual PPL_DIR get_dir();
    // Additive: each call adds n; only the resets lower a count.
    virtual void set_ppl_in(int n);
    virtual void set_ppl_out(int n);
    virtual int get_ppl_in();
    virtual int get_ppl_out();
    virtual int get_ppl_stayin();
    virtual int get_ppl_total_cam_in() = 0;
    virtual int get_ppl_total_cam_out() = 0;
    virtual int get_ppl_total_cam_stayin() = 0;
    virtual void reset_ppl();
    virtual void reset_ppl_in();
    virtual void reset_ppl_out();
    virtual void set_ppl_count_callback(Abstract_PPL_CB* cb);

protected:
    // Tells the callback, when one is set, that this counter's counts
    // changed: count_result(this) runs on the calling thread (the counter's
    // worker, or whoever reset its totals).
    void notify_count_result();

    std::atomic<PPL_DIR> dir;
    std::atomic<int> ppl_in;
    std::atomic<int> ppl_out;
    std::atomic<Abstract_PPL_CB*> count_cb;
};

#endif
