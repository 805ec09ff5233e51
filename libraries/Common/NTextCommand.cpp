#include "NTextCommand.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "ULog.h"

const char* const NTextCommand::m_sResults[6] = {
    "reply=success", "reply=error", "reply=unsupport",
    "reply=timeout", "reply=busy",  "reply=heartbeat",
};

namespace {

const char* const kResultWords[6] = {"success", "error", "unsupport",
                                     "timeout", "busy",  "heartbeat"};

}  // namespace

NTextCommand::NTextCommand() : SAttr('=', "&", "&", nullptr) {
    m_szRecvBuffer[0] = '\0';
    m_szSendBuffer[0] = '\0';
}

NTextCommand::NTextCommand(const char* local, const char* remote)
    : NCommandIPC(local, remote), SAttr('=', "&", "&", nullptr) {
    m_szRecvBuffer[0] = '\0';
    m_szSendBuffer[0] = '\0';
}

int NTextCommand::RecvBuffer() {
    int got = NCommandIPC::Recv(m_szRecvBuffer, sizeof(m_szRecvBuffer));
    m_szSendBuffer[0] = '\0';
    Clear();
    // The store parses a copy: the raw command text stays as received.
    LoadMemory(static_cast<const char*>(m_szRecvBuffer));
    return got;
}

void NTextCommand::Compose(RESULT result, const char* format, va_list args) {
    int used = snprintf(m_szSendBuffer, sizeof(m_szSendBuffer), "%s", m_sResults[result]);
    if (format == nullptr || used < 0 || static_cast<size_t>(used) >= sizeof(m_szSendBuffer) - 1)
        return;
    vsnprintf(m_szSendBuffer + used, sizeof(m_szSendBuffer) - used, format, args);
}

void NTextCommand::LogReply() {
    // Heartbeats come often and say nothing; only they stay out of the log.
    if (m_szSendBuffer[0] != '\0' && std::strcmp(m_szSendBuffer, m_sResults[HEARTBEAT]) != 0)
        USysLog::Write(USysLog::INFO, "reply: %s", m_szSendBuffer);
}

bool NTextCommand::Reply(RESULT result, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Compose(result, format, args);
    va_end(args);
    return SendReply();
}

bool NTextCommand::Reply(RESULT result) {
    SetReply(result);
    return SendReply();
}

void NTextCommand::SetReply(RESULT result) {
    snprintf(m_szSendBuffer, sizeof(m_szSendBuffer), "%s", m_sResults[result]);
}

void NTextCommand::SetReply(RESULT result, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Compose(result, format, args);
    va_end(args);
}

bool NTextCommand::SendReply() {
    LogReply();
    return SendBuffer() > 0;
}

int NTextCommand::SendBuffer() {
    return NCommandIPC::Send(m_szSendBuffer,
                             static_cast<unsigned int>(std::strlen(m_szSendBuffer)));
}

void NTextCommand::SetCommand(RESULT result, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Compose(result, format, args);
    va_end(args);
}

int NTextCommand::SendCommand(RESULT result, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Compose(result, format, args);
    va_end(args);
    return SendBuffer();
}

NTextCommand::RESULT NTextCommand::GetResult() {
    const char* word = GetKeyValue("reply");
    if (word == nullptr)
        return ERROR;
    for (int r = SUCCESS; r <= HEARTBEAT; ++r) {
        if (std::strcmp(word, kResultWords[r]) == 0)
            return static_cast<RESULT>(r);
    }
    return ERROR;
}
