#ifndef PPL_TEST_SERVICE_HARNESS_H
#define PPL_TEST_SERVICE_HARNESS_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "NModuleInterface.h"
#include "Sandbox.h"

namespace ppltest {

// Plays the recorder around a real pplcounter process inside a private
// sandbox: writes the system configuration, owns queue 259 and reads the
// service's events, sends module events on queue 601 and control commands
// from its own bound socket, and reads the status file.
class ServiceHarness {
public:
    ServiceHarness();
    ~ServiceHarness();

    static const char* kSystemIni;
    static const char* kStatusIni;

    void WriteConfig(const std::map<std::string, std::string>& keys);
    // Starts the service; a wrapper (setpriv and its options, say) runs it.
    bool StartService(const std::vector<std::string>& wrapper = {});
    // Sends SIGTERM/SIGINT and waits; returns the exit status or -1.
    int StopService(int sig, int timeout_ms = 3000);
    Child& Service() { return service_; }
    std::string Stdout() const { return service_.Stdout(); }
    std::string Stderr() const { return service_.Stderr(); }

    // Sends a command datagram and returns the reply text ("" on time-out).
    std::string Command(const std::string& text, int timeout_ms = 3000);
    // Next event from queue 259, or "" when none came within timeout_ms.
    std::string NextEvent(int timeout_ms = 3000);
    // Waits for an event equal to text; events before it are kept in Seen().
    bool WaitEvent(const std::string& text, int timeout_ms = 5000);
    const std::vector<std::string>& Seen() const { return seen_; }
    void ForgetEvents() { seen_.clear(); }
    // Events read so far (and all still queued) equal to text.
    int CountEvent(const std::string& text);
    bool SendModuleEvent(const std::string& text);

    std::map<std::string, std::string> Status();
    bool WaitStatus(const std::string& key, const std::string& value, int timeout_ms = 4000);

private:
    std::unique_ptr<NEventMQ> module_queue_;
    std::unique_ptr<NCommandIPC> client_;
    Child service_;
    std::vector<std::string> seen_;
};

}  // namespace ppltest

#endif
