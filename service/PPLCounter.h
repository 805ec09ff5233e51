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
// on the main thread. It is the count callback of every counter it creates;
// that callback runs on the counters' worker threads.
//
// Threads: count_result is the only operation called from other threads (the
// counters' workers); everything else (the loop, configuration, commands,
// events, status, records, settings pushes) runs on the thread that called
// Start, and is not safe to call from any other while the loop runs.
class PPLCounter : public Abstract_PPL_CB {
public:
    // Creates the counters and the group; starts nothing and touches no file.
    explicit PPLCounter(const PPLCounterPlaces& where = PPLCounterPlaces());
    ~PPLCounter() override;
    PPLCounter(const PPLCounter&) = delete;
    PPLCounter& operator=(const PPLCounter&) = delete;

    void count_result(Abstract_PPL_Counter* counter) override;

    // Runs the loop on the calling thread and returns only when it has ended
    // (SIGINT or SIGTERM, a failed Init or reader), with the endpoints
    // deleted and the counters stopped.
    void Start();
    // Marks the loop to end after its current pass.
    void Stop();
    // Creates the three endpoints; false when any is missing, or when the
    // command socket's path holds something other than a socket.
    bool Init();
    // Deletes the endpoints and stops the counters of the camera kind in use.
    void Deinit();
    void Run();
    static uint64_t GetTime();

    // Configuration (system configuration file).
    bool ReadIni();
    int ReadCamIni();
    // The full connection record of a camera: false (after printing "PPL Cam
    // config is incomplete") when any of its four keys is missing; the
    // fields filled before the missing one stay filled.
    bool GetCamInfo(int camera, CamInfo& info);
    // Address and port of a camera: never fails; a missing key leaves the
    // caller's value as it was.
    bool GetCamInfo(int camera, std::string& address, int& port);

    // Camera settings push.
    bool Create_PPL_Settings_Request(const char* request, int camera);
    bool Create_PPL_Settings_Request(const _PPL_CAM_SETTINGS& settings, int camera);
    int Reset_PPL_Cam_Service(unsigned int group, int enable_value);
    // Sends one request to the in camera of a pair, then to the out camera
    // unless it is the same one, stopping at the first camera that does not
    // take it ("Failed to set camera N PPL settings."); taken, when given,
    // runs for each camera that took it. True when every camera took it.
    bool SendToPair(const std::pair<int, int>& pair, const char* request,
                    const std::function<void(int)>& taken = nullptr);
    void Check_PPL_Cam_Restart_Service();
    void Update_PPL_Cam_Settings(unsigned int group, std::vector<_PPL_CAM_SETTINGS>& old_settings,
                                 std::vector<std::pair<int, int>>& old_pairs);

    // Status and record files.
    void UpdateStatus();
    void UpdateRecordIni(unsigned int group);
    bool ReadRecordIni();

    // Commands and module events.
    bool ParseCmd(const char* command, char* reply);
    bool ParseEvt(const char* text);
    void PPL_Event_Out(const std::string& text);
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

private:
    void RunPass(char* reply, char* event);
    void ClaimEventQueue();
    NTextCommand* OpenCommandSocket();
    void LoadSystemIni(SAttr& ini);
    void LoadStatus(SAttr& status);
    bool ReloadConfiguration();
    void PollCommand(char* reply);
    void PollEvent(char* event);

    std::string CameraKey(int camera, ppl::CameraKey key);
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
