#ifndef PPLBENCH_READER_H
#define PPLBENCH_READER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

namespace pplbench {

// Where an event's count arrived from: the service or the relay.
enum Path { kService = 0, kRelay = 1 };
// Which camera the event came from.
enum Cam { kInCam = 0, kOutCam = 1 };

// Message types on the queue: the service sends type 1; the relays send the
// camera's type; the benchmark ends the reader with kStopType.
const long kServiceType = 1;
const long kRelayInType = 2;
const long kRelayOutType = 3;
const long kStopType = 9;

// Reads the queue on its own thread and notes, for every camera event
// (camera, sequence number), when its count first arrived by each path. The
// service's count event carries the group's totals: the in camera's event
// seq shows as in0=seq, the out camera's as out0=seq. The relay's message is
// the camera's body with TotalIn or TotalOut = seq.
class Reader {
public:
    explicit Reader(uint32_t max_seq);
    virtual ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    bool Start(int queue_id);
    void Stop();

    // Arrival time of event seq by a path, 0 while it has not arrived.
    uint64_t Arrival(Path path, Cam cam, uint32_t seq) const;
    // Distinct events that arrived by a path so far.
    uint64_t Delivered(Path path, Cam cam) const;
    uint64_t OtherMessages() const { return other_; }

private:
    void Loop();
    void Note(Path path, Cam cam, long seq, uint64_t when);

    uint32_t max_seq_;
    int queue_id_ = -1;
    std::unique_ptr<std::atomic<uint64_t>[]> arrivals_[2][2];
    std::atomic<uint64_t> delivered_[2][2];
    std::atomic<uint64_t> other_;
    std::thread thread_;
};

}  // namespace pplbench

#endif
