#include "Reader.h"

#include <sys/msg.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Bench.h"

namespace pplbench {
namespace {

struct QueueMessage {
    long type;
    char text[4096];
};

// The number after key in text, or -1.
long NumberAfter(const char* text, const char* key) {
    const char* at = strstr(text, key);
    return at == nullptr ? -1 : strtol(at + strlen(key), nullptr, 10);
}

}  // namespace

Reader::Reader(uint32_t max_seq) : max_seq_(max_seq), other_(0) {
    for (auto& path : arrivals_) {
        for (auto& cam : path)
            cam.reset(new std::atomic<uint64_t>[max_seq + 1]());
    }
    for (auto& path : delivered_) {
        for (auto& cam : path)
            cam = 0;
    }
}

Reader::~Reader() {
    Stop();
}

bool Reader::Start(int queue_id) {
    queue_id_ = queue_id;
    thread_ = std::thread(&Reader::Loop, this);
    return true;
}

void Reader::Stop() {
    if (!thread_.joinable())
        return;
    QueueMessage stop;
    stop.type = kStopType;
    msgsnd(queue_id_, &stop, 0, 0);
    thread_.join();
}

uint64_t Reader::Arrival(Path path, Cam cam, uint32_t seq) const {
    return seq <= max_seq_ ? arrivals_[path][cam][seq].load(std::memory_order_acquire) : 0;
}

uint64_t Reader::Delivered(Path path, Cam cam) const {
    return delivered_[path][cam].load(std::memory_order_acquire);
}

void Reader::Note(Path path, Cam cam, long seq, uint64_t when) {
    if (seq < 1 || seq > static_cast<long>(max_seq_))
        return;
    std::atomic<uint64_t>& slot = arrivals_[path][cam][seq];
    if (slot.load(std::memory_order_relaxed) != 0)
        return;
    slot.store(when, std::memory_order_release);
    delivered_[path][cam].fetch_add(1, std::memory_order_release);
}

void Reader::Loop() {
    QueueMessage msg;
    while (true) {
        ssize_t n = msgrcv(queue_id_, &msg, sizeof(msg.text) - 1, 0, MSG_NOERROR);
        uint64_t when = NowNs();
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        msg.text[n] = '\0';
        if (msg.type == kStopType)
            return;
        if (msg.type == kServiceType && strncmp(msg.text, "event=ppl_count&", 16) == 0) {
            Note(kService, kInCam, NumberAfter(msg.text, "&in0="), when);
            Note(kService, kOutCam, NumberAfter(msg.text, "&out0="), when);
        } else if (msg.type == kRelayInType) {
            Note(kRelay, kInCam, NumberAfter(msg.text, "\"TotalIn\":"), when);
        } else if (msg.type == kRelayOutType) {
            Note(kRelay, kOutCam, NumberAfter(msg.text, "\"TotalOut\":"), when);
        } else {
            other_.fetch_add(1, std::memory_order_relaxed);
        }
    }
}

}  // namespace pplbench
