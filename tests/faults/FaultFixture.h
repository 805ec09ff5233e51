#ifndef PPL_TEST_FAULT_FIXTURE_H
#define PPL_TEST_FAULT_FIXTURE_H

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "CameraSim.h"
#include "LapiRig.h"
#include "TarnEndpoints.h"

namespace ppltest {

// True when a sanitizer reported anything in this output.
bool SanitizerSpoke(const std::string& output);
// What of a long output explains a failure: the sanitizer's report if there
// is one, else the last lines.
std::string Excerpt(const std::string& output);

// A memory figure of the service's from /proc/PID/status ("VmRSS:", "VmHWM:")
// in KiB; -1 where it cannot be told apart from an emulator's or a
// sanitizer's (their own memory counts too).
long ServiceMemoryKiB(pid_t pid, const char* field);

// n bytes of repeatable binary garbage.
std::string Garbage(size_t n, unsigned seed);

// The count of subscription requests a camera received.
int Subscriptions(camsim::Camera& camera);

// Group 0 with LAPI in camera 0 and out camera 1, both simulated, and the real
// service around them, plus the checks every fault ends with: the service
// still runs and answers, and the counts are right again.
class FaultTest : public LapiRigTest {
public:
    // Sends both cameras' totals until their count event arrives; false on
    // time-out.
    bool CountsRecover(int timeout_ms = 15000);
    // The status file shows the cameras' current totals.
    bool StatusRecovers(int timeout_ms = 4000);
    // The service runs, answers a command and no sanitizer reported.
    void ExpectAlive(const std::string& after);
    // The service status command answers `reply` (each try answered within
    // 1 s); false on time-out. A camera counts a subscription as made once
    // its answer is sent, the service only once it has read it.
    bool ServiceStatusBecomes(const std::string& reply, int timeout_ms = 3000);

protected:
    // Starts the service; waits for both subscriptions and connected status.
    void StartCounting();
    // The count event the cameras' current totals must give.
    std::string ExpectedCountEvent();
    // The service has not ended (a sanitizer ends it at its first report).
    void AssertRunning(const std::string& during);
    // Ends with SIGTERM: exit status 0 and no sanitizer report.
    void ExpectCleanStop();
};

}  // namespace ppltest

#endif
