#ifndef PPL_IPC_VA_H
#define PPL_IPC_VA_H

#include <sys/socket.h>
#include <sys/time.h>

#include <string>

// Event channel to a LAPI camera: connect, subscribe to counting events, and
// take one event body at a time off the connection. The caller owns the
// descriptor; the only state kept here is each calling thread's own message
// head buffer (16 KiB, reused from message to message), so several counters'
// threads may read their connections at once.

// Receive and send time-out of every camera connection, in seconds.
constexpr int IPCVA_SOCKET_TIMEOUT_S = 10;
// Largest event or answer body accepted (the body buffers hold 1024 bytes
// including the terminating zero).
constexpr long IPCVA_MAX_BODY = 1023;
// Longest line of a subscription answer, line end included (the line buffer
// holds 256 bytes including the terminating zero).
constexpr int IPCVA_MAX_LINE = 255;

// Waits of a connection that callers may change: tests shorten the receive
// time-out; the counter passes a wake descriptor whose readability abandons
// any wait at once (its stop() must not wait out a pending connect).
struct IPCVA_WAITS {
    int recv_timeout_s = IPCVA_SOCKET_TIMEOUT_S;
    int wake_fd = -1;
};

// Completes a connect on the non-blocking fd within timeout_ms: 1 when
// connected, 0 otherwise (errno holds the socket's pending error, ETIMEDOUT
// when the wait ran out, ECANCELED when wake_fd became readable).
int socketConnect(int fd, sockaddr* addr, unsigned addrlen, long timeout_ms, int wake_fd = -1);

// Connects to ip:port and subscribes to counting events. The whole answer
// must arrive within the receive time-out of the request, however slowly
// its bytes trickle (errno ETIMEDOUT after). Returns the connected,
// subscribed descriptor, or -1 (the socket it made is closed).
int ipcva_connect(std::string ip, unsigned short port, unsigned timeout_ms,
                  const IPCVA_WAITS& waits = IPCVA_WAITS());

// Reads one event message: the body's length (above 0) with the body in msg,
// 0 when nothing arrived within wait (or the body was empty), or a negative
// value on error, on close or for a malformed message. wait bounds the wait
// for each next byte of the head; once the message has begun, head and body
// must arrive whole within the connection's receive time-out (the one
// ipcva_connect set), however slowly they trickle (-1, errno ETIMEDOUT).
// A readable wake_fd abandons the read. Never closes fd.
int ipcva_recv_msg(int fd, std::string& msg, const timeval& wait, int wake_fd = -1);

#endif
