#ifndef COMMON_NMODULEINTERFACE_H
#define COMMON_NMODULEINTERFACE_H

#include <sys/socket.h>
#include <sys/un.h>

#include <memory>
#include <mutex>

#include "NMQueue.h"

// Event endpoint: short texts between modules. The base versions fail (-1).
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
// asked. One endpoint, one thread: nothing in it is locked. Failing socket
// calls are reported on standard error ("NDGramIPC: ...", "NCommandIPC send
// error. ..."), never retried, and give a negative result or false.
class NCommandIPC : public ICommand {
public:
    // No socket and no addresses.
    NCommandIPC();
    // Connect(local, remote).
    NCommandIPC(const char* local, const char* remote);
    // As destroySocket.
    ~NCommandIPC() override;
    NCommandIPC(const NCommandIPC&) = delete;
    NCommandIPC& operator=(const NCommandIPC&) = delete;

    // A new socket bound to local (whatever file is there first is
    // unlinked), with remote as the peer; either may be null. Returns the
    // socket, or a negative value when none could be made; a path that does
    // not fit or a failed bind leaves the socket unbound.
    int Connect(const char* local, const char* remote);

    // Sends the data and a terminating zero (length + 1 bytes) to the peer
    // without blocking, making a socket first when there is none. Returns
    // the byte count, or a negative value.
    int Send(const char* data, unsigned int length) override;
    // Makes remote (when given) the peer first: a path that does not fit
    // leaves no peer, and the send fails.
    int Send(const char* data, unsigned int length, const char* remote);
    // One datagram, cut to size - 1 bytes and zero-terminated, its sender
    // made the peer; never blocks. Its length, or a negative value.
    int Recv(char* buffer, unsigned int size) override;
    // Positive when a datagram waits, 0 on time-out, -1 on error.
    int Wait(unsigned int seconds, unsigned int microseconds) override;

    // Bytes waiting on the socket, or -1.
    int getNumData();
    // Replaces the socket with a new unbound one; it, or a negative value.
    int createSocket();
    // Closes the socket and unlinks the path it bound, if any.
    void destroySocket();
    // Binds the stored local address again; false when it fails.
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
// One lock guards the queue and the message record, so every operation may
// be called from any thread, Send from several at once. Failing queue calls
// are logged through USysLog and give false or -1; nothing blocks.
class NEventMQ : public IEvent {
public:
    // No queue: every operation fails until create or connect.
    NEventMQ();
    // create true: creates (or takes) the queue of key and owns it; false:
    // opens another module's queue of key.
    NEventMQ(int key, bool create);
    // An owner removes its queue from the system; an opener leaves it.
    ~NEventMQ() override;
    NEventMQ(const NEventMQ&) = delete;
    NEventMQ& operator=(const NEventMQ&) = delete;

    // Removes the queue held, then creates the queue of key and owns it.
    bool create(int key);
    // Lets go of the queue held (removing it when owned), then opens the
    // queue of key as an opener.
    bool connect(int key);
    // Lets go of the queue held: removed when owned, forgotten when opened.
    void disconnect();
    // Removes the queue held from the system: 0, or -1 when there is none
    // or the removal failed.
    int destroy();

    // Sends a text as one type-1 message without waiting: its length, or -1
    // when the queue is full or gone (an opener opens the key again and
    // tries once more), or for texts of kEventTextSize bytes or more.
    int Send(const char* text, unsigned int length) override;
    // Takes one message without waiting, zero-terminated into buffer: its
    // length, or -1 when none waits. A text of size bytes or more is taken
    // and dropped (-1).
    int Recv(char* buffer, unsigned int size) override;
    // The number of waiting messages; ignores the times and never blocks.
    int Wait(unsigned int seconds, unsigned int microseconds) override;

    // The key opened, or -1 for an owner.
    int GetKey() const { return m_nKey; }
    // The queue's identifier, or -1.
    int GetMQId();

private:
    void Release();

    int m_nKey;  // -1 when this endpoint owns its queue
    NSysVMsgQ m_queue;
    NEventMessage m_message;
    std::mutex m_lock;  // guards the queue and the message record
};

// Receive-only owner of a queue: NEventMQ's Recv and Wait, any thread.
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

// Send-only opener of another module's queue: NEventMQ's Send, any thread.
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

// The same event to several modules' queues. One thread at a time.
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
// order followed by that many bytes. One endpoint, one thread; failing calls
// are reported on standard error and give -1.
class NUnixCommander : public ICommand {
public:
    NUnixCommander();
    // As disconnect.
    ~NUnixCommander() override;
    NUnixCommander(const NUnixCommander&) = delete;
    NUnixCommander& operator=(const NUnixCommander&) = delete;

    // Connects to the listener at path (remembered for a reconnect);
    // returns the connected socket, or -1.
    virtual int connect(const char* path);
    // Closes the connection.
    void disconnect();

    // Sends the length and the data without blocking; a peer that went away
    // gets one new connection and a second try. The bytes sent, or -1.
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
// connection. One endpoint, one thread.
class NUnixCmdListener : public NUnixCommander {
public:
    NUnixCmdListener();
    // Closes both sockets and unlinks the path.
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
// request is never taken for the answer to the next one. One thread.
class NTimedCommander : public ICommand {
public:
    // Bound to base_path + "0", with remote as its peer; time_limit in seconds.
    NTimedCommander(const char* base_path, const char* remote, unsigned int time_limit);
    ~NTimedCommander() override = default;

    // As NCommandIPC's, noting when the request went out.
    int Send(const char* data, unsigned int length) override;
    int Recv(char* buffer, unsigned int size) override;
    // As NCommandIPC's; a wait that times out within time_limit seconds of
    // the last Send moves the endpoint to the other local path.
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
