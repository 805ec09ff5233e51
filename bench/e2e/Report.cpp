// The benchmark's report: each run, then the medians against the targets.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "Bench.h"
#include "Reader.h"

namespace pplbench {

namespace {

double Median(std::vector<double> v) {
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

double MedianOf(const std::vector<RunResult>& runs,
                const std::function<double(const RunResult&)>& f) {
    std::vector<double> v;
    for (const RunResult& r : runs)
        v.push_back(f(r));
    return Median(v);
}

double Ratio(double a, double b) {
    return b > 0 ? a / b : 0;
}

const char* Verdict(bool ok) {
    return ok ? "ok" : "MISSED";
}

void PrintLatencyTable(const char* title, const std::vector<RunResult>& runs,
                       Phase RunResult::*phase) {
    printf("\n%s\n", title);
    printf("  %-9s %10s %10s %10s %8s\n", "", "p50 us", "p99 us", "max us", "lost");
    for (Path path : {kService, kRelay}) {
        auto get = [&](double Latency::*field) {
            return MedianOf(runs, [&](const RunResult& r) { return (r.*phase).path[path].*field; });
        };
        double lost = 0;
        for (const RunResult& r : runs)
            lost += static_cast<double>((r.*phase).path[path].lost);
        printf("  %-9s %10.0f %10.0f %10.0f %8.0f\n", path == kService ? "service" : "relay",
               get(&Latency::p50_us), get(&Latency::p99_us), get(&Latency::max_us), lost);
    }
    auto ratio = [&](double Latency::*field) {
        return MedianOf(runs, [&](const RunResult& r) {
            return Ratio((r.*phase).path[kService].*field, (r.*phase).path[kRelay].*field);
        });
    };
    printf("  %-9s %9.2fx %9.2fx %9.2fx\n", "ratio", ratio(&Latency::p50_us),
           ratio(&Latency::p99_us), ratio(&Latency::max_us));
}

}  // namespace

void PrintRun(int n, const RunResult& r) {
    if (!r.error.empty()) {
        printf("run %d: FAILED: %s\n", n, r.error.c_str());
        return;
    }
    printf(
        "run %d: start-up %.0f ms; idle %.3f %% CPU, %.1f wake-ups/s, RSS %ld KiB; "
        "paced p50 %.0f/%.0f us p99 %.0f/%.0f us lost %lu/%lu; burst p50 %.0f/%.0f us "
        "lost %lu/%lu; max rate one %d/%d, both %d/%d (service/relay)\n",
        n, r.startup_ms, r.idle_cpu_pct, r.idle_wakeups, r.idle_rss_kib,
        r.paced.path[kService].p50_us, r.paced.path[kRelay].p50_us, r.paced.path[kService].p99_us,
        r.paced.path[kRelay].p99_us, static_cast<unsigned long>(r.paced.path[kService].lost),
        static_cast<unsigned long>(r.paced.path[kRelay].lost), r.burst.path[kService].p50_us,
        r.burst.path[kRelay].p50_us, static_cast<unsigned long>(r.burst.path[kService].lost),
        static_cast<unsigned long>(r.burst.path[kRelay].lost), r.max_rate[0][kService],
        r.max_rate[0][kRelay], r.max_rate[1][kService], r.max_rate[1][kRelay]);
    fflush(stdout);
}

void PrintSummary(const Options& opt, const std::vector<RunResult>& runs, long size,
                  long stripped) {
    printf("\n=== medians of %zu runs (ratios: service / relay, taken within each run)\n",
           runs.size());
    auto med = [&](const std::function<double(const RunResult&)>& f) { return MedianOf(runs, f); };
    printf("binary: %ld bytes, stripped %ld bytes (%.0f KiB)  target <= 400 KiB: %s\n", size,
           stripped, stripped / 1024.0, Verdict(stripped >= 0 && stripped <= 400 * 1024));
    printf("start-up to both cameras subscribed: %.0f ms\n",
           med([](const RunResult& r) { return r.startup_ms; }));
    double cpu = med([](const RunResult& r) { return r.idle_cpu_pct; });
    double wakeups = med([](const RunResult& r) { return r.idle_wakeups; });
    double rss = med([](const RunResult& r) { return static_cast<double>(r.idle_rss_kib); });
    printf(
        "idle, both cameras connected (%.0f s): CPU %.3f %% of one core (<= 0.1: %s), "
        "%.1f wake-ups/s (<= 25: %s), %.1f preemptions/s, threads %.0f\n",
        opt.idle_seconds, cpu, Verdict(cpu <= 0.1), wakeups, Verdict(wakeups <= 25),
        med([](const RunResult& r) { return r.idle_preempted; }),
        med([](const RunResult& r) { return static_cast<double>(r.threads); }));
    printf(
        "memory: RSS %.0f KiB (<= 3072: %s), of it private %.0f KiB; PSS %.0f KiB; "
        "peak RSS after the load %.0f KiB\n",
        rss, Verdict(rss <= 3072),
        med([](const RunResult& r) { return static_cast<double>(r.idle_private_kib); }),
        med([](const RunResult& r) { return static_cast<double>(r.idle_pss_kib); }),
        med([](const RunResult& r) { return static_cast<double>(r.peak_rss_kib); }));
    char title[160];
    snprintf(title, sizeof(title), "paced: %d events at %d events/s, cameras alternating",
             opt.paced_events, opt.paced_rate);
    PrintLatencyTable(title, runs, &RunResult::paced);
    snprintf(title, sizeof(title), "burst: %d events back to back from one camera",
             opt.burst_events);
    PrintLatencyTable(title, runs, &RunResult::burst);
    double p50 = med([](const RunResult& r) {
        return Ratio(r.paced.path[kService].p50_us, r.paced.path[kRelay].p50_us);
    });
    double p99 = med([](const RunResult& r) {
        return Ratio(r.paced.path[kService].p99_us, r.paced.path[kRelay].p99_us);
    });
    uint64_t lost = 0;
    for (const RunResult& r : runs)
        lost += r.paced.path[kService].lost + r.burst.path[kService].lost;
    printf("  paced p50 within 2x of the relay: %s; p99 within 3x: %s; no event lost: %s\n",
           Verdict(p50 <= 2), Verdict(p99 <= 3), Verdict(lost == 0));
    printf("\nhighest sustained rate without loss (events/s; steps of %.1f s, p99 <= %.0f ms):\n",
           opt.step_seconds, kMaxSustainedP99Ms);
    for (int both = 0; both < 2; ++both) {
        double svc = med([&](const RunResult& r) { return r.max_rate[both][kService]; });
        double relay = med([&](const RunResult& r) { return r.max_rate[both][kRelay]; });
        printf("  %-12s service %8.0f   relay %8.0f%s\n", both ? "both cameras" : "one camera", svc,
               relay, both ? "" : (svc >= 20000 ? "   (>= 20000: ok)" : "   (>= 20000: MISSED)"));
    }
}

}  // namespace pplbench
