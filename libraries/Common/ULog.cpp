#include "ULog.h"

#include <cxxabi.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

std::atomic<int> USysLog::m_tLastTime(0);
std::atomic<char> USysLog::m_bEnable(0);

// Opened before main so that every module of the process logs under its name.
USysLog gSysLog;

namespace {

const int kTextSize = 256;
const int kModuleSize = 128;
const int kMaxFrames = 80;
const int kDebugPriority = LOG_USER | LOG_DEBUG;

const char* ErrorText(int errnum, char* buffer, size_t size) {
    return strerror_r(errnum, buffer, size);
}

// The path the program was started with; its ".log" twin is the debug switch.
std::string InvocationPath() {
    std::string path;
    int fd = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        char buffer[4096];
        ssize_t got = read(fd, buffer, sizeof(buffer) - 1);
        close(fd);
        if (got > 0) {
            buffer[got] = '\0';
            path = buffer;
        }
    }
    if (path.empty() && program_invocation_name != nullptr)
        path = program_invocation_name;
    return path;
}

bool DebugSwitchedOn() {
    int now = static_cast<int>(time(nullptr));
    if (now > USysLog::m_tLastTime.load() + 5) {
        std::string path = InvocationPath() + ".log";
        struct stat attrs;
        USysLog::m_bEnable = stat(path.c_str(), &attrs) == 0 ? 1 : 0;
        USysLog::m_tLastTime = now;
    }
    return USysLog::m_bEnable.load() != 0;
}

}  // namespace

USysLog::USysLog() {
    open(program_invocation_short_name);
}

USysLog::~USysLog() {
    close();
}

// The identity must stay valid while the log is open, as syslog keeps the pointer.
void USysLog::open(const char* identity) {
    open(identity, true);
}

void USysLog::open(const char* identity, bool copy_to_stderr) {
    openlog(identity, LOG_PID | (copy_to_stderr ? LOG_PERROR : 0), LOG_USER);
}

void USysLog::close() {
    closelog();
}

void USysLog::Write(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(LOG_USER | level, format, args);
    va_end(args);
}

int USysLog::error(const char* file, int line, const char* function, int errnum) {
    if (errnum == 0)
        return 0;
    char message[kTextSize];
    Write(ERR, "%s(%d):%s()\t[%s(%d)] %s\n", file, line, function, UError::GetName(errnum), errnum,
          ErrorText(errnum, message, sizeof(message)));
    PrintStackTrace(2);
    // Keeps this frame on the stack while the trace is taken (no tail call).
    __asm__ __volatile__("" ::: "memory");
    return errnum;
}

int USysLog::error(const char* file, int line, const char* function, int errnum, const char* format,
                   ...) {
    char text[kTextSize] = {0};
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (errnum == 0)
        return 0;
    Write(ERR, "%s(%d):%s()\t[%s(%d)] %s\n", file, line, function, UError::GetName(errnum), errnum,
          text);
    PrintStackTrace(2);
    __asm__ __volatile__("" ::: "memory");
    return errnum;
}

void USysLog::error(const char* file, int line, const char* function, const char* format, ...) {
    char text[kTextSize] = {0};
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    Write(ERR, "%s(%d):%s()\t[%s]\n", file, line, function, text);
    PrintStackTrace(2);
    __asm__ __volatile__("" ::: "memory");
}

// The caller's format is spliced into the prefix on purpose: one syslog call
// formats prefix and arguments together.
void USysLog::debug(const char* file, int line, const char* function, const char* format, ...) {
    if (!DebugSwitchedOn())
        return;
    char spliced[kTextSize] = {0};
    snprintf(spliced, sizeof(spliced), "%s(%d):%s()\t\t%s", file, line, function, format);
    va_list args;
    va_start(args, format);
    vsyslog(kDebugPriority, spliced, args);
    va_end(args);
}

// Kept out of line so that exactly the logger's own frames can be skipped.
__attribute__((noinline)) void USysLog::PrintStackTrace(int skip) {
    void* frames[kMaxFrames];
    int count = backtrace(frames, kMaxFrames);
    char** lines = count > 0 ? backtrace_symbols(frames, count) : nullptr;
    if (lines == nullptr) {
        // GCOVR_EXCL_START: only when memory for the symbol lines runs out
        Write(ERR, "No Stack Trace.\n");
        return;
        // GCOVR_EXCL_STOP
    }
    Write(ERR, "Stack Trace:\n");
    for (int i = 0; i < count; ++i) {
        const char* symbol = lines[i];
        const char* open_paren = strchr(symbol, '(');
        const char* close_paren = strchr(symbol, ')');
        if (open_paren != nullptr && close_paren != nullptr && close_paren - open_paren > 1) {
            char name[kTextSize] = {0};
            snprintf(name, sizeof(name), "%.*s", static_cast<int>(close_paren - open_paren - 1),
                     open_paren + 1);
            char* plus = strchr(name, '+');
            if (plus != nullptr)
                *plus = '\0';
            char module[kModuleSize] = {0};
            snprintf(module, sizeof(module), "%.*s", static_cast<int>(open_paren - symbol), symbol);
            int status = -1;
            char* demangled = abi::__cxa_demangle(name, nullptr, nullptr, &status);
            if (demangled != nullptr && status == 0) {
                if (--skip < 0)
                    Write(ERR, "%s: %s%s\n", module, demangled, close_paren + 1);
                free(demangled);
                continue;
            }
            free(demangled);
        }
        Write(ERR, "%s\n", symbol);
    }
    free(lines);
}

const char* UError::sErrorCode[133] = {
    "SUCCESS",
    "EPERM",
    "ENOENT",
    "ESRCH",
    "EINTR",
    "EIO",
    "ENXIO",
    "E2BIG",
    "ENOEXEC",
    "EBADF",
    "ECHILD",
    "EAGAIN",
    "ENOMEM",
    "EACCES",
    "EFAULT",
    "ENOTBLK",
    "EBUSY",
    "EEXIST",
    "EXDEV",
    "ENODEV",
    "ENOTDIR",
    "EISDIR",
    "EINVAL",
    "ENFILE",
    "EMFILE",
    "ENOTTY",
    "ETXTBSY",
    "EFBIG",
    "ENOSPC",
    "ESPIPE",
    "EROFS",
    "EMLINK",
    "EPIPE",
    "EDOM",
    "ERANGE",
    "EDEADLK",
    "ENAMETOOLONG",
    "ENOLCK",
    "ENOSYS",
    "ENOTEMPTY",
    "ELOOP",
    "E41",
    "ENOMSG",
    "EIDRM",
    "ECHRNG",
    "EL2NSYNC",
    "EL3HLT",
    "EL3RST",
    "ELNRNG",
    "EUNATCH",
    "ENOCSI",
    "EL2HLT",
    "EBADE",
    "EBADR",
    "EXFULL",
    "ENOANO",
    "EBADRQC",
    "EBADSLT",
    "E58",
    "EBFONT",
    "ENOSTR",
    "ENODATA",
    "ETIME",
    "ENOSR",
    "ENONET",
    "ENOPKG",
    "EREMOTE",
    "ENOLINK",
    "EADV",
    "ESRMNT",
    "ECOMM",
    "EPROTO",
    "EMULTIHOP",
    "EDOTDOT",
    "EBADMSG",
    "EOVERFLOW",
    "ENOTUNIQ",
    "EBADFD",
    "EREMCHG",
    "ELIBACC",
    "ELIBBAD",
    "ELIBSCN",
    "ELIBMAX",
    "ELIBEXEC",
    "EILSEQ",
    "ERESTART",
    "ESTRPIPE",
    "EUSERS",
    "ENOTSOCK",
    "EDESTADDRREQ",
    "EMSGSIZE",
    "EPROTOTYPE",
    "ENOPROTOOPT",
    "EPROTONOSUPPORT",
    "ESOCKTNOSUPPORT",
    "EOPNOTSUPP",
    "EPFNOSUPPORT",
    "EAFNOSUPPORT",
    "EADDRINUSE",
    "EADDRNOTAVAIL",
    "ENETDOWN",
    "ENETUNREACH",
    "ENETRESET",
    "ECONNABORTED",
    "ECONNRESET",
    "ENOBUFS",
    "EISCONN",
    "ENOTCONN",
    "ESHUTDOWN",
    "ETOOMANYREFS",
    "ETIMEDOUT",
    "ECONNREFUSED",
    "EHOSTDOWN",
    "EHOSTUNREACH",
    "EALREADY",
    "EINPROGRESS",
    "ESTALE",
    "EUCLEAN",
    "ENOTNAM",
    "ENAVAIL",
    "EISNAM",
    "EREMOTEIO",
    "EDQUOT",
    "ENOMEDIUM",
    "EMEDIUMTYPE",
    "ECANCELED",
    "ENOKEY",
    "EKEYEXPIRED",
    "EKEYREVOKED",
    "EKEYREJECTED",
    "EOWNERDEAD",
    "ENOTRECOVERABLE",
    "ERFKILL",
};

const char* UError::GetName(int errnum) {
    if (errnum < 0 || errnum >= 133)
        return "UNKNOWN";
    return sErrorCode[errnum];
}

void UConsoleLog::write(const char* format, ...) {
    flockfile(stderr);
    fprintf(stderr, "%s[%d]: ", program_invocation_short_name, static_cast<int>(getpid()));
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fputc('\n', stderr);
    funlockfile(stderr);
}

int UConsoleLog::error(const char* file, int line, const char* function, int errnum) {
    if (errnum == 0)
        return 0;
    char message[kTextSize];
    return error(file, line, function, errnum, ErrorText(errnum, message, sizeof(message)));
}

int UConsoleLog::error(const char* file, int line, const char* function, int errnum,
                       const char* text) {
    if (errnum == 0)
        return 0;
    fprintf(stderr, "%s(%d):%s()\t\t[%s(%d)] %s\n", file, line, function, UError::GetName(errnum),
            errnum, text);
    return errnum;
}

std::string UError::Text(int errnum) {
    char buffer[128];
    return ErrorText(errnum, buffer, sizeof(buffer));
}
