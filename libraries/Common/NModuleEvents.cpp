// The System V event transport of NModuleInterface.h: the IEvent base, the
// NEventMQ endpoint, its receive-only and send-only halves and the list of
// senders.
#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstring>

#include "NModuleInterface.h"
#include "ULog.h"

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
