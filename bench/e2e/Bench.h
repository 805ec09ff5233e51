#ifndef PPLBENCH_BENCH_H
#define PPLBENCH_BENCH_H

// What the parts of the end-to-end benchmark share: its fixed ports and
// limits, its options and results, and the process helpers.
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Probe.h"  // NowNs, the one clock

namespace pplbench {

constexpr int kQueueKey = 259;
constexpr long kQueueCapacity = 64L << 20;
constexpr int kInPort = 8001, kOutPort = 8002;
constexpr int kStartTimeoutMs = 10000;
constexpr double kMaxSustainedP99Ms = 20.0;
constexpr double kMinAchievedShare = 0.95;
constexpr size_t kMaxBatch = 32;

struct Options {
    std::string service;
    std::string relay;
    int runs = 3;
    double idle_seconds = 5;
    int paced_rate = 200;
    int paced_events = 1000;
    int burst_events = 1000;
    double step_seconds = 1;
    std::vector<int> ladder = {1000, 2000, 5000, 10000, 20000, 30000, 50000, 75000, 100000};
    bool verbose = false;
};

struct Latency {
    double p50_us = 0, p99_us = 0, max_us = 0;
    uint64_t events = 0, lost = 0;
};

struct Phase {
    Latency path[2];
    double achieved_rate = 0;
};

struct RunResult {
    std::string error;
    double startup_ms = 0;
    double idle_cpu_pct = 0, idle_wakeups = 0, idle_preempted = 0;
    long idle_rss_kib = 0, peak_rss_kib = 0, idle_pss_kib = 0, idle_private_kib = 0;
    int threads = 0;
    Phase paced, burst;
    int max_rate[2][2] = {{0, 0}, {0, 0}};  // [one camera, both][path]
};

// Processes and files ------------------------------------------------------

std::string ExecPath(int fd);
pid_t Spawn(int exe_fd, const std::vector<std::string>& argv, const std::string& out,
            const std::string& err);
void Reap(pid_t pid, int sig, int timeout_ms);
long FileSize(const std::string& path);
long StrippedSize(const std::string& path);
void WriteConfig();
void DrainQueue(int queue);
void SleepSeconds(double s);
void SleepUntil(uint64_t ns);

// One run of every phase against a fresh service and relays.
RunResult RunOnce(const Options& opt, int service_fd, int relay_fd, int queue);

// The report: one line per run, then the medians against the targets.
void PrintRun(int n, const RunResult& r);
void PrintSummary(const Options& opt, const std::vector<RunResult>& runs, long size, long stripped);

}  // namespace pplbench

#endif
