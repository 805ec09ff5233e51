#ifndef CAMSIM_TARN_ENDPOINTS_H
#define CAMSIM_TARN_ENDPOINTS_H

// Camera side of the open client libraries' protocol
// (docs/replacement-protocol.md): the 3DPC totals and reset requests, and the
// settings requests pushed to LAPI cameras. Installed on a Camera, they serve
// until the camera stops; this object is only the remote control and may go
// away before the camera.

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "CameraSim.h"

namespace camsim {

// Counts requests in progress across every camera that shares it, to show
// whether requests to different cameras ever overlap.
class OverlapProbe {
public:
    virtual ~OverlapProbe() = default;
    void Enter();
    void Leave();
    int MaxInFlight();

private:
    std::mutex lock_;
    int in_flight_ = 0;
    int max_in_flight_ = 0;
};

class TarnEndpoints {
public:
    // Installs both endpoint sets on camera; requests must carry this account.
    TarnEndpoints(Camera& camera, const std::string& user, const std::string& password);
    virtual ~TarnEndpoints() = default;

    void SetAccount(const std::string& user, const std::string& password);
    // 3DPC requests are answered after this many milliseconds.
    void SetAnswerDelay(int ms);
    // 0 answers 3DPC requests normally; another status answers them with it.
    void SetCountingStatus(int status);
    // 0 accepts settings requests; another status rejects them with it.
    void SetSettingsStatus(int status);
    void SetOverlapProbe(std::shared_ptr<OverlapProbe> probe);

    int TotalsRequests();  // answered 3DPC totals requests
    int ResetRequests();   // answered 3DPC reset requests
    int Unauthorized();    // requests refused for their account
    // Bodies of the accepted settings requests, in order.
    std::vector<std::string> SettingsReceived();

    // Both sets with a fixed account, for cameras made by the executable.
    static void InstallDefault(Camera& camera);
    static constexpr const char* kDefaultUser = "admin";
    static constexpr const char* kDefaultPassword = "admin";

private:
    struct State;
    std::shared_ptr<State> state_;
};

// Decodes standard base64; false on a malformed text.
bool DecodeBase64(const std::string& text, std::string* out);

}  // namespace camsim

#endif
