#ifndef PPL_TARN_3DPC_COUNTER_H
#define PPL_TARN_3DPC_COUNTER_H

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "Abstract_PPL_Counter.h"
#include "Tarn3DPCAPIClient.h"

// Counter of a 3DPC V2 camera. Its worker polls the camera through the
// camera client once per interval and reports changed running totals to the
// callback. Requests of all 3DPC counters of the process are serialised by one
// shared lock, so a slow camera delays the others but two never overlap.
class Tarn_3DPC_Counter : public Abstract_PPL_Counter {
public:
    explicit Tarn_3DPC_Counter(int idx);
    ~Tarn_3DPC_Counter() override;
    Tarn_3DPC_Counter(const Tarn_3DPC_Counter&) = delete;
    Tarn_3DPC_Counter& operator=(const Tarn_3DPC_Counter&) = delete;

    void start();
    // Clears the API type and the device info, then joins the worker; the
    // device info must be set again before the next start() reaches a camera.
    void stop();
    // The next poll comes at once and hands the device info to the client.
    void reconnect();
    bool is_running();
    bool is_connect();

    void SetAPIType(E_PC_API_TYPE type);
    void SetDeviceInterval(unsigned int seconds);
    // Empty texts keep the field as it was; longer texts are cut to the field.
    void SetDeviceAccount(std::string user, std::string password);
    void SetDeviceHttpPort(std::string port);
    void SetDeviceIP(std::string ip);
    int SetDeviceInfo(std::string ip, std::string port, std::string user, std::string password,
                      unsigned int interval);
    void GetDeviceAccount(std::string& user, std::string& password);
    void GetDeviceInfo(std::string& ip, std::string& port);

    int get_ppl_total_cam_in() override;
    int get_ppl_total_cam_out() override;
    int get_ppl_total_cam_stayin() override;
    virtual void reset_ppl_total_counts();

    // The worker's steps.
    int SendPPLRequest();
    void CountingResult();
    void WriteThreadLiveRecog();
    static void* func_count_thread(void* arg);

private:
    // Sleeps up to ms; false when stop() cut the sleep short.
    bool SleepUnlessStopped(unsigned int ms);
    unsigned int DeviceInterval();
    DeviceInfo CopyDeviceInfo();
    bool PollIsDue(uint64_t now);
    void FinishRequest(int ret, unsigned int reconnects_before);

    std::atomic<bool> thread_alive;
    std::atomic<bool> connected;
    pthread_t thread;
    int cam_idx;
    std::string dir_label;        // worker only
    Tarn_3DPC_API_Client client;  // worker only, under the shared request lock

    std::mutex info_lock;  // guards device_info against the setters
    DeviceInfo device_info;

    Tarn_PPLContext context;  // worker only
    std::atomic<E_PC_API_TYPE> api_type;
    std::atomic<bool> running;
    std::atomic<bool> reconnect_requested;
    // Counts reconnect requests, so one raised while a request is under way
    // is not wiped out by that request's success.
    std::atomic<unsigned int> reconnect_calls;
    std::atomic<int> total_in;
    std::atomic<int> total_out;
    uint64_t poll_time;          // worker only
    uint64_t last_request_time;  // worker only

    std::mutex wake_lock;  // lets stop() cut the worker's sleeps short
    std::condition_variable wake;
};

#endif
