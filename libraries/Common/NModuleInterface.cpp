#include "NModuleInterface.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>

#include "ULog.h"
#include "UTime.h"
#include "UWait.h"

namespace {

const size_t kPathSize = sizeof(sockaddr_un::sun_path);

// Waits until fd is readable: positive when it is, 0 on time-out, -1 on error.
int PollReadable(int fd, unsigned int seconds, unsigned int microseconds) {
    if (fd < 0)
        return -1;
    timeval limit;
    limit.tv_sec = static_cast<time_t>(seconds) + microseconds / 1000000u;
    limit.tv_usec = static_cast<suseconds_t>(microseconds % 1000000u);
    switch (UWait::Until(fd, POLLIN, {}, UWait::Ms(limit))) {
        case UWaitResult::Ready:
            return 1;
        case UWaitResult::TimedOut:
            return 0;
        default:
            return -1;
    }
}

// Fills a Unix address with path; false (errno ENAMETOOLONG) when it does not fit.
bool MakeAddress(const char* path, struct sockaddr_un* addr, socklen_t* length) {
    size_t n = std::strlen(path);
    if (n >= kPathSize) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    std::memcpy(addr->sun_path, path, n);
    *length = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + n);
    return true;
}

void CloseDescriptor(int* fd) {
    if (*fd > 0)
        ::close(*fd);
    *fd = -1;
}

}  // namespace

// ---------------------------------------------------------------- IEvent

int IEvent::Send(const char*, unsigned int) {
    return -1;
}

int IEvent::Recv(char*, unsigned int) {
    return -1;
}

int IEvent::Wait(unsigned int, unsigned int) {
    return -1;
}

// ---------------------------------------------------------------- NCommandIPC

NCommandIPC::NCommandIPC() : m_nSocket(-1) {
    ClearAddresses();
}

NCommandIPC::NCommandIPC(const char* local, const char* remote) : m_nSocket(-1) {
    ClearAddresses();
    Connect(local, remote);
}

NCommandIPC::~NCommandIPC() {
    destroySocket();
}

void NCommandIPC::ClearAddresses() {
    std::memset(m_szBoundPath, 0, sizeof(m_szBoundPath));
    std::memset(&m_stLocalAddr, 0, sizeof(m_stLocalAddr));
    m_nLocalAddrLen = 0;
    std::memset(&m_stRemoteAddr, 0, sizeof(m_stRemoteAddr));
    m_nRemoteAddrLen = 0;
    std::memset(m_szRemotePath, 0, sizeof(m_szRemotePath));
}

bool NCommandIPC::SetRemote(const char* remote) {
    std::memset(m_szRemotePath, 0, sizeof(m_szRemotePath));
    if (!MakeAddress(remote, &m_stRemoteAddr, &m_nRemoteAddrLen)) {
        m_nRemoteAddrLen = 0;
        return false;
    }
    std::memcpy(m_szRemotePath, m_stRemoteAddr.sun_path, kPathSize);
    return true;
}

int NCommandIPC::Connect(const char* local, const char* remote) {
    destroySocket();
    ClearAddresses();
    if (createSocket() < 0)
        return m_nSocket;
    if (remote != nullptr)
        SetRemote(remote);
    if (local != nullptr) {
        if (!MakeAddress(local, &m_stLocalAddr, &m_nLocalAddrLen)) {
            perror("NDGramIPC: bind error.");
            return m_nSocket;
        }
        // A socket file left by an earlier run would make the bind fail.
        unlink(local);
        std::memcpy(m_szBoundPath, m_stLocalAddr.sun_path, kPathSize);
        bind();
    }
    return m_nSocket;
}

int NCommandIPC::createSocket() {
    destroySocket();
    m_nSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_nSocket < 0)
        perror("NDGramIPC: Unsupported Unix Socket.");
    return m_nSocket;
}

void NCommandIPC::destroySocket() {
    CloseDescriptor(&m_nSocket);
    if (m_szBoundPath[0] != '\0')
        unlink(m_szBoundPath);
    m_szBoundPath[0] = '\0';
}

bool NCommandIPC::bind() {
    if (m_nLocalAddrLen == 0)
        errno = EDESTADDRREQ;
    if (m_nLocalAddrLen == 0 ||
        ::bind(m_nSocket, reinterpret_cast<const struct sockaddr*>(&m_stLocalAddr),
               m_nLocalAddrLen) != 0) {
        perror("NDGramIPC: bind error.");
        return false;
    }
    std::memcpy(m_szBoundPath, m_stLocalAddr.sun_path, kPathSize);
    return true;
}

int NCommandIPC::Send(const char* data, unsigned int length) {
    if (m_nSocket < 0 && createSocket() < 0)
        return -1;
    // The terminating zero travels with every datagram.
    static const char kZero = '\0';
    struct iovec parts[2];
    parts[0].iov_base = const_cast<char*>(data);
    parts[0].iov_len = length;
    parts[1].iov_base = const_cast<char*>(&kZero);
    parts[1].iov_len = 1;
    struct msghdr msg;
    std::memset(&msg, 0, sizeof(msg));
    msg.msg_name = m_nRemoteAddrLen > 0 ? &m_stRemoteAddr : nullptr;
    msg.msg_namelen = m_nRemoteAddrLen;
    msg.msg_iov = parts;
    msg.msg_iovlen = 2;
    ssize_t sent = sendmsg(m_nSocket, &msg, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) {
        fprintf(stderr, "NCommandIPC send error. errno:%d. local:%s. remote:%s. msg:%.*s.\n", errno,
                GetLocalPath(), GetRemotePath(), static_cast<int>(length), data ? data : "");
    }
    return static_cast<int>(sent);
}

int NCommandIPC::Send(const char* data, unsigned int length, const char* remote) {
    if (remote != nullptr)
        SetRemote(remote);
    return Send(data, length);
}

int NCommandIPC::Recv(char* buffer, unsigned int size) {
    if (m_nSocket < 0 || size == 0)
        return -1;
    struct sockaddr_un from;
    std::memset(&from, 0, sizeof(from));
    socklen_t from_length = sizeof(from);
    ssize_t got = recvfrom(m_nSocket, buffer, size - 1, MSG_DONTWAIT,
                           reinterpret_cast<struct sockaddr*>(&from), &from_length);
    if (got < 0)
        return static_cast<int>(got);
    // The sender becomes the peer that the next Send answers.
    m_stRemoteAddr = from;
    m_nRemoteAddrLen = from_length;
    std::memset(m_szRemotePath, 0, sizeof(m_szRemotePath));
    if (from_length > offsetof(struct sockaddr_un, sun_path)) {
        size_t n = from_length - offsetof(struct sockaddr_un, sun_path);
        std::memcpy(m_szRemotePath, from.sun_path, n < kPathSize ? n : kPathSize);
    }
    buffer[got] = '\0';
    return static_cast<int>(got);
}

int NCommandIPC::Wait(unsigned int seconds, unsigned int microseconds) {
    return PollReadable(m_nSocket, seconds, microseconds);
}

int NCommandIPC::getNumData() {
    int waiting = 0;
    if (ioctl(m_nSocket, FIONREAD, &waiting) != 0) {
        perror("NDGramIPC: GetNumData error.");
        return -1;
    }
    return waiting;
}

// ---------------------------------------------------------------- event queues

namespace {

// Sends one text as a type-1 record. An opener (reopen_key != -1) whose send
// failed looks the key up again, because the owner may have re-created its
// queue, and tries once more.
int SendEvent(NSysVMsgQ& queue, NEventMessage& message, int reopen_key, const char* text,
              unsigned int length) {
    if (length >= static_cast<unsigned int>(kEventTextSize)) {
        USysLog::error(__FILE__, __LINE__, "send", EMSGSIZE);
        return -1;
    }
    message.type = 1;
    if (length > 0)
        std::memcpy(message.text, text, length);
    message.text[length] = '\0';
    if (queue.send(&message, length, IPC_NOWAIT))
        return static_cast<int>(length);
    if (reopen_key == -1)
        return -1;
    queue.forget();
    if (!queue.open(reopen_key))
        return -1;
    return queue.send(&message, length, IPC_NOWAIT) ? static_cast<int>(length) : -1;
}

// Takes one record of any type without waiting. A text that does not fit the
// caller's buffer is consumed and dropped; so is one longer than a record,
// which would otherwise stay at the head of the queue for ever.
int RecvEvent(NSysVMsgQ& queue, NEventMessage& message, char* buffer, unsigned int size) {
    if (queue.getMQId() < 0)
        return -1;
    int got = queue.recv(&message, kEventTextSize, 0, IPC_NOWAIT);
    if (got < 0 && errno == E2BIG) {
        queue.recv(&message, kEventTextSize, 0, IPC_NOWAIT | MSG_NOERROR);
        return -1;
    }
    if (got < 1)
        return got;
    if (static_cast<unsigned int>(got) >= size)
        return -1;
    std::memcpy(buffer, message.text, static_cast<size_t>(got));
    buffer[got] = '\0';
    return got;
}

int CountEvents(NSysVMsgQ& queue) {
    if (queue.getMQId() < 0)
        return -1;
    return queue.getNumMessages();
}

}  // namespace

NEventMQ::NEventMQ() : m_nKey(-1) {
    std::memset(&m_message, 0, sizeof(m_message));
}

NEventMQ::NEventMQ(int key, bool create) : m_nKey(create ? -1 : key) {
    std::memset(&m_message, 0, sizeof(m_message));
    if (create)
        m_queue.create(key);
    else
        m_queue.open(key);
}

NEventMQ::~NEventMQ() {
    if (m_nKey == -1)
        Release();
}

void NEventMQ::Release() {
    if (m_queue.getMQId() >= 0)
        m_queue.destroy();
}

bool NEventMQ::create(int key) {
    std::lock_guard<std::mutex> hold(m_lock);
    Release();
    m_nKey = -1;
    return m_queue.create(key);
}

bool NEventMQ::connect(int key) {
    std::lock_guard<std::mutex> hold(m_lock);
    if (m_nKey == -1)
        Release();
    else
        m_queue.forget();
    m_nKey = key;
    return m_queue.open(key);
}

void NEventMQ::disconnect() {
    std::lock_guard<std::mutex> hold(m_lock);
    if (m_nKey == -1)
        Release();
    else
        m_queue.forget();
}

int NEventMQ::destroy() {
    std::lock_guard<std::mutex> hold(m_lock);
    if (m_queue.getMQId() < 0)
        return -1;
    return m_queue.destroy() ? 0 : -1;
}

int NEventMQ::GetMQId() {
    std::lock_guard<std::mutex> hold(m_lock);
    return m_queue.getMQId();
}

int NEventMQ::Send(const char* text, unsigned int length) {
    std::lock_guard<std::mutex> hold(m_lock);
    return SendEvent(m_queue, m_message, m_nKey, text, length);
}

int NEventMQ::Recv(char* buffer, unsigned int size) {
    std::lock_guard<std::mutex> hold(m_lock);
    return RecvEvent(m_queue, m_message, buffer, size);
}

int NEventMQ::Wait(unsigned int, unsigned int) {
    std::lock_guard<std::mutex> hold(m_lock);
    return CountEvents(m_queue);
}

NMQEventHandler::NMQEventHandler(int key) {
    std::memset(&m_message, 0, sizeof(m_message));
    m_queue.create(key);
}

NMQEventHandler::~NMQEventHandler() {
    if (m_queue.getMQId() >= 0)
        m_queue.destroy();
}

int NMQEventHandler::Recv(char* buffer, unsigned int size) {
    std::lock_guard<std::mutex> hold(m_lock);
    return RecvEvent(m_queue, m_message, buffer, size);
}

int NMQEventHandler::Wait(unsigned int, unsigned int) {
    std::lock_guard<std::mutex> hold(m_lock);
    return CountEvents(m_queue);
}

NMQEventRaiser::NMQEventRaiser(int key) : m_nKey(key) {
    std::memset(&m_message, 0, sizeof(m_message));
    m_queue.open(key);
}

int NMQEventRaiser::Send(const char* text, unsigned int length) {
    std::lock_guard<std::mutex> hold(m_lock);
    return SendEvent(m_queue, m_message, m_nKey, text, length);
}

int NEventQueueList::RegisterQueue(int key) {
    if (m_nCount >= kMaxQueues)
        return 0;
    m_queues[m_nCount].reset(new NEventMQ(key, false));
    return m_nCount++;
}

int NEventQueueList::Send(const char* text, unsigned int length) {
    int result = 1;
    for (int i = 0; i < m_nCount; ++i) {
        int sent = m_queues[i]->Send(text, length);
        if (sent < 0)
            result = sent;
    }
    return result;
}

// ---------------------------------------------------------------- stream sockets

NUnixCommander::NUnixCommander() : m_nSocket(-1) {
    m_szPath[0] = '\0';
}

NUnixCommander::~NUnixCommander() {
    disconnect();
}

void NUnixCommander::disconnect() {
    CloseDescriptor(&m_nSocket);
}

bool NUnixCommander::StorePath(const char* path) {
    if (std::strlen(path) >= sizeof(m_szPath)) {
        errno = ENAMETOOLONG;
        return false;
    }
    if (path != m_szPath)
        std::strcpy(m_szPath, path);
    return true;
}

int NUnixCommander::connect(const char* path) {
    disconnect();
    struct sockaddr_un addr;
    socklen_t length = 0;
    if (!StorePath(path) || !MakeAddress(m_szPath, &addr, &length)) {
        perror("Unsupported Unix Socket.");
        return -1;
    }
    m_nSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_nSocket < 0) {
        perror("Unsupported Unix Socket.");
        return -1;
    }
    if (::connect(m_nSocket, reinterpret_cast<const struct sockaddr*>(&addr), length) != 0) {
        char text[sizeof(m_szPath) + 64];
        snprintf(text, sizeof(text), "NUnixCommander: connect to %s error.", m_szPath);
        perror(text);
        disconnect();
        return -1;
    }
    printf("command socket: %d\n", m_nSocket);
    return m_nSocket;
}

bool NUnixCommander::reconnect() {
    return m_szPath[0] != '\0' && connect(m_szPath) >= 0;
}

bool NUnixCommander::SendLength(unsigned int length) {
    if (m_nSocket < 0)
        return false;
    uint32_t header = length;
    return send(m_nSocket, &header, sizeof(header), MSG_DONTWAIT | MSG_NOSIGNAL) ==
           static_cast<ssize_t>(sizeof(header));
}

int NUnixCommander::Send(const char* data, unsigned int length) {
    // A peer that went away shows first on the length; one new connection is tried.
    if (!SendLength(length) && (!reconnect() || !SendLength(length)))
        return -1;
    if (length == 0)
        return 0;
    return static_cast<int>(send(m_nSocket, data, length, MSG_DONTWAIT | MSG_NOSIGNAL));
}

int NUnixCommander::Recv(char* buffer, unsigned int size) {
    if (m_nSocket < 0)
        return -1;
    // The length is only peeked at first: a message too long for the buffer
    // stays whole in the stream for a later call with a larger one.
    uint32_t length = 0;
    ssize_t got = recv(m_nSocket, &length, sizeof(length), MSG_PEEK | MSG_WAITALL);
    if (got == 0) {
        disconnect();
        return 0;
    }
    if (got != static_cast<ssize_t>(sizeof(length)) || length >= size)
        return -1;
    if (recv(m_nSocket, &length, sizeof(length), 0) != static_cast<ssize_t>(sizeof(length)))
        return -1;
    got = length > 0 ? recv(m_nSocket, buffer, length, MSG_WAITALL) : 0;
    if (got == 0 && length > 0) {
        disconnect();
        return 0;
    }
    if (got < 0)
        return -1;
    buffer[got] = '\0';
    return static_cast<int>(got);
}

int NUnixCommander::Wait(unsigned int seconds, unsigned int microseconds) {
    return PollReadable(m_nSocket, seconds, microseconds);
}

int NUnixCommander::waitInbound(unsigned int seconds, unsigned int microseconds) {
    return PollReadable(m_nSocket, seconds, microseconds);
}

NUnixCmdListener::NUnixCmdListener() : m_nListenSocket(-1) {}

NUnixCmdListener::~NUnixCmdListener() {
    CloseDescriptor(&m_nListenSocket);
    if (m_szPath[0] != '\0')
        unlink(m_szPath);
}

int NUnixCmdListener::connect(const char* path) {
    disconnect();
    CloseDescriptor(&m_nListenSocket);
    struct sockaddr_un addr;
    socklen_t length = 0;
    m_szPath[0] = '\0';
    if (!MakeAddress(path, &addr, &length)) {
        perror("create server socket error");
        return -1;
    }
    m_nListenSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_nListenSocket < 0) {
        perror("create server socket error");
        return -1;
    }
    unlink(path);
    if (::bind(m_nListenSocket, reinterpret_cast<const struct sockaddr*>(&addr), length) != 0) {
        perror("bind error");
        CloseDescriptor(&m_nListenSocket);
        return -1;
    }
    StorePath(path);
    if (listen(m_nListenSocket, 10) != 0) {
        perror("create server socket error");
        CloseDescriptor(&m_nListenSocket);
        return -1;
    }
    return m_nListenSocket;
}

int NUnixCmdListener::accept() {
    int client = accept4(m_nListenSocket, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
        perror("accept error");
        return -1;
    }
    disconnect();
    m_nSocket = client;
    return client;
}

int NUnixCmdListener::waitInbound(unsigned int seconds, unsigned int microseconds) {
    return PollReadable(m_nListenSocket, seconds, microseconds);
}

// ---------------------------------------------------------------- NTimedCommander

NTimedCommander::NTimedCommander(const char* base_path, const char* remote, unsigned int time_limit)
    : m_nTimeLimit(time_limit), m_tLastSend(0), m_nPathIndex(0) {
    // Room is left for the "0" or "1" that completes the local path.
    snprintf(m_szBasePath, sizeof(m_szBasePath) - 1, "%s", base_path ? base_path : "");
    snprintf(m_szRemotePath, sizeof(m_szRemotePath), "%s", remote ? remote : "");
    std::string local = std::string(m_szBasePath) + "0";
    m_endpoint.reset(new NCommandIPC(local.c_str(), m_szRemotePath));
}

int NTimedCommander::Send(const char* data, unsigned int length) {
    m_tLastSend = UTime::getLogicTime();
    return m_endpoint->Send(data, length);
}

int NTimedCommander::Recv(char* buffer, unsigned int size) {
    return m_endpoint->Recv(buffer, size);
}

int NTimedCommander::Wait(unsigned int seconds, unsigned int microseconds) {
    int ready = m_endpoint->Wait(seconds, microseconds);
    if (ready == 0 && UTime::getLogicTime() - m_tLastSend <= static_cast<long>(m_nTimeLimit))
        SwitchLocalPath();
    return ready;
}

void NTimedCommander::SwitchLocalPath() {
    m_nPathIndex ^= 1;
    std::string local = std::string(m_szBasePath) + (m_nPathIndex ? "1" : "0");
    m_endpoint->Connect(local.c_str(), m_szRemotePath);
}
