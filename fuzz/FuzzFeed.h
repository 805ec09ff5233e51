#ifndef PPL_FUZZ_FEED_H
#define PPL_FUZZ_FEED_H

// Puts fuzz input on a connected stream socket, the way a camera's bytes
// reach the service: everything is queued, then the sending end is closed,
// so a reader sees the bytes and then the peer's end and never waits.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

namespace pplfuzz {

class Feed {
public:
    Feed(const uint8_t* data, size_t size) {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
            return;
        fcntl(fds[1], F_SETFL, O_NONBLOCK);
        size_t sent = 0;
        while (sent < size) {
            ssize_t n = send(fds[1], data + sent, size - sent, MSG_NOSIGNAL);
            if (n <= 0)
                break;  // the socket's buffer is full: the rest is cut off
            sent += static_cast<size_t>(n);
        }
        close(fds[1]);
        reader_ = fds[0];
        queued_ = sent;
    }
    virtual ~Feed() {
        if (reader_ >= 0)
            close(reader_);
    }
    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;

    int fd() const { return reader_; }
    // Bytes that made it onto the socket.
    size_t queued() const { return queued_; }

private:
    int reader_ = -1;
    size_t queued_ = 0;
};

}  // namespace pplfuzz

#endif
