// The datagram transport of NModuleInterface.h: NCommandIPC, the endpoint of
// the command socket, and NTimedCommander, a client built on it.
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>

#include "NModuleInterface.h"
#include "NModuleSocket.h"
#include "UTime.h"

using nmodule::CloseDescriptor;
using nmodule::MakeAddress;
using nmodule::PollReadable;

namespace {

const size_t kPathSize = sizeof(sockaddr_un::sun_path);

}  // namespace

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
