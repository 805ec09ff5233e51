#ifndef COMMON_ULOG_H
#define COMMON_ULOG_H

#include <atomic>
#include <ctime>
#include <string>

// Process-wide system-log writer: syslog (facility user, with the pid, copied
// to standard error). Errors of system calls carry file, line, function, the
// symbolic errno name, the number and the system's text, then a stack trace.
class USysLog {
public:
    enum Level {
        EMERG = 0,
        ALERT = 1,
        CRIT = 2,
        ERR = 3,
        WARNING = 4,
        NOTICE = 5,
        INFO = 6,
        DEBUG = 7
    };

    USysLog();
    virtual ~USysLog();

    static void open(const char* identity);
    // As open, choosing whether lines are also copied to standard error (a
    // tool with messages of its own keeps them off its output).
    static void open(const char* identity, bool copy_to_stderr);
    static void close();
    static void Write(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static int error(const char* file, int line, const char* function, int errnum);
    static int error(const char* file, int line, const char* function, int errnum,
                     const char* format, ...) __attribute__((format(printf, 5, 6)));
    static void error(const char* file, int line, const char* function, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    static void debug(const char* file, int line, const char* function, const char* format, ...);
    static void PrintStackTrace(int skip);

    // Any thread may log, so the probe state is shared: atomics of the same
    // width keep it race-free without a lock.
    static std::atomic<int> m_tLastTime;  // seconds of the last debug switch-file probe
    static std::atomic<char> m_bEnable;   // 1 while debug output is switched on
};

extern USysLog gSysLog;

// Symbolic errno names: 0 "SUCCESS", 1..132 the Linux names, 41 and 58 "E41"
// and "E58"; 133 and above "UNKNOWN".
class UError {
public:
    virtual ~UError() = default;
    static const char* sErrorCode[133];
    static const char* GetName(int errnum);
    // The system's message for an errno, thread-safe (not strerror).
    static std::string Text(int errnum);
};

// Console-only twin of USysLog's error lines; the service does not use it.
class UConsoleLog {
public:
    virtual ~UConsoleLog() = default;
    static void write(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static int error(const char* file, int line, const char* function, int errnum);
    static int error(const char* file, int line, const char* function, int errnum,
                     const char* text);
};

// Report a failed system call with the caller's place.
#define SYSLOG_ERRNO(err) USysLog::error(__FILE__, __LINE__, __FUNCTION__, (err))

#endif
