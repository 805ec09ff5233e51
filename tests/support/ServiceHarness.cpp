#include "ServiceHarness.h"

#include <unistd.h>

#include <csignal>

#include "SAttr.h"

namespace ppltest {

const char* ServiceHarness::kSystemIni = "/opt/user/ZV318/INIT/ZV318System.ini";
const char* ServiceHarness::kStatusIni = "/tmp/PPLCounter.ini";

ServiceHarness::ServiceHarness()
    : module_queue_(new NEventMQ(259, true)),
      client_(new NCommandIPC("/tmp/e2e-module", "/tmp/SI_PPLCOUNTER")) {}

ServiceHarness::~ServiceHarness() {
    if (service_.Running())
        StopService(SIGKILL, 2000);
}

void ServiceHarness::WriteConfig(const std::map<std::string, std::string>& keys) {
    WriteWholeFile(kSystemIni, ConfigText(keys));
}

bool ServiceHarness::StartService(const std::vector<std::string>& wrapper) {
    return service_.Start({BuiltFile("pplcounter")}, "/tmp", wrapper);
}

int ServiceHarness::StopService(int sig, int timeout_ms) {
    service_.Signal(sig);
    if (!service_.Wait(timeout_ms))
        return -1;
    return service_.ExitStatus();
}

std::string ServiceHarness::Command(const std::string& text, int timeout_ms) {
    client_->Send(text.c_str(), static_cast<unsigned int>(text.size()), "/tmp/SI_PPLCOUNTER");
    if (client_->Wait(timeout_ms / 1000, (timeout_ms % 1000) * 1000) <= 0)
        return "";
    char buffer[1024] = {0};
    if (client_->Recv(buffer, sizeof(buffer)) <= 0)
        return "";
    return buffer;
}

std::string ServiceHarness::NextEvent(int timeout_ms) {
    std::string got;
    WaitFor(timeout_ms, [&] {
        if (module_queue_->Wait(0, 0) <= 0)
            return false;
        char buffer[4096] = {0};
        if (module_queue_->Recv(buffer, sizeof(buffer)) <= 0)
            return false;
        got = buffer;
        return true;
    });
    if (!got.empty())
        seen_.push_back(got);
    return got;
}

bool ServiceHarness::WaitEvent(const std::string& text, int timeout_ms) {
    return WaitFor(timeout_ms, [&] { return NextEvent(50) == text; });
}

int ServiceHarness::CountEvent(const std::string& text) {
    while (!NextEvent(300).empty()) {
    }
    int n = 0;
    for (const std::string& e : seen_)
        n += (e == text);
    return n;
}

bool ServiceHarness::SendModuleEvent(const std::string& text) {
    NEventMQ opener(601, false);
    return opener.Send(text.c_str(), static_cast<unsigned int>(text.size())) ==
           static_cast<int>(text.size());
}

std::map<std::string, std::string> ServiceHarness::Status() {
    SAttr status('=', "\r\n", "\n", nullptr);
    status.LoadFile(kStatusIni);
    return status.GetRawData();
}

bool ServiceHarness::WaitStatus(const std::string& key, const std::string& value, int timeout_ms) {
    return WaitFor(timeout_ms, [&] {
        auto s = Status();
        auto it = s.find(key);
        return it != s.end() && it->second == value;
    });
}

}  // namespace ppltest
