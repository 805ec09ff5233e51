#include "Abstract_PPL_Counter.h"

const char* PPL_DIR_Label(int dir) {
    switch (dir) {
        case PPL_DIR_IN:
            return "In";
        case PPL_DIR_OUT:
            return "Out";
        case PPL_DIR_DUAL:
            return "Dual";
        default:
            return "Unknown";
    }
}

// count_cb is deliberately left for the concrete counter or its owner to set.
Abstract_PPL_Counter::Abstract_PPL_Counter()
    : dir(PPL_DIR_DUAL), ppl_in(0), ppl_out(0), count_cb(nullptr) {}

Abstract_PPL_Counter::~Abstract_PPL_Counter() {
    count_cb = nullptr;
}

void Abstract_PPL_Counter::set_dir(PPL_DIR d) {
    dir = d;
}
PPL_DIR Abstract_PPL_Counter::get_dir() {
    return dir;
}
void Abstract_PPL_Counter::set_ppl_in(int n) {
    ppl_in += n;
}
void Abstract_PPL_Counter::set_ppl_out(int n) {
    ppl_out += n;
}
int Abstract_PPL_Counter::get_ppl_in() {
    return ppl_in;
}
int Abstract_PPL_Counter::get_ppl_out() {
    return ppl_out;
}
int Abstract_PPL_Counter::get_ppl_stayin() {
    return PPL_Stayin(ppl_in, ppl_out);
}

void Abstract_PPL_Counter::reset_ppl() {
    reset_ppl_in();
    reset_ppl_out();
}

void Abstract_PPL_Counter::reset_ppl_in() {
    ppl_in = 0;
}
void Abstract_PPL_Counter::reset_ppl_out() {
    ppl_out = 0;
}
void Abstract_PPL_Counter::set_ppl_count_callback(Abstract_PPL_CB* cb) {
    count_cb = cb;
}

void Abstract_PPL_Counter::notify_count_result() {
    Abstract_PPL_CB* cb = count_cb;
    if (cb != nullptr)
        cb->count_result(this);
}
