#ifndef PPL_UBRAND_PPL_COUNTER_H
#define PPL_UBRAND_PPL_COUNTER_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "Abstract_PPL_Counter.h"

// Milliseconds of the monotonic clock (UTime's), wrapping at 2^32.
uint32_t GetTickCount();

// Counter of a LAPI camera. Its worker connects to the camera, subscribes to
// counting events and reports each event's totals through the callback;
// a lost connection is made again at once, a failed one after a 2 s pause.
// Flags, address, port and counts are shared with the service's thread.
class UBrand_PPL_Counter : public Abstract_PPL_Counter {
public:
    explicit UBrand_PPL_Counter(int idx);
    // The owner stops the counter first; a counter still running is stopped
    // here rather than left with a worker on a destroyed object.
    ~UBrand_PPL_Counter() override;
    UBrand_PPL_Counter(const UBrand_PPL_Counter&) = delete;
    UBrand_PPL_Counter& operator=(const UBrand_PPL_Counter&) = delete;

    void start();
    // Returns promptly from every state: the worker's waits end at once.
    void stop();
    // Drops the open connection; the worker connects again.
    void reconnect();
    bool is_running();
    bool is_connect();

    // Read by the worker at each connection attempt.
    void set_server_addr(const std::string& addr);
    std::string get_server_addr();
    void set_server_port(int port);
    int get_server_port();

    int get_ppl_total_cam_in() override;
    int get_ppl_total_cam_out() override;
    int get_ppl_total_cam_stayin() override;
    virtual void reset_ppl_total_counts();

    // Applies one event body; called by the worker.
    void CountingResult(const std::string& json);
    static void* func_count_thread(void* arg);

private:
    void WriteThreadLiveRecog();
    bool WaitForTarget();
    void ReceiveEvents(int fd);
    // Sleeps up to ms; false when stop() woke it.
    bool Pause(int ms);
    void Wake();
    void DrainWake();
    bool AwaitMessage(int fd);
    int ParseValue(const std::string& json, const char* key, char end);

    std::atomic<bool> thread_alive;
    bool created;
    std::atomic<bool> connected;
    std::atomic<uint32_t> last_activity;
    std::string server_addr;  // under addr_lock
    std::atomic<int> server_port;
    std::atomic<int> sock;
    unsigned int connect_timeout;
    pthread_t thread;
    int cam_idx;
    std::string dir_label;
    std::atomic<bool> running;
    std::atomic<bool> reconnect_requested;
    std::atomic<int> in;
    std::atomic<int> out;
    std::atomic<int> total_in;
    std::atomic<int> total_out;

    std::mutex addr_lock;
    std::mutex lifecycle_lock;  // start() and stop() from any thread
    int wake_fd;                // readable while a stop() is under way
    int kick_fd;                // readable after a reconnect(), until the worker saw it
};

#endif
