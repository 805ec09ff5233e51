#ifndef PPL_TEST_LOOPBACK_PEERS_H
#define PPL_TEST_LOOPBACK_PEERS_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <vector>

namespace ppltest {

// A loopback listener that never accepts and whose queue is full, so a
// further connect gets no answer at all and can only time out.
class SilentListener {
public:
    SilentListener() {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in sa = Loopback(0);
        socklen_t len = sizeof(sa);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&sa), len) != 0 || listen(fd_, 0) != 0)
            return;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&sa), &len);
        port_ = ntohs(sa.sin_port);
        // Fill the queue until a connect stays pending.
        for (int i = 0; i < 16 && !full_; ++i) {
            int c = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            sockaddr_in peer = Loopback(port_);
            connect(c, reinterpret_cast<sockaddr*>(&peer), sizeof(peer));
            pollfd p = {c, POLLOUT, 0};
            full_ = poll(&p, 1, 200) == 0;
            fillers_.push_back(c);
        }
    }
    ~SilentListener() {
        for (int c : fillers_)
            close(c);
        close(fd_);
    }
    bool Ready() const { return full_; }
    int Port() const { return port_; }

    static sockaddr_in Loopback(int port) {
        sockaddr_in sa;
        std::memset(&sa, 0, sizeof(sa));
        sa.sin_family = AF_INET;
        sa.sin_port = htons(static_cast<uint16_t>(port));
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return sa;
    }

private:
    int fd_ = -1;
    int port_ = 0;
    bool full_ = false;
    std::vector<int> fillers_;
};

// Milliseconds since construction.
class Stopwatch {
public:
    long Ms() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now() - start_)
            .count();
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace ppltest

#endif
