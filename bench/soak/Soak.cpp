// Soak: the real service for a set time against four simulated cameras that
// count people fast, while the configuration moves the counting group
// between two camera pairs, cameras are removed and added, settings are
// pushed and commands run. At the end the service must hold no more memory,
// threads or descriptors than after its first minute, and its counts must be
// the cameras' totals. Run by scripts/soak; not part of the test suite.
//
// Usage: pplsoak [--minutes N] [--rate PEOPLE_PER_MINUTE]
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "CameraSim.h"
#include "Probe.h"
#include "ServiceHarness.h"
#include "TarnEndpoints.h"

namespace {

using Clock = std::chrono::steady_clock;

using Usage = pplbench::ProcessSample;

// The soak compares memory, threads and descriptors only, so a thread that
// ended while its CPU time was read does not spoil the sample.
Usage Measure(pid_t pid) {
    Usage u;
    u.rss_kib = u.threads = u.fds = -1;
    pplbench::SampleProcess(pid, &u);
    return u;
}

std::string Describe(const Usage& u) {
    return "rss " + std::to_string(u.rss_kib) + " kB, threads " + std::to_string(u.threads) +
           ", fds " + std::to_string(u.fds);
}

// Group 0 counting with in camera `in` and out camera `in + 1`.
std::map<std::string, std::string> Config(const std::vector<std::unique_ptr<camsim::Camera>>& cams,
                                          int in, int sensitivity) {
    std::map<std::string, std::string> c =
        ppltest::StandardConfig(cams[0]->Port(), cams[1]->Port());
    c["SERV_PPL_IN_0_CAM"] = std::to_string(in);
    c["SERV_PPL_OUT_0_CAM"] = std::to_string(in + 1);
    c["SERV_PPL_SETTINGS_0_SENSITIVITY"] = std::to_string(sensitivity);
    c["SERV_PPL_STAYIN_0_OVER"] = "1000";
    c["SERV_PPL_STAYIN_0_UNDER"] = "10";
    for (size_t n = 0; n < cams.size(); ++n) {
        std::string key = "SERV_PPL_CAM_" + std::to_string(n);
        c[key + "_IP"] = "127.0.0.1";
        c[key + "_HTTP"] = std::to_string(cams[n]->Port());
        c[key + "_USERNAME"] = "admin";
        c[key + "_PASSWORD"] = "secret";
    }
    return c;
}

bool Fail(const std::string& why) {
    fprintf(stderr, "soak: FAILED: %s\n", why.c_str());
    return false;
}

class Soak {
public:
    Soak(double minutes, double rate) : minutes_(minutes), rate_(rate) {}
    virtual ~Soak() = default;

    bool Run();

private:
    bool StartAll();
    void Storm(Clock::time_point end);
    void Step(int second);
    bool Settle();
    bool CheckEnd();
    void DrainEvents();

    double minutes_;
    double rate_;
    std::vector<std::unique_ptr<camsim::Camera>> cams_;
    std::vector<std::unique_ptr<camsim::TarnEndpoints>> ctls_;
    std::unique_ptr<ppltest::ServiceHarness> h_;
    std::atomic<long> events_sent_[4] = {{0}, {0}, {0}, {0}};  // from the cameras' threads
    long events_received_ = 0;
    long commands_ = 0;
    long reloads_ = 0;
    int pair_ = 0;
    Usage warm_;
    std::string failure_;
};

bool Soak::StartAll() {
    for (int n = 0; n < 4; ++n) {
        cams_.emplace_back(new camsim::Camera());
        if (!cams_.back()->Start())
            return Fail("camera " + std::to_string(n) + " did not start");
        ctls_.emplace_back(new camsim::TarnEndpoints(*cams_.back(), "admin", "secret"));
        std::atomic<long>* sent = &events_sent_[n];
        cams_.back()->OnEvent([sent](const std::string&, int receivers) { *sent += receivers; });
    }
    h_.reset(new ppltest::ServiceHarness());
    h_->WriteConfig(Config(cams_, 0, 3));
    if (!h_->StartService())
        return Fail("the service did not start");
    if (!cams_[0]->WaitForSubscribers(1, 10000) || !cams_[1]->WaitForSubscribers(1, 10000))
        return Fail("no subscriptions:\n" + h_->Stderr());
    for (int n = 0; n < 4; ++n)
        cams_[n]->StartWalking(rate_, 100 + n);
    return true;
}

void Soak::DrainEvents() {
    while (!h_->NextEvent(0).empty())
        ++events_received_;
    h_->ForgetEvents();
}

// One second of the storm's schedule.
void Soak::Step(int second) {
    auto command = [&](const std::string& text, const std::string& reply_start) {
        ++commands_;
        std::string reply = h_->Command(text);
        if (reply.rfind(reply_start, 0) != 0 && failure_.empty())
            failure_ = "\"" + text + "\" answered \"" + reply + "\"";
    };
    command("action=ppl_get_service_status", "reply=success&in0=");
    if (second % 20 == 10) {  // the group moves to the other camera pair
        pair_ = 2 - pair_;
        h_->WriteConfig(Config(cams_, pair_, 1 + second % 5));
        command("action=ppl_config_change", "reply=success");
        ++reloads_;
    } else if (second % 20 == 15) {  // settings only
        h_->WriteConfig(Config(cams_, pair_, 1 + second % 5));
        command("action=ppl_config_change", "reply=success");
        ++reloads_;
    } else if (second % 10 == 3) {
        command("action=ppl_reset_service&group=0", "reply=");
    } else if (second % 10 == 6) {
        command("action=ppl_clear_counts&group=0", "reply=");
    } else if (second % 10 == 8) {
        h_->SendModuleEvent("event=del_camera&ch=" + std::to_string(pair_));
        h_->SendModuleEvent("event=add_camera&ch=" + std::to_string(pair_));
    }
}

void Soak::Storm(Clock::time_point end) {
    int second = 0;
    auto next = Clock::now();
    bool warm = false;
    while (Clock::now() < end && failure_.empty()) {
        DrainEvents();
        if (Clock::now() < next) {
            usleep(20000);
            continue;
        }
        next += std::chrono::seconds(1);
        Step(second);
        if (!h_->Service().Running()) {
            failure_ = "the service ended:\n" + h_->Stderr().substr(0, 4000);
            return;
        }
        // The reference: after a minute, at the first pair, between moves.
        if (!warm && second >= 60 && pair_ == 0 && second % 20 == 5) {
            warm_ = Measure(h_->Service().Pid());
            warm = true;
            printf("soak: reference after %d s: %s\n", second, Describe(warm_).c_str());
        }
        if (second % 60 == 0) {
            printf("soak: %4d s, %s, events received %ld, commands %ld, reloads %ld\n", second,
                   Describe(Measure(h_->Service().Pid())).c_str(), events_received_, commands_,
                   reloads_);
            fflush(stdout);
        }
        ++second;
    }
    if (!warm && failure_.empty())
        failure_ = "the soak must run for at least two minutes";
}

// Back to the first pair, quiet cameras; the last totals must arrive.
bool Soak::Settle() {
    for (auto& cam : cams_)
        cam->StopWalking();
    if (pair_ != 0) {
        pair_ = 0;
        h_->WriteConfig(Config(cams_, 0, 3));
        h_->Command("action=ppl_config_change");
    }
    if (!cams_[0]->WaitForSubscribers(1, 10000) || !cams_[1]->WaitForSubscribers(1, 10000))
        return Fail("the first pair did not subscribe again");
    int in = cams_[0]->GetTotals().in;
    int out = cams_[1]->GetTotals().out;
    std::string expected = "event=ppl_count&in0=" + std::to_string(in) +
                           "&out0=" + std::to_string(out) + "&stayin0=" + std::to_string(in - out);
    bool got = ppltest::WaitFor(15000, [&] {
        cams_[0]->SendTotals();
        cams_[1]->SendTotals();
        return h_->WaitEvent(expected, 700);
    });
    if (!got)
        return Fail("the last count event never came: " + expected);
    bool status = ppltest::WaitFor(4000, [&] {
        auto s = h_->Status();
        return s["PPL.In0.Count"] == std::to_string(in) &&
               s["PPL.Out0.Count"] == std::to_string(out);
    });
    if (!status)
        return Fail("the status file does not show in " + std::to_string(in) + ", out " +
                    std::to_string(out));
    printf("soak: final counts in %d, out %d, as the cameras sent\n", in, out);
    usleep(2000000);  // lets the last reload's pushes and reconnections end
    return true;
}

bool Soak::CheckEnd() {
    Usage end = Measure(h_->Service().Pid());
    printf("soak: at the end: %s\n", Describe(end).c_str());
    long allowed = warm_.rss_kib + std::max(1024L, warm_.rss_kib / 20);
    bool ok = true;
    if (end.rss_kib > allowed)
        ok = Fail("memory grew: " + std::to_string(warm_.rss_kib) + " kB -> " +
                  std::to_string(end.rss_kib) + " kB");
    if (end.threads != warm_.threads)
        ok =
            Fail("threads " + std::to_string(warm_.threads) + " -> " + std::to_string(end.threads));
    if (end.fds != warm_.fds)
        ok = Fail("descriptors " + std::to_string(warm_.fds) + " -> " + std::to_string(end.fds));
    int status = h_->StopService(SIGTERM, 5000);
    if (status != 0)
        ok = Fail("exit status " + std::to_string(status));
    std::string err = h_->Stderr();
    if (err.find("Sanitizer") != std::string::npos ||
        err.find("runtime error:") != std::string::npos)
        ok = Fail("a sanitizer reported");
    return ok;
}

bool Soak::Run() {
    std::string why;
    if (!ppltest::EnterSandbox(&why))
        return Fail("no sandbox: " + why);
    if (!StartAll())
        return false;
    auto start = Clock::now();
    Storm(start + std::chrono::milliseconds(static_cast<long>(minutes_ * 60000)));
    if (!failure_.empty())
        return Fail(failure_);
    if (!Settle())
        return false;
    bool ok = CheckEnd();
    long sent = 0;
    for (const auto& n : events_sent_)
        sent += n;
    double secs = std::chrono::duration<double>(Clock::now() - start).count();
    printf(
        "soak: %.0f s, camera events sent %ld, service events received %ld, commands %ld, "
        "reloads %ld\n",
        secs, sent, events_received_, commands_, reloads_);
    for (auto& cam : cams_)
        cam->Stop();
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    double minutes = 10;
    double rate = 1200;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--minutes") == 0)
            minutes = atof(argv[i + 1]);
        else if (strcmp(argv[i], "--rate") == 0)
            rate = atof(argv[i + 1]);
    }
    Soak soak(minutes, rate);
    bool ok = soak.Run();
    printf("soak: %s\n", ok ? "PASSED" : "FAILED");
    return ok ? 0 : 1;
}
