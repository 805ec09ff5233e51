#include "Camera.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace pplbench {
namespace {

const char kAnswerBody[] = "{\"Result\":0,\"SubscriptionID\":1}";

bool Fail(std::string* why, const std::string& what) {
    *why = what + ": " + strerror(errno);
    return false;
}

int OpenListener(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd, 4) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void CloseFd(int* fd) {
    if (*fd >= 0)
        close(*fd);
    *fd = -1;
}

bool WriteAll(int fd, const char* data, size_t length) {
    while (length > 0) {
        ssize_t n = send(fd, data, length, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

// Reads one request (head, then its Content-Length body) within the time.
bool ReadRequest(int fd, int timeout_ms, std::string* why) {
    std::string got;
    uint64_t deadline = NowNs() + static_cast<uint64_t>(timeout_ms) * 1000000;
    while (true) {
        size_t head_end = got.find("\r\n\r\n");
        if (head_end != std::string::npos) {
            size_t field = got.find("Content-Length:");
            long body = field < head_end ? strtol(got.c_str() + field + 15, nullptr, 10) : 0;
            if (got.size() >= head_end + 4 + static_cast<size_t>(body))
                return true;
        }
        uint64_t now = NowNs();
        if (now >= deadline) {
            *why = "subscription request timed out";
            return false;
        }
        pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>((deadline - now) / 1000000 + 1)) <= 0)
            continue;
        char buf[1024];
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n <= 0)
            return Fail(why, "subscription request");
        got.append(buf, static_cast<size_t>(n));
    }
}

}  // namespace

uint64_t NowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

Camera::Camera(int service_port, int relay_port)
    : service_port_(service_port), relay_port_(relay_port) {}

Camera::~Camera() {
    Close();
}

void Camera::Close() {
    CloseFd(&service_fd_);
    CloseFd(&relay_fd_);
    CloseFd(&service_listener_);
    CloseFd(&relay_listener_);
}

bool Camera::Listen(std::string* why) {
    service_listener_ = OpenListener(service_port_);
    relay_listener_ = OpenListener(relay_port_);
    if (service_listener_ < 0 || relay_listener_ < 0)
        return Fail(why, "listen on port " + std::to_string(service_port_));
    return true;
}

bool Camera::Accept(int listener, int timeout_ms, int* fd, std::string* why) {
    pollfd p = {listener, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) {
        *why = "no connection to port within " + std::to_string(timeout_ms) + " ms";
        return false;
    }
    *fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (*fd < 0)
        return Fail(why, "accept");
    int one = 1;
    setsockopt(*fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    return true;
}

bool Camera::AwaitSubscription(int timeout_ms, uint64_t* when, std::string* why) {
    if (!Accept(service_listener_, timeout_ms, &service_fd_, why) ||
        !ReadRequest(service_fd_, timeout_ms, why)) {
        return false;
    }
    char answer[256];
    int n = snprintf(answer, sizeof(answer),
                     "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
                     "Content-Length: %zu\r\n\r\n%s",
                     strlen(kAnswerBody), kAnswerBody);
    if (!WriteAll(service_fd_, answer, static_cast<size_t>(n)))
        return Fail(why, "subscription answer");
    *when = NowNs();
    return true;
}

bool Camera::AwaitRelay(int timeout_ms, std::string* why) {
    return Accept(relay_listener_, timeout_ms, &relay_fd_, why);
}

void Camera::AppendEvent(uint32_t seq, bool in_camera, std::string* out) {
    char body[160];
    int body_len = snprintf(
        body, sizeof(body), "{\"ObjectIn\":%d,\"ObjectOut\":%d,\"TotalIn\":%u,\"TotalOut\":%u}",
        in_camera ? 1 : 0, in_camera ? 0 : 1, in_camera ? seq : 0u, in_camera ? 0u : seq);
    char message[384];
    int len = snprintf(message, sizeof(message),
                       "POST /LAPI/V1.0/System/Event/Notification HTTP/1.1\r\n"
                       "Content-Type: application/json\r\nContent-Length: %d\r\n\r\n%s",
                       body_len, body);
    out->append(message, static_cast<size_t>(len));
}

bool Camera::SendEvents(const uint32_t* seqs, size_t count, bool in_camera, uint64_t* service_at,
                        uint64_t* relay_at) {
    batch_.clear();
    for (size_t i = 0; i < count; ++i)
        AppendEvent(seqs[i], in_camera, &batch_);
    const char* data = batch_.data();
    size_t size = batch_.size();
    bool ok = true;
    if (++batches_ % 2 == 0) {
        *service_at = NowNs();
        ok = WriteAll(service_fd_, data, size);
        *relay_at = NowNs();
        return WriteAll(relay_fd_, data, size) && ok;
    }
    *relay_at = NowNs();
    ok = WriteAll(relay_fd_, data, size);
    *service_at = NowNs();
    return WriteAll(service_fd_, data, size) && ok;
}

}  // namespace pplbench
