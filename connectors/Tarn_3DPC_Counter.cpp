#include "Tarn_3DPC_Counter.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "ULog.h"
#include "UTime.h"

namespace {

// Held around every request to a 3DPC camera, by every 3DPC counter of the
// process. Initialised once and never destroyed: counters start and stop
// independently, so no single counter may tear it down under the others.
pthread_mutex_t mutex_t = PTHREAD_MUTEX_INITIALIZER;

constexpr unsigned int kPollSleepMs = 50;
constexpr unsigned int kRetrySleepMs = 1000;

// Copies text into a fixed field, cut to leave room for the terminator.
void CopyField(char* field, size_t size, const std::string& text) {
    size_t len = text.size() < size - 1 ? text.size() : size - 1;
    std::memcpy(field, text.data(), len);
    field[len] = '\0';
}

void ReplaceField(char* field, size_t size, const std::string& text) {
    std::memset(field, 0, size);
    CopyField(field, size, text);
}

std::string FieldText(const char* field, size_t size) {
    return std::string(field, strnlen(field, size));
}

}  // namespace

Tarn_3DPC_Counter::Tarn_3DPC_Counter(int idx)
    : thread_alive(false),
      connected(false),
      thread(),
      cam_idx(idx),
      api_type(E_PC_API_NONE),
      running(false),
      reconnect_requested(true),
      reconnect_calls(0),
      total_in(0),
      total_out(0),
      poll_time(0),
      last_request_time(0) {
    std::memset(&device_info, 0, sizeof(device_info));
    std::memset(&context, 0, sizeof(context));
}

// The owner stops the counter first; stopping here as well keeps a forgotten
// stop() from leaving a worker on a destroyed object.
Tarn_3DPC_Counter::~Tarn_3DPC_Counter() {
    stop();
}

void Tarn_3DPC_Counter::start() {
    if (running.exchange(true))
        return;
    int err = pthread_create(&thread, nullptr, func_count_thread, this);
    if (err != 0) {
        fprintf(stderr, "%s(): pthread_create error, err = %d, %s\n", "start", err,
                UError::Text(err).c_str());
        running = false;
    }
}

void Tarn_3DPC_Counter::stop() {
    if (!running)
        return;
    api_type = E_PC_API_NONE;
    {
        std::lock_guard<std::mutex> lock(wake_lock);
        running = false;
    }
    wake.notify_all();
    {
        std::lock_guard<std::mutex> lock(info_lock);
        std::memset(&device_info, 0, sizeof(device_info));
    }
    pthread_join(thread, nullptr);
}

void Tarn_3DPC_Counter::reconnect() {
    reconnect_calls++;
    reconnect_requested = true;
}

bool Tarn_3DPC_Counter::is_running() {
    return running;
}
bool Tarn_3DPC_Counter::is_connect() {
    return connected;
}

void Tarn_3DPC_Counter::SetAPIType(E_PC_API_TYPE type) {
    pthread_mutex_lock(&mutex_t);
    reconnect_calls++;
    reconnect_requested = true;
    api_type = type;
    pthread_mutex_unlock(&mutex_t);
}

void Tarn_3DPC_Counter::SetDeviceInterval(unsigned int seconds) {
    std::lock_guard<std::mutex> lock(info_lock);
    device_info.Interval = seconds;
}

void Tarn_3DPC_Counter::SetDeviceAccount(std::string user, std::string password) {
    std::lock_guard<std::mutex> lock(info_lock);
    if (!user.empty())
        ReplaceField(device_info.UserName, sizeof(device_info.UserName), user);
    if (!password.empty())
        ReplaceField(device_info.Password, sizeof(device_info.Password), password);
}

void Tarn_3DPC_Counter::SetDeviceHttpPort(std::string port) {
    if (port.empty())
        return;
    std::lock_guard<std::mutex> lock(info_lock);
    ReplaceField(device_info.HttpPort, sizeof(device_info.HttpPort), port);
}

void Tarn_3DPC_Counter::SetDeviceIP(std::string ip) {
    if (ip.empty())
        return;
    std::lock_guard<std::mutex> lock(info_lock);
    ReplaceField(device_info.IP, sizeof(device_info.IP), ip);
}

int Tarn_3DPC_Counter::SetDeviceInfo(std::string ip, std::string port, std::string user,
                                     std::string password, unsigned int interval) {
    std::lock_guard<std::mutex> lock(info_lock);
    CopyField(device_info.IP, sizeof(device_info.IP), ip);
    CopyField(device_info.HttpPort, sizeof(device_info.HttpPort), port);
    CopyField(device_info.UserName, sizeof(device_info.UserName), user);
    CopyField(device_info.Password, sizeof(device_info.Password), password);
    device_info.Reserved = 0;
    device_info.Interval = interval;
    return 0;
}

void Tarn_3DPC_Counter::GetDeviceAccount(std::string& user, std::string& password) {
    std::lock_guard<std::mutex> lock(info_lock);
    user = FieldText(device_info.UserName, sizeof(device_info.UserName));
    password = FieldText(device_info.Password, sizeof(device_info.Password));
}

void Tarn_3DPC_Counter::GetDeviceInfo(std::string& ip, std::string& port) {
    std::lock_guard<std::mutex> lock(info_lock);
    ip = FieldText(device_info.IP, sizeof(device_info.IP));
    port = FieldText(device_info.HttpPort, sizeof(device_info.HttpPort));
}

int Tarn_3DPC_Counter::get_ppl_total_cam_in() {
    return total_in;
}
int Tarn_3DPC_Counter::get_ppl_total_cam_out() {
    return total_out;
}
int Tarn_3DPC_Counter::get_ppl_total_cam_stayin() {
    return PPL_Stayin(total_in, total_out);
}

void Tarn_3DPC_Counter::reset_ppl_total_counts() {
    total_in = 0;
    total_out = 0;
    notify_count_result();
}

int Tarn_3DPC_Counter::SendPPLRequest() {
    E_PC_API_TYPE type = api_type;
    if (type == E_PC_API_NONE) {
        fprintf(stderr, "%s(): API is NONE\n", "SendPPLRequest");
        return -1;
    }
    std::string user, password;
    GetDeviceAccount(user, password);
    if (user.empty() || password.empty()) {
        fprintf(stderr, "%s(): Account is incomplete\n", "SendPPLRequest");
        return -1;
    }
    if (reconnect_requested) {
        DeviceInfo info = CopyDeviceInfo();
        fprintf(stderr, "%s(): Reconnect, IP: %s, Port: %s, Type: %d\n", "SendPPLRequest",
                FieldText(info.IP, sizeof(info.IP)).c_str(),
                FieldText(info.HttpPort, sizeof(info.HttpPort)).c_str(), static_cast<int>(type));
        client.SetDeviceInfo(info);
    }
    client.SetAPIType(type);
    int ret = client.HandleRequest();
    if (ret != 0) {
        int err = errno;
        fprintf(stderr, "%s(): Send request error, ret = %d, err = %d, %s\n", "SendPPLRequest", ret,
                err, UError::Text(err).c_str());
        return ret;
    }
    std::memset(&context, 0, sizeof(context));
    client.GetPPLContext(context);
    return 0;
}

void Tarn_3DPC_Counter::CountingResult() {
    int in = context.TotalIn;
    int out = context.TotalOut;
    if (in == total_in && out == total_out) {
        fprintf(stderr, "%s(): Counting result is the same\n\n", "CountingResult");
        return;
    }
    total_in = in;
    total_out = out;
    notify_count_result();
    dir_label = PPL_DIR_Label(get_dir());
    fprintf(stderr, "[%s Cam, idx: %d] Set total in: %d, total out: %d\n\n", dir_label.c_str(),
            cam_idx, in, out);
}

void Tarn_3DPC_Counter::WriteThreadLiveRecog() {
    thread_alive = true;
    last_request_time = UTime::GetMonotonicMs();
    while (running) {
        if (!SleepUnlessStopped(kPollSleepMs))
            break;
        poll_time = UTime::GetMonotonicMs();
        if (!PollIsDue(poll_time))
            continue;
        last_request_time = poll_time;
        pthread_mutex_lock(&mutex_t);
        unsigned int reconnects_before = reconnect_calls;
        FinishRequest(SendPPLRequest(), reconnects_before);
        pthread_mutex_unlock(&mutex_t);
        if (reconnect_requested)
            continue;
        CountingResult();
        if (!running)
            break;
    }
    thread_alive = false;
}

void* Tarn_3DPC_Counter::func_count_thread(void* arg) {
    static_cast<Tarn_3DPC_Counter*>(arg)->WriteThreadLiveRecog();
    return nullptr;
}

bool Tarn_3DPC_Counter::PollIsDue(uint64_t now) {
    uint64_t interval_ms = static_cast<uint64_t>(DeviceInterval()) * 1000;
    return now - last_request_time > interval_ms || reconnect_requested;
}

// Runs under the shared request lock, pauses included, so that after a failure
// or a settings request the next camera request waits its turn.
void Tarn_3DPC_Counter::FinishRequest(int ret, unsigned int reconnects_before) {
    if (ret != 0) {
        fprintf(stderr, "%s(): Send request error, ret = %d\n", "WriteThreadLiveRecog", ret);
        connected = false;
        reconnect_requested = true;
        SleepUnlessStopped(kRetrySleepMs);
        return;
    }
    reconnect_requested = reconnect_calls != reconnects_before;
    connected = true;
    E_PC_API_TYPE settings = E_PC_API_SETTINGS;
    if (api_type.compare_exchange_strong(settings, E_PC_API_COUNTING)) {
        reconnect_requested = true;
        SleepUnlessStopped(kRetrySleepMs);
    }
}

bool Tarn_3DPC_Counter::SleepUnlessStopped(unsigned int ms) {
    std::unique_lock<std::mutex> lock(wake_lock);
    return !wake.wait_for(lock, std::chrono::milliseconds(ms), [this] { return !running; });
}

unsigned int Tarn_3DPC_Counter::DeviceInterval() {
    std::lock_guard<std::mutex> lock(info_lock);
    return device_info.Interval;
}

DeviceInfo Tarn_3DPC_Counter::CopyDeviceInfo() {
    std::lock_guard<std::mutex> lock(info_lock);
    return device_info;
}
