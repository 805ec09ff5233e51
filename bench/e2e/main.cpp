// End-to-end benchmark of the event path: a real pplcounter process in
// private namespaces, two simulated LAPI cameras, and a reader of queue 259,
// all timed on one monotonic clock. Beside the service, a minimal relay gets
// the same event messages and sends them to the same queue: its figures are
// the floor that the service's are compared with.
#include <fcntl.h>
#include <sys/msg.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Camera.h"
#include "Probe.h"
#include "Reader.h"
#include "Sandbox.h"

namespace pplbench {
namespace {

// Raises the byte capacity of new System V queues in this IPC namespace, so
// that the reader of a burst never makes the service drop an event.
bool RaiseQueueCapacity(long bytes) {
    int fd = open("/proc/sys/kernel/msgmnb", O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    std::string text = std::to_string(bytes);
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return ok;
}

const int kQueueKey = 259;
const long kQueueCapacity = 64L << 20;
const int kInPort = 8001, kOutPort = 8002;
const int kInRelayPort = 9001, kOutRelayPort = 9002;
const int kStartTimeoutMs = 10000;
const double kMaxSustainedP99Ms = 20.0;
const double kMinAchievedShare = 0.95;
const size_t kMaxBatch = 32;

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

// ----------------------------------------------------------------- processes

std::string ExecPath(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

pid_t Spawn(int exe_fd, const std::vector<std::string>& argv, const std::string& out,
            const std::string& err) {
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::string path = ExecPath(exe_fd);
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int in = open("/dev/null", O_RDONLY);
    if (o < 0 || e < 0 || in < 0)
        _exit(126);
    dup2(in, 0);
    dup2(o, 1);
    dup2(e, 2);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(path.c_str(), args.data());
    _exit(127);
}

void Reap(pid_t pid, int sig, int timeout_ms) {
    if (pid <= 0)
        return;
    kill(pid, sig);
    for (int waited = 0; waited < timeout_ms; waited += 10) {
        if (waitpid(pid, nullptr, WNOHANG) == pid)
            return;
        usleep(10000);
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

long FileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

// Size of a stripped copy, -1 when strip is not at hand.
long StrippedSize(const std::string& path) {
    const char* copy = "/tmp/pplcounter.stripped";
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 2);
        execlp("strip", "strip", "-o", copy, path.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    long size = WIFEXITED(status) && WEXITSTATUS(status) == 0 ? FileSize(copy) : -1;
    unlink(copy);
    return size;
}

// The tests' standard configuration with limits out of reach: every event
// gives exactly one count event.
void WriteConfig() {
    std::map<std::string, std::string> keys = ppltest::StandardConfig(kInPort, kOutPort);
    keys["SERV_PPL_STAYIN_0_OVER"] = "1000000000";
    keys["SERV_PPL_STAYIN_0_UNDER"] = "-1000000000";
    std::ofstream("/opt/user/ZV318/INIT/ZV318System.ini", std::ios::trunc)
        << ppltest::ConfigText(keys);
}

void DrainQueue(int queue) {
    struct {
        long type;
        char text[4096];
    } msg;
    while (msgrcv(queue, &msg, sizeof(msg.text), 0, IPC_NOWAIT | MSG_NOERROR) >= 0) {
    }
}

void SleepSeconds(double s) {
    std::this_thread::sleep_for(std::chrono::microseconds(static_cast<long>(s * 1e6)));
}

void SleepUntil(uint64_t ns) {
    timespec ts = {static_cast<time_t>(ns / 1000000000u), static_cast<long>(ns % 1000000000u)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

// ----------------------------------------------------------------- one run

class Run {
public:
    Run(const Options& options, int service_fd, int relay_fd, int queue)
        : opt_(options),
          service_fd_(service_fd),
          relay_fd_(relay_fd),
          queue_(queue),
          max_seq_(MaxSeq(options)),
          reader_(max_seq_),
          cams_{{kInPort, kInRelayPort}, {kOutPort, kOutRelayPort}} {
        for (auto& path : sent_at_) {
            for (auto& cam : path)
                cam.assign(max_seq_ + 1, 0);
        }
    }
    virtual ~Run() {
        Reap(service_pid_, SIGTERM, 3000);
        reader_.Stop();
        // The relays end when their connections close.
        cams_[0].Close();
        cams_[1].Close();
        for (pid_t relay : relay_pids_)
            Reap(relay, SIGTERM, 2000);
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    RunResult Execute() {
        if (!StartUp() || !MeasureIdle())
            return result_;
        if (!Measure(PacedEvents(), opt_.paced_rate, &result_.paced) ||
            !Measure(std::vector<Cam>(opt_.burst_events, kInCam), 0, &result_.burst)) {
            return result_;
        }
        Ladder(false);
        Ladder(true);
        ProcessSample end;
        if (SampleProcess(service_pid_, &end))
            result_.peak_rss_kib = end.peak_rss_kib;
        return result_;
    }

private:
    static uint32_t MaxSeq(const Options& o) {
        double ladder = 0;
        for (int rate : o.ladder)
            ladder += rate * o.step_seconds;
        return static_cast<uint32_t>(o.paced_events + o.burst_events + 2 * ladder + 16);
    }

    bool Fail(const std::string& why) {
        result_.error = why;
        return false;
    }

    bool StartUp() {
        std::string why;
        DrainQueue(queue_);
        if (!cams_[0].Listen(&why) || !cams_[1].Listen(&why))
            return Fail(why);
        WriteConfig();
        uint64_t t0 = NowNs();
        service_pid_ =
            Spawn(service_fd_, {opt_.service}, "/tmp/pplcounter.out", "/tmp/pplcounter.err");
        uint64_t subscribed[2] = {0, 0};
        std::string whys[2];
        bool ok[2] = {false, false};
        std::thread other(
            [&] { ok[1] = cams_[1].AwaitSubscription(kStartTimeoutMs, &subscribed[1], &whys[1]); });
        ok[0] = cams_[0].AwaitSubscription(kStartTimeoutMs, &subscribed[0], &whys[0]);
        other.join();
        if (!ok[0] || !ok[1]) {
            std::ifstream err("/tmp/pplcounter.err");
            std::string first_line;
            std::getline(err, first_line);
            return Fail("service did not subscribe: " + whys[ok[0] ? 1 : 0] +
                        (first_line.empty() ? "" : "; its standard error: " + first_line));
        }
        result_.startup_ms = (std::max(subscribed[0], subscribed[1]) - t0) / 1e6;
        long types[2] = {kRelayInType, kRelayOutType};
        for (int cam = 0; cam < 2; ++cam) {
            relay_pids_.push_back(Spawn(relay_fd_,
                                        {opt_.relay, std::to_string(cams_[cam].RelayPort()),
                                         std::to_string(kQueueKey), std::to_string(types[cam])},
                                        "/tmp/pplrelay.out",
                                        "/tmp/pplrelay" + std::to_string(cam) + ".err"));
            if (!cams_[cam].AwaitRelay(kStartTimeoutMs, &why))
                return Fail("relay did not connect: " + why);
        }
        return reader_.Start(queue_);
    }

    bool MeasureIdle() {
        SleepSeconds(1);  // past the first status writes
        ProcessSample a, b;
        if (!SampleProcess(service_pid_, &a))
            return Fail("cannot read /proc of the service");
        SleepSeconds(opt_.idle_seconds);
        if (!SampleProcess(service_pid_, &b))
            return Fail("service ended while idle");
        double seconds = (b.at_ns - a.at_ns) / 1e9;
        result_.idle_cpu_pct = (b.cpu_ns - a.cpu_ns) / 1e9 / seconds * 100;
        result_.idle_wakeups = (b.voluntary - a.voluntary) / seconds;
        result_.idle_preempted = (b.involuntary - a.involuntary) / seconds;
        result_.idle_rss_kib = b.rss_kib;
        result_.idle_pss_kib = b.pss_kib;
        result_.idle_private_kib = b.private_kib;
        result_.threads = b.threads;
        return true;
    }

    std::vector<Cam> PacedEvents() const {
        std::vector<Cam> cams;
        for (int i = 0; i < opt_.paced_events; ++i)
            cams.push_back(i % 2 == 0 ? kInCam : kOutCam);
        return cams;
    }

    // Sends the events at rate per second (0: back to back), waits for their
    // counts by both paths and works out the latencies. The events that are
    // due when the sender gets to them go out together, at most kMaxBatch.
    bool Measure(const std::vector<Cam>& cams, double rate, Phase* phase) {
        std::vector<std::pair<Cam, uint32_t>> events;
        uint64_t start = NowNs();
        double period_ns = rate > 0 ? 1e9 / rate : 0;
        size_t next = 0;
        while (next < cams.size()) {
            uint64_t due = start + static_cast<uint64_t>(next * period_ns);
            if (NowNs() < due)
                SleepUntil(due);
            uint64_t now = NowNs();
            std::vector<uint32_t> batch[2];
            size_t end = next;
            while (end < cams.size() && end - next < kMaxBatch &&
                   start + static_cast<uint64_t>(end * period_ns) <= now) {
                Cam cam = cams[end++];
                batch[cam].push_back(++seq_[cam]);
                events.push_back({cam, seq_[cam]});
            }
            if (!SendBatches(batch))
                return false;
            next = end;
        }
        uint64_t end = NowNs();
        phase->achieved_rate = cams.size() / ((end - start) / 1e9);
        AwaitDelivery(events);
        for (Path path : {kService, kRelay})
            phase->path[path] = Latencies(events, path);
        return true;
    }

    bool SendBatches(const std::vector<uint32_t> (&batch)[2]) {
        for (Cam cam : {kInCam, kOutCam}) {
            if (batch[cam].empty())
                continue;
            if (batch[cam].back() > max_seq_)
                return Fail("more events than planned");
            uint64_t service_at = 0, relay_at = 0;
            if (!cams_[cam].SendEvents(batch[cam].data(), batch[cam].size(), cam == kInCam,
                                       &service_at, &relay_at)) {
                return Fail("a camera connection was lost");
            }
            for (uint32_t seq : batch[cam]) {
                sent_at_[kService][cam][seq] = service_at;
                sent_at_[kRelay][cam][seq] = relay_at;
            }
        }
        return true;
    }

    bool AllArrived(const std::vector<std::pair<Cam, uint32_t>>& events) const {
        for (const auto& e : events) {
            if (reader_.Arrival(kService, e.first, e.second) == 0 ||
                reader_.Arrival(kRelay, e.first, e.second) == 0) {
                return false;
            }
        }
        return true;
    }

    uint64_t DeliveredSoFar() const {
        uint64_t n = 0;
        for (Path path : {kService, kRelay}) {
            for (Cam cam : {kInCam, kOutCam})
                n += reader_.Delivered(path, cam);
        }
        return n;
    }

    // Until every count arrived, or nothing arrived for two seconds.
    void AwaitDelivery(const std::vector<std::pair<Cam, uint32_t>>& events) {
        uint64_t last = DeliveredSoFar();
        uint64_t last_change = NowNs();
        while (!AllArrived(events) && NowNs() - last_change < 2000000000u) {
            usleep(10000);
            uint64_t now = DeliveredSoFar();
            if (now != last) {
                last = now;
                last_change = NowNs();
            }
        }
    }

    Latency Latencies(const std::vector<std::pair<Cam, uint32_t>>& events, Path path) const {
        Latency l;
        std::vector<double> us;
        for (const auto& e : events) {
            uint64_t got = reader_.Arrival(path, e.first, e.second);
            uint64_t sent = sent_at_[path][e.first][e.second];
            if (got == 0) {
                ++l.lost;
            } else {
                us.push_back(got > sent ? (got - sent) / 1e3 : 0);
            }
        }
        l.events = events.size();
        if (us.empty())
            return l;
        std::sort(us.begin(), us.end());
        l.p50_us = us[(us.size() - 1) / 2];
        l.p99_us = us[std::min(us.size() - 1, static_cast<size_t>(us.size() * 0.99))];
        l.max_us = us.back();
        return l;
    }

    // Raises the rate step by step; a rate is sustained by a path when all
    // its counts arrived, the sender kept the rate and the 99th percentile
    // stayed low (a growing backlog would raise it).
    void Ladder(bool both) {
        bool alive[2] = {true, true};
        for (int rate : opt_.ladder) {
            std::vector<Cam> cams;
            int n = static_cast<int>(rate * opt_.step_seconds);
            for (int i = 0; i < n; ++i)
                cams.push_back(both && i % 2 == 1 ? kOutCam : kInCam);
            Phase phase;
            if (!Measure(cams, rate, &phase))
                return;
            bool kept = phase.achieved_rate >= kMinAchievedShare * rate;
            if (opt_.verbose) {
                printf(
                    "  %s %6d/s: sent at %.0f/s; service p99 %.0f us lost %lu; relay p99 %.0f "
                    "us lost %lu\n",
                    both ? "both" : "one ", rate, phase.achieved_rate, phase.path[kService].p99_us,
                    static_cast<unsigned long>(phase.path[kService].lost),
                    phase.path[kRelay].p99_us, static_cast<unsigned long>(phase.path[kRelay].lost));
                fflush(stdout);
            }
            for (Path path : {kService, kRelay}) {
                const Latency& l = phase.path[path];
                alive[path] =
                    alive[path] && kept && l.lost == 0 && l.p99_us <= kMaxSustainedP99Ms * 1000;
                if (alive[path])
                    result_.max_rate[both][path] = rate;
            }
            if (!alive[kService] && !alive[kRelay])
                return;
            SleepSeconds(0.2);
        }
    }

    const Options& opt_;
    int service_fd_, relay_fd_, queue_;
    uint32_t max_seq_;
    Reader reader_;
    Camera cams_[2];
    uint32_t seq_[2] = {0, 0};
    std::vector<uint64_t> sent_at_[2][2];
    pid_t service_pid_ = -1;
    std::vector<pid_t> relay_pids_;
    RunResult result_;
};

// ----------------------------------------------------------------- report

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

bool ParseOptions(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--verbose") {
            o->verbose = true;
            continue;
        }
        if (i + 1 >= argc)
            return false;
        const char* v = argv[++i];
        if (a == "--service") {
            o->service = v;
        } else if (a == "--relay") {
            o->relay = v;
        } else if (a == "--runs") {
            o->runs = atoi(v);
        } else if (a == "--idle") {
            o->idle_seconds = atof(v);
        } else if (a == "--paced-events") {
            o->paced_events = atoi(v);
        } else if (a == "--paced-rate") {
            o->paced_rate = atoi(v);
        } else if (a == "--burst") {
            o->burst_events = atoi(v);
        } else if (a == "--step") {
            o->step_seconds = atof(v);
        } else if (a == "--max-rate") {
            int top = atoi(v);
            o->ladder.erase(std::remove_if(o->ladder.begin(), o->ladder.end(),
                                           [top](int r) { return r > top; }),
                            o->ladder.end());
        } else {
            return false;
        }
    }
    return !o->service.empty() && !o->relay.empty() && o->runs > 0 && o->paced_rate > 0;
}

int Main(int argc, char** argv) {
    Options opt;
    if (!ParseOptions(argc, argv, &opt)) {
        fprintf(stderr,
                "usage: %s --service PATH --relay PATH [--runs N] [--idle S] [--paced-events N]\n"
                "       [--paced-rate R] [--burst N] [--step S] [--max-rate R] [--verbose]\n",
                argv[0]);
        return 2;
    }
    // Opened before /tmp and /opt are covered, in case the build lives there.
    int service_fd = open(opt.service.c_str(), O_PATH);
    int relay_fd = open(opt.relay.c_str(), O_PATH);
    if (service_fd < 0 || relay_fd < 0) {
        perror("pplbench: open the service or the relay");
        return 1;
    }
    std::string why;
    if (!ppltest::EnterSandbox(&why, ppltest::SandboxFiles::InMemory)) {
        fprintf(stderr, "pplbench: %s\n", why.c_str());
        return 1;
    }
    if (!RaiseQueueCapacity(kQueueCapacity))
        fprintf(stderr,
                "pplbench: cannot raise the queue capacity (%s); a slow reader may make "
                "the service drop events\n",
                strerror(errno));
    prctl(PR_SET_TIMERSLACK, 1UL);
    signal(SIGPIPE, SIG_IGN);
    int queue = msgget(kQueueKey, IPC_CREAT | 0777);
    if (queue < 0) {
        perror("pplbench: msgget");
        return 1;
    }
    long size = FileSize(ExecPath(service_fd));
    long stripped = StrippedSize(ExecPath(service_fd));
    std::vector<RunResult> runs;
    for (int n = 1; n <= opt.runs; ++n) {
        RunResult r;
        {
            Run run(opt, service_fd, relay_fd, queue);
            r = run.Execute();
        }
        PrintRun(n, r);
        if (r.error.empty())
            runs.push_back(r);
    }
    if (runs.empty())
        return 1;
    PrintSummary(opt, runs, size, stripped);
    return 0;
}

}  // namespace
}  // namespace pplbench

int main(int argc, char** argv) {
    return pplbench::Main(argc, argv);
}
