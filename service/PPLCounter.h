#ifndef PPL_COUNTER_SERVICE_H
#define PPL_COUNTER_SERVICE_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Abstract_PPL_Counter.h"
#include "PPLConfigKeys.h"
#include "PPLConstants.h"
#include "PPL_Counter_Group.h"
#include "Tarn3DPCAPIClient.h"
#include "UBrandLAPIClient.h"

class IEvent;
class NEventMQ;
class NTextCommand;
class SAttr;
class Tarn_3DPC_Counter;
class UBrand_PPL_Counter;

// Where the service meets the recorder. The binary always uses the defaults;
// tests point a service object at their own files, socket and queues.
struct PPLCounterPlaces {
    std::string system_ini = ppl::kSystemIniPath;
    std::string status_ini = ppl::kStatusIniPath;
    std::string record_ini = ppl::kRecordIniPath;
    std::string command_path = ppl::kCommandSocketPath;
    int event_in_key = ppl::kEventInKey;
    int event_out_key = ppl::kEventOutKey;
};

// The people-counting service: owns the camera counters, the counting group
// and the module endpoints, and drives everything from one 100 ms polling loop
// on the main thread. It is the count callback of every counter it creates.
//
// Threads: count_result is the only operation called from other threads (the
// counters' workers); every other operation runs on the main thread (the one
// that called Start) and is not safe to call from any other while the loop
// runs. No operation throws; trouble is printed or logged, as each says.
class PPLCounter : public Abstract_PPL_CB {
public:
    // Creates the four LAPI counters, the 3DPC counter and the group, and
    // makes itself their callback; starts nothing and touches no file. They
    // live until the process ends, whatever becomes of this object.
    explicit PPLCounter(const PPLCounterPlaces& where = PPLCounterPlaces());
    ~PPLCounter() override;
    PPLCounter(const PPLCounter&) = delete;
    PPLCounter& operator=(const PPLCounter&) = delete;

    // A counter of group 0 changed (on that counter's worker thread, one
    // callback at a time): raises the over or under alarm when its latch
    // allows, then sends group 0's count event. A counter outside group 0 is
    // ignored. A send that fails loses the event.
    void count_result(Abstract_PPL_Counter* counter) override;

    // Runs the loop on the calling thread and returns only when it has ended
    // (SIGINT or SIGTERM, a failed Init or reader), with the endpoints
    // deleted and the counters stopped.
    void Start();
    // Marks the loop to end after its current pass (any thread).
    void Stop();
    // Creates the three endpoints; false when any is missing. A command
    // socket that cannot be bound is kept unbound and tried again while the
    // loop runs (RetryCommandSocket).
    bool Init();
    // Deletes the endpoints and stops the counters of the camera kind in use.
    void Deinit();
    // The loop itself: Init, SIGINT and SIGTERM blocked and polled, the
    // reload, the timers, one command and one event per pass, Deinit.
    void Run();
    // The monotonic clock in milliseconds (UTime's); any thread.
    static uint64_t GetTime();

    // Configuration (system configuration file). ReadIni reads the service
    // keys, rebuilds the group and starts the counters it names and stops
    // the others, printing each value; a file that cannot be loaded reads as
    // every key missing (and is created when there is none). Always true.
    bool ReadIni();
    // Hands the cameras' addresses, ports and accounts to the counters
    // ReadIni selected and reconnects those whose data changed. Always 1.
    int ReadCamIni();
    // The full connection record of a camera: false (after printing "PPL Cam
    // config is incomplete") when any of its four keys is missing; the
    // fields filled before the missing one stay filled.
    bool GetCamInfo(int camera, CamInfo& info);
    // Address and port of a camera: never fails; a missing key leaves the
    // caller's value as it was.
    bool GetCamInfo(int camera, std::string& address, int& port);

    // Camera settings push. Sends a ready request text to a camera through
    // a client made for it: true when the camera took it, false when its
    // keys are incomplete or the camera refused or could not be reached.
    bool Create_PPL_Settings_Request(const char* request, int camera);
    // The same for a group's settings, as PPL_Settings_Request_Text words them.
    bool Create_PPL_Settings_Request(const _PPL_CAM_SETTINGS& settings, int camera);
    // Sends the enable request to the cameras of a group: 1 when every one
    // took it, 0 when one did not or the group lacks a camera ("Camera group
    // is incomplete").
    int Reset_PPL_Cam_Service(unsigned int group, int enable_value);
    // Sends one request to the in camera of a pair, then to the out camera
    // unless it is the same one, stopping at the first camera that does not
    // take it ("Failed to set camera N PPL settings."); taken, when given,
    // runs for each camera that took it. True when every camera took it.
    bool SendToPair(const std::pair<int, int>& pair, const char* request,
                    const std::function<void(int)>& taken = nullptr);
    // The delayed restart: the enable request with 1 to the groups whose
    // restart was asked for, then no restart is pending.
    void Check_PPL_Cam_Restart_Service();
    // After a reload: pushes a group's settings to its cameras when they or
    // its camera pair changed or counts are to be cleared (and then resets
    // the connected cameras' totals); for the 3DPC camera only the clearing.
    // Failures are printed and not retried.
    void Update_PPL_Cam_Settings(unsigned int group, std::vector<_PPL_CAM_SETTINGS>& old_settings,
                                 std::vector<std::pair<int, int>>& old_pairs);

    // Writes the status file whole, by a rename over its path; whatever is
    // at the path and is not the service's own file is never read, and is
    // said once. A write that fails leaves the path as it was.
    void UpdateStatus();
    // Writes a group's counts into the record file (the service never calls
    // it); ReadRecordIni restores nothing and is always true.
    void UpdateRecordIni(unsigned int group);
    bool ReadRecordIni();

    // Executes one control command, writing its reply text (at most 255
    // bytes) into reply: false for an unknown or refused command.
    bool ParseCmd(const char* command, char* reply);
    // Handles one module event ("add_camera", "del_camera"): false for a
    // null text or one without an event name; other names are ignored.
    bool ParseEvt(const char* text);
    // Sends an event text on queue 259 (from any thread); a failed send, or
    // one after Deinit, loses it.
    void PPL_Event_Out(const std::string& text);
    // The outgoing event texts, exactly as the other modules read them.
    std::string Create_PPL_Enable_Event_Msg();
    std::string Create_Count_Result_Event_Msg(int group, int in, int out, int stayin);
    std::string Create_StayIn_Under_Event_Msg(int group, int limit);
    std::string Create_StayIn_Over_Event_Msg(int group, int limit);

protected:
    // One pass's command and event handling on the given endpoints (the
    // loop passes its own): at most one command, answered with its result,
    // and at most one event. The buffers hold 256 bytes.
    void HandleCommand(NTextCommand& endpoint, char* reply);
    void HandleEvent(IEvent& queue, char* event);

    std::atomic<bool> reload_config;
    std::atomic<bool> running;
    bool initialized;
    uint64_t now_ms;
    uint64_t last_status_ms;
    uint64_t last_restart_check_ms;
    std::atomic<uint32_t> group_num;
    std::atomic<int> enable;
    uint32_t restart_group_mask;
    std::vector<std::pair<int, int>> stayin_limits;
    NEventMQ* event_in;
    NEventMQ* event_out;
    NTextCommand* command;
    std::stringstream cfg_key_stream;
    std::stringstream status_key_stream;
    std::stringstream record_key_stream;
    std::vector<UBrand_PPL_Counter*> lapi_counters;
    std::atomic<uint32_t> lapi_cam_mask;
    std::vector<PPL_Counter_Group*> groups;
    std::atomic<bool> stayin_over_latched;
    std::atomic<bool> stayin_under_latched;
    std::atomic<uint32_t> use_3dpc;
    Tarn_3DPC_Counter* counter_3dpc;

    // Not part of the observable state: where the service meets the
    // recorder, and the locks that make the callback safe to run on several
    // counters' threads beside the main loop.
    PPLCounterPlaces where;
    std::mutex alarm_lock;      // latches and limits, one callback at a time
    std::mutex event_out_lock;  // event_out against its deletion in Deinit
    // Why the status file's path was last not read ("" while it is the
    // service's own file), so that a hostile path is reported once.
    std::string status_refusal;
    // The command socket is not bound yet (said once), and when its bind was
    // last tried.
    bool command_unbound = false;
    uint64_t last_bind_try_ms = 0;

private:
    void RunPass(char* reply, char* event);
    void ClaimEventQueue();
    NTextCommand* OpenCommandSocket();
    void RetryCommandSocket();
    std::string BindCommandSocket(NTextCommand& endpoint, bool probe_first);
    bool CanBind(std::string* why);
    bool ClearCommandSocketPath(std::string* why);
    void SayCommandSocket(const std::string& why);
    void LoadSystemIni(SAttr& ini);
    std::string ClaimStatusPath();
    void LoadStatus(SAttr& status);
    bool ReloadConfiguration();
    void PollCommand(char* reply);
    void PollEvent(char* event);

    std::string KeyOfCamera(int camera, ppl::CameraKey key);
    void StopLapiCounters();
    void ReadGroup(SAttr& ini, unsigned int g);
    void ReadGroupCamera(SAttr& ini, unsigned int g, bool in);
    void ReadGroupLimits(SAttr& ini, unsigned int g);
    bool ReadGroupSettings(SAttr& ini, unsigned int g, _PPL_CAM_SETTINGS& record);
    void StartSelectedCounters();
    void ReadCamIni3DPC(SAttr& ini);
    void ReadCamIniLapi(SAttr& ini, int n);

    Abstract_PPL_Counter* CounterForCamera(int camera);
    UBrand_PPL_Counter* LapiCounter(long camera);
    void CameraStates(PPL_Counter_Group* group, const char*& in_state, const char*& out_state);
    void MarkConnected(Abstract_PPL_Counter* counter, bool connected, const char*& in_state,
                       const char*& out_state);

    bool GroupArgumentIsZero(SAttr& cmd);
    bool ClearCounts();
    bool ServiceStatus(char* reply);
    void AddCamera(unsigned int ch);
    void DeleteCamera(unsigned int ch);
};

#endif
