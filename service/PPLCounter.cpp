// The service object: construction, the polling loop and its endpoints.
#include "PPLCounter.h"
#include "ShowLog.h"

#include <time.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "NModuleInterface.h"
#include "NTextCommand.h"
#include "Tarn_3DPC_Counter.h"
#include "UBrand_PPL_Counter.h"
#include "USignal.h"
#include "UTime.h"

namespace {
constexpr uint64_t kStatusPeriodMs = 1000;
constexpr uint64_t kRestartCheckPeriodMs = 5000;
constexpr useconds_t kPassSleepUs = 100000;
constexpr size_t kPassBufferSize = 256;

// Counters and groups are never deleted: a worker may use them until the
// process ends. Listing them here keeps them reachable for leak checkers.
template <typename T>
T* LiveUntilExit(T* object) {
    static std::vector<void*>* live = new std::vector<void*>();
    live->push_back(object);
    return object;
}
}  // namespace

void ShowLog(const char* format, ...) {
    char message[2048];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof(message), format, args);
    va_end(args);

    time_t now = time(nullptr);
    struct tm local;
    char when[64] = {0};
    localtime_r(&now, &local);
    asctime_r(&local, when);
    size_t len = strlen(when);
    if (len > 0)
        when[len - 1] = '\0';  // asctime ends with a newline
    fprintf(stderr, "[%s] %s", when, message);
}

std::string Printable(const char* text) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (const char* p = text; *p != '\0'; ++p) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else if (c < 0x20 || c == 0x7f)
            out += std::string("\\x") + kHex[c >> 4] + kHex[c & 15];
        else
            out += static_cast<char>(c);
    }
    return out;
}

PPLCounter::PPLCounter(const PPLCounterPlaces& places)
    : reload_config(true),
      running(false),
      initialized(false),
      now_ms(0),
      last_status_ms(0),
      last_restart_check_ms(0),
      group_num(0),
      enable(0),
      restart_group_mask(0),
      event_in(nullptr),
      event_out(nullptr),
      command(nullptr),
      lapi_cam_mask(0),
      stayin_over_latched(false),
      stayin_under_latched(false),
      use_3dpc(0),
      counter_3dpc(nullptr),
      where(places) {
    counter_3dpc = LiveUntilExit(new Tarn_3DPC_Counter(0));
    counter_3dpc->set_ppl_count_callback(this);
    for (int i = 0; i < ppl::kLapiChannels; ++i) {
        UBrand_PPL_Counter* counter = LiveUntilExit(new UBrand_PPL_Counter(i));
        counter->set_ppl_count_callback(this);
        lapi_counters.push_back(counter);
    }
    groups.push_back(LiveUntilExit(new PPL_Counter_Group()));
    stayin_limits.push_back(std::make_pair(0, 0));
}

// Counters and groups live until the process ends, by design: workers may
// still hold them. Only the vectors' and streams' own storage is released.
PPLCounter::~PPLCounter() {}

void PPLCounter::Start() {
    running = true;
    Run();
}

void PPLCounter::Stop() {
    running = false;
}

uint64_t PPLCounter::GetTime() {
    return UTime::GetMonotonicMs();
}

void PPLCounter::Run() {
    if (!Init())
        running = false;
    UProcessSignal::Block(SIGTERM);
    UProcessSignal::Block(SIGINT);
    char reply[kPassBufferSize];
    char event[kPassBufferSize];
    memset(reply, 0, sizeof(reply));
    memset(event, 0, sizeof(event));
    last_status_ms = GetTime();
    last_restart_check_ms = GetTime();
    if (!running) {
        Deinit();
        return;
    }
    do {
        int sig = USignal::WaitSignal(0, 0);
        if (sig == SIGINT || sig == SIGTERM) {
            ShowLog("PPLCounter::Run(), receive interrupt.\n");
            Deinit();
            return;
        }
        if (reload_config && !ReloadConfiguration()) {
            Deinit();
            return;
        }
        RunPass(reply, event);
        usleep(kPassSleepUs);
    } while (running);
    Deinit();
}

// The reload block: snapshot what Update_PPL_Cam_Settings compares against,
// re-read both configurations, announce, push changes (never on the first
// pass) and publish. False only when the configuration reader gives up.
bool PPLCounter::ReloadConfiguration() {
    std::vector<_PPL_CAM_SETTINGS> old_settings;
    std::vector<std::pair<int, int>> old_pairs;
    for (uint32_t g = 0; g < group_num; ++g) {
        _PPL_CAM_SETTINGS s;
        groups[g]->get_ppl_settings(s);
        old_settings.push_back(s);
        std::pair<int, int> pair;
        groups[g]->get_cam_pair(pair);
        old_pairs.push_back(pair);
    }
    if (!ReadIni())
        return false;
    PPL_Event_Out(Create_PPL_Enable_Event_Msg());
    ReadCamIni();
    for (uint32_t g = 0; g < group_num; ++g) {
        PPL_Counter_Group* group = groups[g];
        PPL_Event_Out(Create_Count_Result_Event_Msg(
            static_cast<int>(g), group->get_total_cam_in_count(), group->get_total_cam_out_count(),
            group->get_total_cam_stayin_count()));
        if (initialized)
            Update_PPL_Cam_Settings(g, old_settings, old_pairs);
    }
    last_status_ms = now_ms;
    UpdateStatus();
    reload_config = false;
    initialized = true;
    return true;
}

// Timers, then at most one command and one module event.
void PPLCounter::RunPass(char* reply, char* event) {
    now_ms = GetTime();
    if (now_ms - last_status_ms > kStatusPeriodMs) {
        last_status_ms = now_ms;
        UpdateStatus();
    }
    if (now_ms - last_restart_check_ms > kRestartCheckPeriodMs) {
        last_restart_check_ms = now_ms;
        Check_PPL_Cam_Restart_Service();
    }
    RetryCommandSocket();
    PollCommand(reply);
    PollEvent(event);
}

void PPLCounter::PollCommand(char* reply) {
    HandleCommand(*command, reply);
}

void PPLCounter::PollEvent(char* event) {
    HandleEvent(*event_in, event);
}

void PPLCounter::HandleCommand(NTextCommand& endpoint, char* reply) {
    if (endpoint.Wait(0, 0) > 0 && endpoint.RecvBuffer() > 0) {
        memset(reply, 0, kPassBufferSize);
        bool ok = ParseCmd(endpoint.GetCommand(), reply);
        endpoint.Reply(ok ? NTextCommand::RESULT(0) : NTextCommand::RESULT(1), reply);
    }
}

void PPLCounter::HandleEvent(IEvent& queue, char* event) {
    if (queue.Wait(0, 0) > 0 && queue.Recv(event, kPassBufferSize) > 0) {
        ShowLog("Event::Run(), receive event => %s\n", Printable(event).c_str());
        ParseEvt(event);
    }
}
