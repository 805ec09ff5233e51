#include "ipc_va.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "UTextParam.h"
#include "UWait.h"
#include "http_parser.h"

namespace {

// The subscription request: head and body form one format; its arguments
// are the bare address for Host and the body's length.
#define IPCVA_SUBSCRIBE_HEAD                                                       \
    "POST /LAPI/V1.0/System/Event/Subscription HTTP/1.1\r\n"                       \
    "Content-Type: application/json\r\nUser-Agent: Tarn-DummyAgent/1.00.0\r\n"     \
    "Accept: */*\r\nCache-Control: no-cache\r\nHost: %s\r\nContent-Length: %d\r\n" \
    "Connection: keep-alive\r\n\r\n"
#define IPCVA_SUBSCRIBE_BODY "{\"Duration\":3600,\"Type\":65535}"

const size_t kLineBufferSize = IPCVA_MAX_LINE + 1;
const size_t kBodyBufferSize = IPCVA_MAX_BODY + 1;
// An answer head with more lines than this is not a camera's answer.
const int kMaxAnswerLines = 100;

int tarnu_socket_set_blocking_mode(int fd, int blocking) {
    int flags = fcntl(fd, F_GETFL, 0);
    if (flags < 0)
        return 0;
    flags = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
    return fcntl(fd, F_SETFL, flags) == 0 ? 1 : 0;
}

// Where a read waits: the socket, the wake descriptor whose readability
// abandons the wait at once (ECANCELED), and the deadline by which the whole
// message or answer must have arrived (ETIMEDOUT after), however slowly its
// bytes come.
struct Reader {
    int fd;
    int wake_fd;
    UDeadline deadline;
};

// Takes what is there at once; only when nothing is, waits for more.
ssize_t recv_some(const Reader& r, char* buf, size_t len) {
    ssize_t n = recv(r.fd, buf, len, MSG_DONTWAIT);
    if (n >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
        return n;
    int ready = http_wait_part(r.fd, -1, r.deadline, r.wake_fd);
    if (ready <= 0) {
        errno = -ready;
        return -1;
    }
    return recv(r.fd, buf, len, 0);
}

// The connection's receive time-out in milliseconds (negative: none): the
// time a whole event message may take once it has begun.
int receive_timeout_ms(int fd) {
    timeval tv = {0, 0};
    socklen_t len = sizeof(tv);
    if (getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &len) != 0 ||
        (tv.tv_sec == 0 && tv.tv_usec == 0))
        return -1;
    return UWait::Ms(tv);
}

// Reads one line, one byte per recv, line end included; returns its length
// without the LF (-1 when the peer closed before a byte), or a negative
// value on error. Callers give zeroed buffers of kLineBufferSize bytes; a
// line that would not fit with its terminating zero fails (EMSGSIZE).
int tarnu_socket_recv_line(const Reader& r, char* buf) {
    int count = 0;
    while (true) {
        if (count >= IPCVA_MAX_LINE) {
            errno = EMSGSIZE;
            return -1;
        }
        char c = 0;
        ssize_t got = recv_some(r, &c, 1);
        if (got < 0)
            return static_cast<int>(got);
        if (got == 0) {
            printf("Server Closed...\n");
            fflush(stdout);
            return count - 1;
        }
        buf[count++] = c;
        if (c == '\n')
            return count - 1;
    }
}

// Reads exactly length bytes (fewer if the peer closes); -1 on error.
long recv_body(const Reader& r, char* body, long length) {
    long got = 0;
    while (got < length) {
        ssize_t n = recv_some(r, body + got, static_cast<size_t>(length - got));
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        got += n;
    }
    return got;
}

int close_keeping_errno(int fd) {
    int saved = errno;
    close(fd);
    errno = saved;
    return -1;
}

bool set_int_option(int fd, int level, int name, int value) {
    return setsockopt(fd, level, name, &value, sizeof(value)) == 0;
}

bool set_time_option(int fd, int name, int seconds) {
    timeval tv = {seconds, 0};
    return setsockopt(fd, SOL_SOCKET, name, &tv, sizeof(tv)) == 0;
}

// Keep-alive notices a camera that vanished; the time-outs bound every
// blocking read and write on the connection.
bool set_connection_options(int fd, int recv_timeout_s) {
    return set_int_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1) &&
           set_int_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, 10) &&
           set_int_option(fd, IPPROTO_TCP, TCP_KEEPCNT, 3) &&
           set_int_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, 2) &&
           set_time_option(fd, SO_RCVTIMEO, recv_timeout_s) &&
           set_time_option(fd, SO_SNDTIMEO, IPCVA_SOCKET_TIMEOUT_S);
}

bool send_subscription(int fd, const std::string& ip) {
    char request[1024];
    memset(request, 0, sizeof(request));
    snprintf(request, sizeof(request), IPCVA_SUBSCRIBE_HEAD IPCVA_SUBSCRIBE_BODY, ip.c_str(),
             static_cast<int>(strlen(IPCVA_SUBSCRIBE_BODY)));
    size_t length = strlen(request);
    size_t sent = 0;
    while (sent < length) {
        ssize_t n = send(fd, request + sent, length - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
        } else if (n == 0 || errno == EINPROGRESS) {
            usleep(10000);
        } else {
            break;
        }
    }
    return sent == length;
}

bool read_status_line(const Reader& r) {
    char line[kLineBufferSize];
    memset(line, 0, sizeof(line));
    if (tarnu_socket_recv_line(r, line) < 0) {
        // Abandoned by the caller (stopping), not a fault of the camera.
        if (errno == ECANCELED)
            return false;
        printf("buff %s\n", line);
        printf("validate_headers Recv Fail...\n");
        fflush(stdout);
        return false;
    }
    int code = 0;
    sscanf(line, "%*s%d", &code);
    return code == 200;
}

// Reads the answer's header lines up to the empty line; the last
// Content-Length wins. False on a read failure.
bool read_answer_headers(const Reader& r, long* content_length) {
    *content_length = 0;
    for (int lines = 0; lines < kMaxAnswerLines; ++lines) {
        char line[kLineBufferSize];
        char first[kLineBufferSize];
        char second[kLineBufferSize];
        memset(line, 0, sizeof(line));
        memset(first, 0, sizeof(first));
        memset(second, 0, sizeof(second));
        if (tarnu_socket_recv_line(r, line) < 0)
            return false;
        if (strcmp(line, "\r\n") == 0)
            return true;
        if (strstr(line, "Content-Length:") != nullptr) {
            sscanf(line, "Content-Length:%255s", first);
            *content_length = strtol(first, nullptr, 10);
        } else {
            sscanf(line, "%255s%255s", first, second);
            if (strncmp(first, "Content-Length:", kLineBufferSize) == 0) {
                *content_length = strtol(second, nullptr, 10);
            }
        }
    }
    errno = EMSGSIZE;
    return false;
}

// The answer must be a 200 with a body, read whole within the receive
// time-out of the request; its content is not used.
bool read_subscription_answer(int fd, const IPCVA_WAITS& waits) {
    Reader r = {fd, waits.wake_fd, UDeadline::In(waits.recv_timeout_s * 1000)};
    long content_length = 0;
    if (!read_status_line(r) || !read_answer_headers(r, &content_length)) {
        return false;
    }
    if (content_length <= 0)
        return false;
    if (content_length > IPCVA_MAX_BODY) {
        errno = EMSGSIZE;
        return false;
    }
    char body[kBodyBufferSize];
    memset(body, 0, sizeof(body));
    return recv_body(r, body, content_length) == content_length;
}

// Lends a context the zeroed head buffer of its thread. Each worker thread
// keeps one and zeroes again only what a message wrote, instead of
// allocating and zeroing the whole buffer for every message and every empty
// wait. Declared after the context, so it is gone before the context is.
class HeadBuffer {
public:
    explicit HeadBuffer(HTTP_CONTEXT* ctx) : ctx_(ctx) {
        if (!buffer)
            buffer.reset(new char[HTTP_HEAD_BUFFER_SIZE]());
        ctx->buffer = buffer.get();
        ctx->buffer_size = HTTP_HEAD_BUFFER_SIZE;
    }
    // The reader writes only the received bytes (it zeroes what it looked at
    // beyond them).
    virtual ~HeadBuffer() { memset(buffer.get(), 0, ctx_->received); }
    HeadBuffer(const HeadBuffer&) = delete;
    HeadBuffer& operator=(const HeadBuffer&) = delete;

private:
    static thread_local std::unique_ptr<char[]> buffer;
    HTTP_CONTEXT* ctx_;
};

thread_local std::unique_ptr<char[]> HeadBuffer::buffer;

}  // namespace

int socketConnect(int fd, sockaddr* addr, unsigned addrlen, long timeout_ms, int wake_fd) {
    if (connect(fd, addr, addrlen) == 0)
        return 1;
    if (errno != EINPROGRESS)
        return 0;
    if (timeout_ms < 0)
        timeout_ms = 0;
    if (timeout_ms > INT_MAX)
        timeout_ms = INT_MAX;
    short revents = 0;
    switch (UWait::Until(fd, POLLIN | POLLOUT, {wake_fd}, static_cast<int>(timeout_ms), nullptr,
                         &revents)) {
        case UWaitResult::TimedOut:
            errno = ETIMEDOUT;
            return 0;
        case UWaitResult::Woken:
            errno = ECANCELED;
            return 0;
        case UWaitResult::Error:
            return 0;
        case UWaitResult::Ready:
            break;
    }
    if (revents == 0)
        return 0;
    int error = 0;
    socklen_t len = sizeof(error);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) != 0)
        return 0;
    errno = error;
    return error == 0 ? 1 : 0;
}

int ipcva_connect(std::string ip, unsigned short port, unsigned timeout_ms,
                  const IPCVA_WAITS& waits) {
    fprintf(stderr, "%s(): ip = %s, port = %u\n", "ipcva_connect", ip.c_str(), port);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    sockaddr_in peer;
    memset(&peer, 0, sizeof(peer));
    peer.sin_family = AF_INET;
    peer.sin_port = htons(port);
    // An address that names none is the broadcast address, as inet_addr
    // gives it: the connect then fails.
    uint32_t address = INADDR_NONE;
    UTextParam::toIPv4Address(ip.c_str(), &address);
    peer.sin_addr.s_addr = address;
    if (!tarnu_socket_set_blocking_mode(fd, 0) ||
        !socketConnect(fd, reinterpret_cast<sockaddr*>(&peer), sizeof(peer), timeout_ms,
                       waits.wake_fd) ||
        !tarnu_socket_set_blocking_mode(fd, 1) ||
        !set_connection_options(fd, waits.recv_timeout_s)) {
        return close_keeping_errno(fd);
    }
    if (!send_subscription(fd, ip) || !read_subscription_answer(fd, waits)) {
        return close_keeping_errno(fd);
    }
    fprintf(stderr, "%s(): Subscribed to ppl event\n", "ipcva_connect");
    return fd;
}

int ipcva_recv_msg(int fd, std::string& msg, const timeval& wait, int wake_fd) {
    if (fd == -1)
        return -1;
    HTTP_CONTEXT ctx;
    HeadBuffer head(&ctx);
    ctx.limit_ms = receive_timeout_ms(fd);
    int result = http_read_until_got_request(fd, &ctx, wait, wake_fd);
    if (result < 1)
        return result;
    auto length_header = ctx.headers.find("Content-Length");
    if (length_header == ctx.headers.end())
        return -1;
    long length = strtol(length_header->second.c_str(), nullptr, 10);
    if (length < 0)
        return -1;
    if (length > IPCVA_MAX_BODY) {
        errno = EMSGSIZE;
        return -1;
    }
    char body[kBodyBufferSize];
    memset(body, 0, sizeof(body));
    if (recv_body(Reader{fd, wake_fd, ctx.deadline}, body, length) != length)
        return -1;
    msg.assign(body);
    return static_cast<int>(msg.length());
}
