#ifndef COMMON_NMODULEINTERFACE_H
#define COMMON_NMODULEINTERFACE_H

#include <sys/socket.h>
#include <sys/un.h>

#include <memory>
#include <mutex>

#include "NMQueue.h"

// Event endpoint: short texts between modules. The base versions fail.
class IEvent {
public:
    virtual int Send(const char* text, unsigned int length);
    virtual int Recv(char* buffer, unsigned int size);
    virtual int Wait(unsigned int seconds, unsigned int microseconds);
    virtual ~IEvent() = default;
};

// Command endpoint: one request and its answer per exchange.
class ICommand {
public:
    virtual int Send(const char* data, unsigned int length) = 0;
    virtual int Recv(char* buffer, unsigned int size) = 0;
    virtual int Wait(unsigned int seconds, unsigned int microseconds) = 0;
    virtual ~ICommand() = default;
};

// Unix datagram endpoint bound to a file-system path. Every received datagram
// makes its sender the remote address, so that a reply goes back to whoever
// asked. One endpoint, one thread.
class NCommandIPC : public ICommand {
public:
    NCommandIPC();
    NCommandIPC(const char* local, const char* remote);
    ~NCommandIPC() override;
    NCommandIPC(const NCommandIPC&) = delete;
    NCommandIPC& operator=(const NCommandIPC&) = delete;

    // Binds local (replacing a stale file there) and remembers remote; either
    // may be null. Returns the socket, or a negative value.
    int Connect(const char* local, const char* remote);

    // Sends the data and a terminating zero (length + 1 bytes) to the remote
    // address. Returns the byte count, or a negative value.
    int Send(const char* data, unsigned int length) override;
    int Send(const char* data, unsigned int length, const char* remote);
    // One datagram, cut to size - 1 bytes and zero-terminated; never blocks.
    int Recv(char* buffer, unsigned int size) override;
    // Positive when a datagram waits, 0 on time-out, -1 on error.
    int Wait(unsigned int seconds, unsigned int microseconds) override;

    int getNumData();
    int createSocket();
    void destroySocket();
    bool bind();

    int GetFD() const { return m_nSocket; }
    const char* GetLocalPath() const { return m_stLocalAddr.sun_path; }
    const char* GetRemotePath() const { return m_szRemotePath; }

private:
    void ClearAddresses();
    bool SetRemote(const char* remote);

    int m_nSocket;
    char m_szBoundPath[sizeof(sockaddr_un::sun_path)];
    struct sockaddr_un m_stLocalAddr;
    socklen_t m_nLocalAddrLen;
    struct sockaddr_un m_stRemoteAddr;
    socklen_t m_nRemoteAddrLen;
    // The remote path, always zero-terminated (a peer's path may fill all 108 bytes).
    char m_szRemotePath[sizeof(sockaddr_un::sun_path) + 1];
};

// The record of a System V event message: this layout is the wire format
// between modules.
enum { kEventTextSize = 4092 };
struct NEventMessage {
    long type;
    char text[kEventTextSize];
};

// Event endpoint on a System V queue. An owner (created with create = true)
// receives on its queue and removes it at the end; an opener sends to a queue
// another module owns and finds it again after that module re-created it.
// Send may be called from several threads at once.
class NEventMQ : public IEvent {
public:
    NEventMQ();
    NEventMQ(int key, bool create);
    ~NEventMQ() override;
    NEventMQ(const NEventMQ&) = delete;
    NEventMQ& operator=(const NEventMQ&) = delete;

    bool create(int key);
    bool connect(int key);
    void disconnect();
    int destroy();

    // Texts of kEventTextSize bytes or more are refused with -1.
    int Send(const char* text, unsigned int length) override;
    // A text of size bytes or more is consumed and dropped (-1).
    int Recv(char* buffer, unsigned int size) override;
    // The number of waiting messages; ignores the times and never blocks.
    int Wait(unsigned int seconds, unsigned int microseconds) override;

    int GetKey() const { return m_nKey; }
    int GetMQId();

private:
    void Release();

    int m_nKey;  // -1 when this endpoint owns its queue
    NSysVMsgQ m_queue;
    NEventMessage m_message;
    std::mutex m_lock;  // guards the queue and the message record
};

// Receive-only owner of a queue.
class NMQEventHandler : public IEvent {
public:
    explicit NMQEventHandler(int key);
    ~NMQEventHandler() override;
    NMQEventHandler(const NMQEventHandler&) = delete;
    NMQEventHandler& operator=(const NMQEventHandler&) = delete;

    int Recv(char* buffer, unsigned int size) override;
    int Wait(unsigned int seconds, unsigned int microseconds) override;

private:
    NSysVMsgQ m_queue;
    NEventMessage m_message;
    std::mutex m_lock;
};

// Send-only opener of another module's queue.
class NMQEventRaiser : public IEvent {
public:
    explicit NMQEventRaiser(int key);
    ~NMQEventRaiser() override = default;
    NMQEventRaiser(const NMQEventRaiser&) = delete;
    NMQEventRaiser& operator=(const NMQEventRaiser&) = delete;

    int Send(const char* text, unsigned int length) override;

private:
    int m_nKey;
    NSysVMsgQ m_queue;
    NEventMessage m_message;
    std::mutex m_lock;
};

// The same event to several modules' queues.
class NEventQueueList {
public:
    enum { kMaxQueues = 16 };

    NEventQueueList() = default;
    virtual ~NEventQueueList() = default;

    // Index of the new sender; 0 without registering when the list is full.
    int RegisterQueue(int key);
    // 1 when every queue took the text, else the last negative result.
    virtual int Send(const char* text, unsigned int length);
    int GetCount() const { return m_nCount; }

private:
    std::unique_ptr<NEventMQ> m_queues[kMaxQueues];
    int m_nCount = 0;
};

// Client of a Unix stream socket. Each message is a 4-byte length in host
// order followed by that many bytes.
class NUnixCommander : public ICommand {
public:
    NUnixCommander();
    ~NUnixCommander() override;
    NUnixCommander(const NUnixCommander&) = delete;
    NUnixCommander& operator=(const NUnixCommander&) = delete;

    // Returns the connected socket, or -1.
    virtual int connect(const char* path);
    void disconnect();

    int Send(const char* data, unsigned int length) override;
    // -1 when the announced length is not below size (the message stays unread);
    // 0 at the end of the stream, which closes the connection.
    int Recv(char* buffer, unsigned int size) override;
    int Wait(unsigned int seconds, unsigned int microseconds) override;
    // Waits for whatever comes in: data here, a new client on a listener.
    virtual int waitInbound(unsigned int seconds, unsigned int microseconds);

    int GetFD() const { return m_nSocket; }

protected:
    // Re-establishes the connection after a failed send.
    virtual bool reconnect();
    bool StorePath(const char* path);
    bool SendLength(unsigned int length);

    int m_nSocket;
    char m_szPath[sizeof(sockaddr_un::sun_path)];
};

// Server of a Unix stream socket: takes one client at a time as the current
// connection.
class NUnixCmdListener : public NUnixCommander {
public:
    NUnixCmdListener();
    ~NUnixCmdListener() override;

    // Creates the listening socket at path. Returns it, or -1.
    int connect(const char* path) override;
    // Makes the next waiting client the current connection; returns its socket or -1.
    int accept();
    int waitInbound(unsigned int seconds, unsigned int microseconds) override;

    int GetListenFD() const { return m_nListenSocket; }

protected:
    bool reconnect() override { return false; }

private:
    int m_nListenSocket;
};

// Datagram client that moves to a fresh local path (base + "0" or base + "1",
// alternately) when an answer is overdue, so a late answer to an earlier
// request is never taken for the answer to the next one.
class NTimedCommander : public ICommand {
public:
    NTimedCommander(const char* base_path, const char* remote, unsigned int time_limit);
    ~NTimedCommander() override = default;

    int Send(const char* data, unsigned int length) override;
    int Recv(char* buffer, unsigned int size) override;
    int Wait(unsigned int seconds, unsigned int microseconds) override;

    const char* GetLocalPath() const { return m_endpoint->GetLocalPath(); }

private:
    void SwitchLocalPath();

    std::unique_ptr<NCommandIPC> m_endpoint;
    char m_szBasePath[sizeof(sockaddr_un::sun_path)];
    char m_szRemotePath[sizeof(sockaddr_un::sun_path)];
    unsigned int m_nTimeLimit;
    long m_tLastSend;
    int m_nPathIndex;
};

#endif
