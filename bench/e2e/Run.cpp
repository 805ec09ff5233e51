// One run of the benchmark: start-up, idle, paced, burst and rate phases.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "Bench.h"
#include "CameraSim.h"
#include "Probe.h"
#include "Reader.h"
#include "Sandbox.h"

namespace pplbench {

namespace {

class Run {
public:
    Run(const Options& options, int service_fd, int relay_fd, int queue)
        : opt_(options),
          service_fd_(service_fd),
          relay_fd_(relay_fd),
          queue_(queue),
          max_seq_(MaxSeq(options)),
          reader_(max_seq_),
          cams_{camsim::Camera(kInPort), camsim::Camera(kOutPort)} {
        for (auto& path : sent_at_) {
            for (auto& cam : path)
                cam.assign(max_seq_ + 1, 0);
        }
    }
    virtual ~Run() {
        Reap(service_pid_, SIGTERM, 3000);
        reader_.Stop();
        // The relays end when their connections close.
        cams_[0].Stop();
        cams_[1].Stop();
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
        DrainQueue(queue_);
        for (camsim::Camera& cam : cams_) {
            // A slow reader is measured, never cut off.
            cam.SetSendTimeoutMs(0);
            if (!cam.Start())
                return Fail("listen on port " + std::to_string(cam.Port()) + ": " +
                            strerror(errno));
        }
        WriteConfig();
        uint64_t t0 = NowNs();
        service_pid_ =
            Spawn(service_fd_, {opt_.service}, "/tmp/pplcounter.out", "/tmp/pplcounter.err");
        uint64_t subscribed = t0;
        for (camsim::Camera& cam : cams_) {
            if (!cam.WaitForSubscribers(1, kStartTimeoutMs))
                return Fail("service did not subscribe: " + FirstLine("/tmp/pplcounter.err"));
            subscribed = NowNs();
        }
        result_.startup_ms = (subscribed - t0) / 1e6;
        // Each relay subscribes after the service: the second connection.
        long types[2] = {kRelayInType, kRelayOutType};
        for (int cam = 0; cam < 2; ++cam) {
            relay_pids_.push_back(Spawn(relay_fd_,
                                        {opt_.relay, std::to_string(cams_[cam].Port()),
                                         std::to_string(kQueueKey), std::to_string(types[cam])},
                                        "/tmp/pplrelay.out",
                                        "/tmp/pplrelay" + std::to_string(cam) + ".err"));
            if (!cams_[cam].WaitForSubscribers(2, kStartTimeoutMs))
                return Fail("relay did not subscribe");
        }
        return reader_.Start(queue_);
    }

    static std::string FirstLine(const std::string& path) {
        std::ifstream in(path);
        std::string line;
        std::getline(in, line);
        return line.empty() ? "nothing on its standard error" : "its standard error: " + line;
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
            // The service's and the relay's writes take turns going first.
            std::vector<uint64_t> started;
            if (cams_[cam].SendRawTimed(EventBatch(batch[cam], cam), ++batches_ % 2 == 1,
                                        &started) != 2) {
                return Fail("a camera connection was lost");
            }
            for (uint32_t seq : batch[cam]) {
                sent_at_[kService][cam][seq] = started[0];
                sent_at_[kRelay][cam][seq] = started[1];
            }
        }
        return true;
    }

    // The event messages of these seqs in one piece, as a camera's network
    // stack writes events that come faster than they leave: the seq is the
    // in total on the in camera, the out total on the out camera.
    static std::string EventBatch(const std::vector<uint32_t>& seqs, Cam cam) {
        std::string bytes;
        for (uint32_t seq : seqs) {
            camsim::Totals totals;
            (cam == kInCam ? totals.in : totals.out) = static_cast<int>(seq);
            bytes += camsim::Camera::EventMessage(
                camsim::Camera::EventBody(cam == kInCam ? 1 : 0, cam == kInCam ? 0 : 1, totals));
        }
        return bytes;
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
    camsim::Camera cams_[2];
    uint64_t batches_ = 0;
    uint32_t seq_[2] = {0, 0};
    std::vector<uint64_t> sent_at_[2][2];
    pid_t service_pid_ = -1;
    std::vector<pid_t> relay_pids_;
    RunResult result_;
};

}  // namespace

RunResult RunOnce(const Options& opt, int service_fd, int relay_fd, int queue) {
    Run run(opt, service_fd, relay_fd, queue);
    return run.Execute();
}

}  // namespace pplbench
