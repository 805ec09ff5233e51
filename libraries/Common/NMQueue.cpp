#include "NMQueue.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstring>

#include "ULog.h"

namespace {

// Logs a failed call under its operation name, keeping errno for the caller.
void ReportFailure(const char* file, int line, const char* operation) {
    int err = errno;
    USysLog::error(file, line, operation, err);
    errno = err;
}

#define REPORT_FAILURE(operation) ReportFailure(__FILE__, __LINE__, operation)

const mqd_t kNoQueue = static_cast<mqd_t>(-1);

}  // namespace

bool NSysVMsgQ::create(int key) {
    m_nMQId = msgget(key, IPC_CREAT | 0777);
    if (m_nMQId >= 0)
        return true;
    REPORT_FAILURE("create");
    m_nMQId = msgget(key, 0777);
    return m_nMQId >= 0;
}

bool NSysVMsgQ::open(int key) {
    m_nMQId = msgget(key, 0777);
    if (m_nMQId >= 0)
        return true;
    REPORT_FAILURE("open");
    return false;
}

bool NSysVMsgQ::destroy() {
    if (msgctl(m_nMQId, IPC_RMID, nullptr) != 0) {
        REPORT_FAILURE("destroy");
        return false;
    }
    m_nMQId = -1;
    return true;
}

bool NSysVMsgQ::send(const void* message, size_t size, int flags) {
    if (msgsnd(m_nMQId, message, size, flags) == 0)
        return true;
    REPORT_FAILURE("send");
    return false;
}

int NSysVMsgQ::recv(void* message, size_t size, long type, int flags) {
    ssize_t got = msgrcv(m_nMQId, message, size, type, flags);
    if (got < 0)
        REPORT_FAILURE("recv");
    return static_cast<int>(got);
}

int NSysVMsgQ::getNumMessages() {
    struct msqid_ds ds;
    if (msgctl(m_nMQId, IPC_STAT, &ds) != 0) {
        REPORT_FAILURE("getNumMessages");
        return -1;
    }
    return static_cast<int>(ds.msg_qnum);
}

int NSysVMsgQ::getMsgBufferSize() {
    struct msqid_ds ds;
    if (msgctl(m_nMQId, IPC_STAT, &ds) != 0) {
        REPORT_FAILURE("getMsgBufferSize");
        return -1;
    }
    return static_cast<int>(ds.msg_qbytes);
}

NPosixMsgQ::~NPosixMsgQ() {
    close();
}

bool NPosixMsgQ::create(const char* name, long max_messages, long message_size) {
    close();
    if (std::strlen(name) >= sizeof(m_szName)) {
        errno = ENAMETOOLONG;
        REPORT_FAILURE("create");
        return false;
    }
    struct mq_attr attr;
    std::memset(&attr, 0, sizeof(attr));
    attr.mq_maxmsg = max_messages;
    attr.mq_msgsize = message_size;
    m_hQueue = mq_open(name, O_RDWR | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0666, &attr);
    if (m_hQueue == kNoQueue) {
        REPORT_FAILURE("create");
        return false;
    }
    std::strcpy(m_szName, name);
    return true;
}

bool NPosixMsgQ::open(const char* name) {
    close();
    if (std::strlen(name) >= sizeof(m_szName)) {
        errno = ENAMETOOLONG;
        REPORT_FAILURE("open");
        return false;
    }
    m_hQueue = mq_open(name, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (m_hQueue == kNoQueue) {
        REPORT_FAILURE("open");
        return false;
    }
    std::strcpy(m_szName, name);
    return true;
}

bool NPosixMsgQ::send(const char* data, size_t size, unsigned int priority) {
    if (mq_send(m_hQueue, data, size, priority) == 0)
        return true;
    REPORT_FAILURE("send");
    return false;
}

int NPosixMsgQ::recv(char* buffer, size_t size, unsigned int* priority) {
    ssize_t got = mq_receive(m_hQueue, buffer, size, priority);
    if (got < 0)
        REPORT_FAILURE("recv");
    return static_cast<int>(got);
}

void NPosixMsgQ::close() {
    if (m_hQueue != kNoQueue)
        mq_close(m_hQueue);
    m_hQueue = kNoQueue;
}

bool NPosixMsgQ::destroy() {
    close();
    if (m_szName[0] == '\0')
        return false;
    bool ok = mq_unlink(m_szName) == 0;
    if (!ok)
        REPORT_FAILURE("destroy");
    m_szName[0] = '\0';
    return ok;
}

bool NPosixMsgQ::getAttr(struct mq_attr& attr) {
    if (mq_getattr(m_hQueue, &attr) == 0)
        return true;
    REPORT_FAILURE("getAttr");
    return false;
}

int NPosixMsgQ::getNumMessages() {
    struct mq_attr attr;
    return getAttr(attr) ? static_cast<int>(attr.mq_curmsgs) : -1;
}

int NPosixMsgQ::getMsgBufferSize() {
    struct mq_attr attr;
    return getAttr(attr) ? static_cast<int>(attr.mq_msgsize) : -1;
}
