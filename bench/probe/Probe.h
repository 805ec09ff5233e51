#ifndef PPLBENCH_PROBE_H
#define PPLBENCH_PROBE_H

#include <sys/types.h>

#include <cstdint>

namespace pplbench {

// What the kernel says about a process, summed over its threads: the
// figures of the benchmark and of the soak.
struct ProcessSample {
    uint64_t at_ns = 0;        // monotonic time of the sample
    uint64_t cpu_ns = 0;       // time on a CPU
    uint64_t voluntary = 0;    // context switches by blocking: wake-ups
    uint64_t involuntary = 0;  // context switches by preemption
    long rss_kib = 0;
    long peak_rss_kib = 0;
    long pss_kib = 0;      // shared pages divided among their users
    long private_kib = 0;  // pages of this process alone
    int threads = 0;
    int fds = 0;  // open descriptors
};

// Monotonic clock in nanoseconds: the one clock of every measurement (the
// simulated cameras of the end-to-end benchmark stamp their writes with it).
uint64_t NowNs();

// Reads /proc/<pid>; false when the process or one of its threads could not
// be read.
bool SampleProcess(pid_t pid, ProcessSample* sample);

}  // namespace pplbench

#endif
