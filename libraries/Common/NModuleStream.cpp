// The Unix stream transport of NModuleInterface.h: NUnixCommander and
// NUnixCmdListener, length-prefixed messages over a connected socket.
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "NModuleInterface.h"
#include "NModuleSocket.h"

using nmodule::CloseDescriptor;
using nmodule::MakeAddress;
using nmodule::PollReadable;

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
