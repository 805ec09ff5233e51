#ifndef PPLBENCH_CAMERA_H
#define PPLBENCH_CAMERA_H

#include <cstdint>
#include <string>

namespace pplbench {

// Monotonic clock in nanoseconds: the one clock of the whole measurement.
uint64_t NowNs();

// One simulated LAPI camera with two listeners on loopback: the service's
// event subscription on one port, the relay's connection on another. Every
// event goes to both connections as the same bytes, so that the service and
// the relay are measured on the same traffic.
class Camera {
public:
    Camera(int service_port, int relay_port);
    virtual ~Camera();
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    bool Listen(std::string* why);
    // Accepts the service's connection and answers its subscription request;
    // when is the moment the answer went out. False on time-out or error.
    bool AwaitSubscription(int timeout_ms, uint64_t* when, std::string* why);
    bool AwaitRelay(int timeout_ms, std::string* why);

    // Writes the event messages of seqs[0..count) (the in total, on the in
    // camera, or the out total is the seq) in one write per connection, as a
    // camera's network stack does when events come faster than they leave.
    // The order of the two writes alternates; each is timed just before it
    // starts. False when a connection is gone.
    bool SendEvents(const uint32_t* seqs, size_t count, bool in_camera, uint64_t* service_at,
                    uint64_t* relay_at);

    // Closes the connections and the listeners.
    void Close();

    int ServicePort() const { return service_port_; }
    int RelayPort() const { return relay_port_; }

private:
    bool Accept(int listener, int timeout_ms, int* fd, std::string* why);
    static void AppendEvent(uint32_t seq, bool in_camera, std::string* out);

    int service_port_;
    int relay_port_;
    int service_listener_ = -1;
    int relay_listener_ = -1;
    int service_fd_ = -1;
    int relay_fd_ = -1;
    std::string batch_;
    uint64_t batches_ = 0;
};

}  // namespace pplbench

#endif
