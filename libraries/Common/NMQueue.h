#ifndef COMMON_NMQUEUE_H
#define COMMON_NMQUEUE_H

#include <mqueue.h>
#include <stddef.h>

// One System V message queue. Every failing call is logged with its operation
// name and errno; errno is left as the failing call set it.
class NSysVMsgQ {
public:
    NSysVMsgQ() = default;
    virtual ~NSysVMsgQ() = default;

    // Gets the queue, creating it if needed (permissions 0777).
    bool create(int key);
    // Gets an existing queue.
    bool open(int key);
    // A System V queue needs no closing.
    void close() {}
    // Removes the queue from the system.
    bool destroy();
    // Drops the identifier without touching the queue.
    void forget() { m_nMQId = -1; }

    // message points at a record that starts with a long type; size counts the
    // text bytes only.
    bool send(const void* message, size_t size, int flags);
    int recv(void* message, size_t size, long type, int flags);

    int getNumMessages();
    int getMsgBufferSize();
    int getMQId() const { return m_nMQId; }

private:
    int m_nMQId = -1;
};

// One POSIX message queue, opened non-blocking: callers poll.
class NPosixMsgQ {
public:
    NPosixMsgQ() = default;
    virtual ~NPosixMsgQ();
    NPosixMsgQ(const NPosixMsgQ&) = delete;
    NPosixMsgQ& operator=(const NPosixMsgQ&) = delete;

    // name begins with '/'. Creates the queue if missing (permissions 0666).
    bool create(const char* name, long max_messages, long message_size);
    bool open(const char* name);
    bool send(const char* data, size_t size, unsigned int priority);
    // Returns the byte count, or -1 (also when nothing is waiting).
    int recv(char* buffer, size_t size, unsigned int* priority);
    void close();
    // Closes and removes the name from the system.
    bool destroy();

    bool getAttr(struct mq_attr& attr);
    int getNumMessages();
    // The largest message the queue takes; recv needs a buffer of this size.
    int getMsgBufferSize();

private:
    mqd_t m_hQueue = static_cast<mqd_t>(-1);
    char m_szName[256] = {0};
};

#endif
