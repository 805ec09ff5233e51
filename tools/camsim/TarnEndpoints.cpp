#include "TarnEndpoints.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <sstream>
#include <thread>

namespace camsim {

namespace {

constexpr const char* kTotalsPath = "/3dpc/v1/totals";
constexpr const char* kResetPath = "/3dpc/v1/totals/reset";

// "action=ppl_setdata&Enable=1" as its fields.
std::map<std::string, std::string> SettingsFields(const std::string& body) {
    std::map<std::string, std::string> fields;
    std::istringstream in(body);
    std::string field;
    while (std::getline(in, field, '&')) {
        size_t eq = field.find('=');
        if (eq != std::string::npos)
            fields[field.substr(0, eq)] = field.substr(eq + 1);
    }
    return fields;
}
constexpr const char* kSettingsPath = "/va/v1/ppl/command";

int Base64Value(char c) {
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

std::string TotalsBody(const Totals& t) {
    return "in=" + std::to_string(t.in) + "\nout=" + std::to_string(t.out) + "\n";
}

}  // namespace

bool DecodeBase64(const std::string& text, std::string* out) {
    if (text.size() % 4 != 0)
        return false;
    out->clear();
    for (size_t i = 0; i < text.size(); i += 4) {
        bool last = i + 4 == text.size();
        int pad = last ? (text[i + 3] == '=') + (text[i + 2] == '=') : 0;
        if (pad == 1 && text[i + 2] == '=')
            return false;
        unsigned v = 0;
        for (int k = 0; k < 4; ++k) {
            int d = k >= 4 - pad ? 0 : Base64Value(text[i + k]);
            if (d < 0)
                return false;
            v = v << 6 | static_cast<unsigned>(d);
        }
        out->push_back(static_cast<char>(v >> 16));
        if (pad < 2)
            out->push_back(static_cast<char>((v >> 8) & 0xff));
        if (pad < 1)
            out->push_back(static_cast<char>(v & 0xff));
    }
    return true;
}

void OverlapProbe::Enter() {
    std::lock_guard<std::mutex> lock(lock_);
    max_in_flight_ = std::max(max_in_flight_, ++in_flight_);
}

void OverlapProbe::Leave() {
    std::lock_guard<std::mutex> lock(lock_);
    --in_flight_;
}

int OverlapProbe::MaxInFlight() {
    std::lock_guard<std::mutex> lock(lock_);
    return max_in_flight_;
}

struct TarnEndpoints::State {
    std::mutex lock;
    std::string user;
    std::string password;
    int delay_ms = 0;
    int counting_status = 0;
    int settings_status = 0;
    std::shared_ptr<OverlapProbe> probe;
    int totals_requests = 0;
    int reset_requests = 0;
    int unauthorized = 0;
    std::vector<std::string> settings;

    bool Authorized(const Request& req);
    void ServeCounting(Camera& camera, bool reset, Exchange& ex);
    void ServeSettings(Camera& camera, const Request& req, Exchange& ex);
};

bool TarnEndpoints::State::Authorized(const Request& req) {
    std::string auth = req.Header("Authorization");
    std::string decoded;
    const std::string scheme = "Basic ";
    bool ok = auth.compare(0, scheme.size(), scheme) == 0 &&
              DecodeBase64(auth.substr(scheme.size()), &decoded);
    std::lock_guard<std::mutex> guard(lock);
    if (ok && decoded == user + ":" + password)
        return true;
    unauthorized++;
    return false;
}

void TarnEndpoints::State::ServeCounting(Camera& camera, bool reset, Exchange& ex) {
    int delay, status;
    std::shared_ptr<OverlapProbe> in_flight;
    {
        std::lock_guard<std::mutex> guard(lock);
        delay = delay_ms;
        status = counting_status;
        in_flight = probe;
    }
    if (in_flight)
        in_flight->Enter();
    if (delay > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    int answer = status;
    std::string body = "error\n";
    if (status == 0) {
        if (reset)
            camera.SetTotals(0, 0);
        Totals totals = camera.GetTotals();
        {
            std::lock_guard<std::mutex> guard(lock);
            (reset ? reset_requests : totals_requests)++;
        }
        answer = 200;
        body = TotalsBody(totals);
    }
    // Left before answering: a client holding the answer may send its next
    // request at once, and that one must not look like an overlap.
    if (in_flight)
        in_flight->Leave();
    ex.Reply(answer, body, "text/plain");
}

// A request the camera takes is obeyed as a camera would: "Enable" switches
// its counting, "Reset=1" clears its totals (and it reports the new ones);
// the other settings are kept in the record of requests.
void TarnEndpoints::State::ServeSettings(Camera& camera, const Request& req, Exchange& ex) {
    int status;
    {
        std::lock_guard<std::mutex> guard(lock);
        status = settings_status;
        if (status == 0)
            settings.push_back(req.body);
    }
    if (status != 0) {
        ex.Reply(status, "rejected\n", "text/plain");
        return;
    }
    ex.Reply(200, "ok\n", "text/plain");
    std::map<std::string, std::string> fields = SettingsFields(req.body);
    if (fields.count("Enable") != 0) {
        bool on = fields["Enable"] != "0";
        camera.SetCountingEnabled(on);
        camera.Note(on ? "counting enabled" : "counting disabled");
    }
    if (fields.count("Reset") != 0) {
        if (fields["Reset"] == "1") {
            camera.SetTotals(0, 0);
            camera.SendTotals();
        }
        camera.Note("settings taken: " + req.body);
    }
}

TarnEndpoints::TarnEndpoints(Camera& camera, const std::string& user, const std::string& password)
    : state_(std::make_shared<State>()) {
    state_->user = user;
    state_->password = password;
    std::shared_ptr<State> state = state_;
    Camera* cam = &camera;
    auto counting = [state, cam](bool reset) {
        return [state, cam, reset](const Request& req, Exchange& ex) {
            ex.CloseAfter();
            if (!state->Authorized(req))
                ex.Reply(401, "unauthorized\n", "text/plain");
            else
                state->ServeCounting(*cam, reset, ex);
        };
    };
    camera.AddRoute("GET", kTotalsPath, counting(false));
    camera.AddRoute("POST", kResetPath, counting(true));
    camera.AddRoute("POST", kSettingsPath, [state, cam](const Request& req, Exchange& ex) {
        ex.CloseAfter();
        if (!state->Authorized(req))
            ex.Reply(401, "unauthorized\n", "text/plain");
        else
            state->ServeSettings(*cam, req, ex);
    });
}

void TarnEndpoints::SetAccount(const std::string& user, const std::string& password) {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->user = user;
    state_->password = password;
}

void TarnEndpoints::SetAnswerDelay(int ms) {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->delay_ms = ms;
}

void TarnEndpoints::SetCountingStatus(int status) {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->counting_status = status;
}

void TarnEndpoints::SetSettingsStatus(int status) {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->settings_status = status;
}

void TarnEndpoints::SetOverlapProbe(std::shared_ptr<OverlapProbe> probe) {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->probe = std::move(probe);
}

int TarnEndpoints::TotalsRequests() {
    std::lock_guard<std::mutex> guard(state_->lock);
    return state_->totals_requests;
}

int TarnEndpoints::ResetRequests() {
    std::lock_guard<std::mutex> guard(state_->lock);
    return state_->reset_requests;
}

int TarnEndpoints::Unauthorized() {
    std::lock_guard<std::mutex> guard(state_->lock);
    return state_->unauthorized;
}

std::vector<std::string> TarnEndpoints::SettingsReceived() {
    std::lock_guard<std::mutex> guard(state_->lock);
    return state_->settings;
}

void TarnEndpoints::InstallDefault(Camera& camera) {
    TarnEndpoints endpoints(camera, kDefaultUser, kDefaultPassword);
}

namespace {

const bool kRegistered =
    RegisterCameraKind({"tarn", "--tarn", "a 3DPC camera (account admin:admin); repeatable",
                        TarnEndpoints::InstallDefault}) &&
    RegisterCameraKind({"lapi", "", "settings requests on every LAPI camera (admin:admin)",
                        TarnEndpoints::InstallDefault});

}  // namespace

}  // namespace camsim
