#include "FaultFixture.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>

namespace ppltest {

bool SanitizerSpoke(const std::string& output) {
    return output.find("Sanitizer") != std::string::npos ||
           output.find("runtime error:") != std::string::npos;
}

std::string Excerpt(const std::string& output) {
    const size_t kMax = 12000;
    size_t from = std::string::npos;
    for (const char* mark : {"WARNING: ThreadSanitizer", "ERROR: ", "runtime error:"})
        from = std::min(from, output.find(mark));
    if (from == std::string::npos)
        from = output.size() > kMax ? output.size() - kMax : 0;
    return output.substr(from, kMax);
}

long ServiceMemoryKiB(pid_t pid, const char* field) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    (void)pid, (void)field;
    return -1;
#else
    char exe[4096] = {0};
    std::string proc = "/proc/" + std::to_string(pid);
    if (readlink((proc + "/exe").c_str(), exe, sizeof(exe) - 1) < 0 ||
        std::string(exe).find("pplcounter") == std::string::npos)
        return -1;
    std::string status = ReadWholeFile(proc + "/status");
    size_t at = status.find(field);
    return at == std::string::npos ? -1 : std::stol(status.substr(at + strlen(field)));
#endif
}

std::string Garbage(size_t n, unsigned seed) {
    std::string bytes;
    for (size_t i = 0; i < n; ++i) {
        seed = seed * 1103515245u + 12345u;
        bytes += static_cast<char>(seed >> 16);
    }
    return bytes;
}

int Subscriptions(camsim::Camera& camera) {
    int n = 0;
    for (const camsim::Request& r : camera.Requests())
        n += r.path == "/LAPI/V1.0/System/Event/Subscription";
    return n;
}

void FaultTest::StartCounting() {
    ASSERT_TRUE(h_->StartService());
    ASSERT_TRUE(in_cam_->WaitForSubscribers(1, 8000)) << Excerpt(h_->Stderr());
    ASSERT_TRUE(out_cam_->WaitForSubscribers(1, 8000)) << Excerpt(h_->Stderr());
    ASSERT_TRUE(h_->WaitStatus("PPL.In0.Status", "connect", 8000));
    ASSERT_TRUE(h_->WaitStatus("PPL.Out0.Status", "connect", 8000));
}

std::string FaultTest::ExpectedCountEvent() {
    int in = in_cam_->GetTotals().in;
    int out = out_cam_->GetTotals().out;
    return "event=ppl_count&in0=" + std::to_string(in) + "&out0=" + std::to_string(out) +
           "&stayin0=" + std::to_string(in - out);
}

bool FaultTest::CountsRecover(int timeout_ms) {
    const std::string expected = ExpectedCountEvent();
    return WaitFor(timeout_ms, [&] {
        in_cam_->SendTotals();
        out_cam_->SendTotals();
        return h_->WaitEvent(expected, 700);
    });
}

bool FaultTest::StatusRecovers(int timeout_ms) {
    const std::string in = std::to_string(in_cam_->GetTotals().in);
    const std::string out = std::to_string(out_cam_->GetTotals().out);
    return WaitFor(timeout_ms, [&] {
        auto status = h_->Status();
        return status["PPL.In0.Count"] == in && status["PPL.Out0.Count"] == out;
    });
}

bool FaultTest::ServiceStatusBecomes(const std::string& reply, int timeout_ms) {
    return WaitFor(timeout_ms,
                   [&] { return h_->Command("action=ppl_get_service_status", 1000) == reply; });
}

void FaultTest::AssertRunning(const std::string& during) {
    ASSERT_TRUE(h_->Service().Running()) << "ended during " << during << "\n"
                                         << Excerpt(h_->Stderr());
}

void FaultTest::ExpectAlive(const std::string& after) {
    AssertRunning(after);
    EXPECT_EQ(h_->Command("action=ppl_get_service_status").rfind("reply=success&in0=", 0), 0u)
        << "no answer after " << after;
    EXPECT_FALSE(SanitizerSpoke(h_->Stderr())) << after << "\n" << Excerpt(h_->Stderr());
}

void FaultTest::ExpectCleanStop() {
    EXPECT_EQ(h_->StopService(SIGTERM, 5000), 0) << Excerpt(h_->Stderr());
    EXPECT_FALSE(SanitizerSpoke(h_->Stderr())) << Excerpt(h_->Stderr());
}

}  // namespace ppltest
