#ifndef COMMON_NTEXTCOMMAND_H
#define COMMON_NTEXTCOMMAND_H

#include <cstdarg>

#include "NModuleInterface.h"
#include "SAttr.h"

// Text commands and replies over a datagram endpoint. A command is one
// datagram of "key=value" pairs joined by "&"; it is parsed into the attribute
// store on receipt. A reply begins with "reply=" and a result word and goes to
// the sender of the command just received.
class NTextCommand : public NCommandIPC, public SAttr {
public:
    enum RESULT { SUCCESS = 0, ERROR = 1, UNSUPPORT = 2, TIMEOUT = 3, BUSY = 4, HEARTBEAT = 5 };
    enum { kBufferSize = 16384 };

    static const char* const m_sResults[6];

    NTextCommand();
    NTextCommand(const char* local, const char* remote);
    ~NTextCommand() override = default;

    // Receives one datagram into the receive buffer and parses it; returns the
    // receive result (byte count, or negative).
    int RecvBuffer();
    const char* GetCommand() const { return m_szRecvBuffer; }
    const char* GetRecvBuffer() const { return m_szRecvBuffer; }
    const char* GetSendBuffer() const { return m_szSendBuffer; }

    // Compose the result text and the formatted rest; log and send. True when
    // the datagram went out.
    bool Reply(RESULT result, const char* format, ...) __attribute__((format(printf, 3, 4)));
    bool Reply(RESULT result);
    void SetReply(RESULT result);
    void SetReply(RESULT result, const char* format, ...) __attribute__((format(printf, 3, 4)));
    bool SendReply();
    int SendBuffer();

    // Commands are composed exactly as replies, result text included.
    void SetCommand(RESULT result, const char* format, ...) __attribute__((format(printf, 3, 4)));
    int SendCommand(RESULT result, const char* format, ...) __attribute__((format(printf, 3, 4)));

    // The result word of a received reply; a missing or unknown word is ERROR.
    RESULT GetResult();

private:
    void Compose(RESULT result, const char* format, va_list args);
    void LogReply();

    char m_szRecvBuffer[kBufferSize];
    char m_szSendBuffer[kBufferSize];
};

#endif
