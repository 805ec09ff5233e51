#include "UBrand_PPL_Counter.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "ULog.h"
#include "UTime.h"
#include "UWait.h"
#include "ipc_va.h"

namespace {

const unsigned int kConnectTimeoutMs = 3000;
const int kTargetPollMs = 200;
const int kConnectRetryMs = 2000;
const long kEventWaitUs = 200000;

// Reads a number as a stream reads an int, without a stream's cost on every
// event: blanks skipped, an optional sign, decimal digits up to the first
// other character. False when no digit follows or the number does not fit.
bool ReadInt(const char* p, const char* end, int* value) {
    while (p < end && (*p == ' ' || (*p >= '\t' && *p <= '\r')))
        ++p;
    bool negative = p < end && *p == '-';
    if (p < end && (*p == '-' || *p == '+'))
        ++p;
    if (p == end || *p < '0' || *p > '9')
        return false;
    const long long limit = static_cast<long long>(INT_MAX) + 1;
    long long n = 0;
    for (; p < end && *p >= '0' && *p <= '9'; ++p) {
        if (n <= limit)
            n = n * 10 + (*p - '0');
    }
    if (n > (negative ? limit : limit - 1))
        return false;
    *value = static_cast<int>(negative ? -n : n);
    return true;
}

}  // namespace

uint32_t GetTickCount() {
    return static_cast<uint32_t>(UTime::GetMonotonicMs());
}

UBrand_PPL_Counter::UBrand_PPL_Counter(int idx)
    : thread_alive(false),
      created(true),
      connected(false),
      last_activity(GetTickCount()),
      server_port(0),
      sock(-1),
      connect_timeout(kConnectTimeoutMs),
      thread(),
      cam_idx(idx),
      running(false),
      reconnect_requested(false),
      in(0),
      out(0),
      total_in(0),
      total_out(0),
      wake_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      kick_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    (void)created;
}

UBrand_PPL_Counter::~UBrand_PPL_Counter() {
    stop();
    if (wake_fd >= 0)
        close(wake_fd);
    if (kick_fd >= 0)
        close(kick_fd);
}

void UBrand_PPL_Counter::start() {
    std::lock_guard<std::mutex> guard(lifecycle_lock);
    if (running)
        return;
    DrainWake();
    running = true;
    int err = pthread_create(&thread, nullptr, func_count_thread, this);
    if (err != 0) {
        // Not running, so that a later start() tries again.
        running = false;
        fprintf(stderr, "%s(): pthread_create is failed, errno:%d, %s\n", "start", err,
                UError::Text(err).c_str());
    }
}

void UBrand_PPL_Counter::stop() {
    std::lock_guard<std::mutex> guard(lifecycle_lock);
    if (!running)
        return;
    running = false;
    set_server_addr("");
    server_port = 0;
    Wake();
    pthread_join(thread, nullptr);
    thread = pthread_t();
}

void UBrand_PPL_Counter::reconnect() {
    reconnect_requested = true;
    if (kick_fd >= 0) {
        uint64_t one = 1;
        ssize_t n = write(kick_fd, &one, sizeof(one));
        (void)n;
    }
}
bool UBrand_PPL_Counter::is_running() {
    return running;
}
bool UBrand_PPL_Counter::is_connect() {
    return connected;
}

void UBrand_PPL_Counter::set_server_addr(const std::string& addr) {
    std::lock_guard<std::mutex> guard(addr_lock);
    server_addr = addr;
}

std::string UBrand_PPL_Counter::get_server_addr() {
    std::lock_guard<std::mutex> guard(addr_lock);
    return server_addr;
}

void UBrand_PPL_Counter::set_server_port(int port) {
    server_port = port;
}
int UBrand_PPL_Counter::get_server_port() {
    return server_port;
}

int UBrand_PPL_Counter::get_ppl_total_cam_in() {
    return total_in;
}
int UBrand_PPL_Counter::get_ppl_total_cam_out() {
    return total_out;
}

int UBrand_PPL_Counter::get_ppl_total_cam_stayin() {
    return PPL_Stayin(total_in, total_out);
}

void UBrand_PPL_Counter::reset_ppl_total_counts() {
    total_in = 0;
    total_out = 0;
    notify_count_result();
}

void* UBrand_PPL_Counter::func_count_thread(void* arg) {
    static_cast<UBrand_PPL_Counter*>(arg)->WriteThreadLiveRecog();
    return nullptr;
}

// The eventfd stays readable from stop() until the next start(), so every
// wait of the worker ends at once while it is stopping.
void UBrand_PPL_Counter::Wake() {
    if (wake_fd < 0)
        return;
    uint64_t one = 1;
    ssize_t n = write(wake_fd, &one, sizeof(one));
    (void)n;
}

void UBrand_PPL_Counter::DrainWake() {
    if (wake_fd < 0)
        return;
    uint64_t value;
    ssize_t n = read(wake_fd, &value, sizeof(value));
    (void)n;
}

bool UBrand_PPL_Counter::Pause(int ms) {
    return UWait::Until(-1, 0, {wake_fd}, ms) != UWaitResult::Woken;
}

// Between messages the worker sleeps until the camera sends or stop()
// wakes it, so that an idle connection costs no periodic wake-up. A
// reconnect() is taken up where a worker polling in 200 ms waits would take
// it up: at the end of the wait it came in, or after a message that arrives
// first. Without its two descriptors the worker relies on the 200 ms wait of
// the reader alone. True when the socket has something to read.
bool UBrand_PPL_Counter::AwaitMessage(int fd) {
    if (wake_fd < 0 || kick_fd < 0)
        return true;
    const uint64_t began = UTime::GetMonotonicMs();
    int woken = -1;
    UWaitResult result = UWait::Until(fd, POLLIN, {wake_fd, kick_fd}, -1, &woken);
    if (result == UWaitResult::Woken && woken == kick_fd) {
        uint64_t value;
        ssize_t n = read(kick_fd, &value, sizeof(value));
        (void)n;
        // The reconnect is taken up at the end of the 200 ms slice it came in.
        const uint64_t slice = kEventWaitUs / 1000, now = UTime::GetMonotonicMs();
        const uint64_t ends = began + ((now - began) / slice + 1) * slice;
        result = UWait::Until(fd, POLLIN, {wake_fd}, static_cast<int>(ends - now));
    }
    return result == UWaitResult::Ready;
}

// Waits while the address or the port is missing; false once stopped.
bool UBrand_PPL_Counter::WaitForTarget() {
    while (get_server_addr().empty() || server_port == 0) {
        Pause(kTargetPollMs);
        if (!running)
            return false;
    }
    return true;
}

void UBrand_PPL_Counter::WriteThreadLiveRecog() {
    thread_alive = true;
    while (running) {
        if (!WaitForTarget())
            break;
        std::string addr = get_server_addr();
        int port = server_port;
        if (addr.empty() || port == 0)
            continue;  // stop() cleared them meanwhile
        IPCVA_WAITS waits;
        waits.wake_fd = wake_fd;
        int fd = ipcva_connect(addr, static_cast<unsigned short>(port), connect_timeout, waits);
        if (fd == -1) {
            if (!running)
                break;  // the attempt was abandoned by stop()
            int err = errno;
            fprintf(stderr, "%s(): connect is failed, errno:%d, %s\n", "WriteThreadLiveRecog", err,
                    UError::Text(err).c_str());
            Pause(kConnectRetryMs);
            continue;
        }
        connected = true;
        reconnect_requested = false;
        sock = fd;
        ReceiveEvents(fd);
        connected = false;
        close(fd);
        sock = -1;
    }
    thread_alive = false;
}

void UBrand_PPL_Counter::ReceiveEvents(int fd) {
    // After a message the next one is often there already (a burst): the
    // reader then takes it without a wait of its own.
    bool idle = true;
    while (true) {
        if (!running) {
            printf("Not Run...\n");
            fflush(stdout);
            return;
        }
        if (reconnect_requested) {
            printf("Reconnect...\n");
            fflush(stdout);
            return;
        }
        if (idle && !AwaitMessage(fd))
            continue;
        std::string message;
        timeval wait = {0, kEventWaitUs};
        int result = ipcva_recv_msg(fd, message, wait, wake_fd);
        idle = result <= 0;
        if (result == 0)
            continue;
        if (result < 0) {
            if (!running)
                continue;  // woken by stop()
            int err = errno;
            fprintf(stderr, "%s(): recv is failed, errno:%d, %s\n", "WriteThreadLiveRecog", err,
                    UError::Text(err).c_str());
            last_activity = GetTickCount();
            return;
        }
        last_activity = GetTickCount();
        CountingResult(message);
    }
}

// The number after `"key":` up to the first end character after it; 0 when
// the key or the end is missing or the text is not a number. The search is
// plain text on purpose: a blank before the colon is not accepted.
int UBrand_PPL_Counter::ParseValue(const std::string& json, const char* key, char end) {
    size_t pos = json.find(key);
    if (pos == std::string::npos)
        return 0;
    size_t start = pos + strlen(key) + 2;
    size_t stop_at = json.find(end, start);
    if (start > json.size() || stop_at == std::string::npos)
        return 0;
    int value = 0;
    if (!ReadInt(json.data() + start, json.data() + stop_at, &value))
        return 0;
    return value;
}

// Every event is a complete snapshot: a missing key sets its value to 0,
// and the callback fires whether or not anything changed.
void UBrand_PPL_Counter::CountingResult(const std::string& json) {
    int new_in = ParseValue(json, "ObjectIn", ',');
    int new_out = ParseValue(json, "ObjectOut", ',');
    int new_total_in = ParseValue(json, "TotalIn", ',');
    int new_total_out = ParseValue(json, "TotalOut", '}');
    in = new_in;
    out = new_out;
    total_in = new_total_in;
    total_out = new_total_out;
    notify_count_result();
    dir_label = PPL_DIR_Label(get_dir());
    fprintf(stderr, "[%s Cam, idx: %d] Set in: %d, out: %d, total in: %d, total out: %d\n",
            dir_label.c_str(), cam_idx, new_in, new_out, new_total_in, new_total_out);
}
