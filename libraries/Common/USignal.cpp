#include "USignal.h"

#include <errno.h>
#include <unistd.h>

#include <cstring>

#include "ULog.h"

#define REPORT(operation) USysLog::error(__FILE__, __LINE__, operation, errno)
#define REPORT_RESULT(operation, result) USysLog::error(__FILE__, __LINE__, operation, result)

namespace {

const int kLastStdSignal = 31;

struct timespec TimeOut(int seconds, int milliseconds) {
    struct timespec span;
    span.tv_sec = seconds + milliseconds / 1000;
    span.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
    return span;
}

bool SetAction(int signal, const struct sigaction& action, const char* operation) {
    if (sigaction(signal, &action, nullptr) == 0)
        return true;
    REPORT(operation);
    return false;
}

struct sigaction PlainAction(USignal::Handler handler) {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    return action;
}

}  // namespace

const char* USignal::m_sStdSignalCode[33] = {
    "ZERO",     "SIGHUP",  "SIGINT",    "SIGQUIT", "SIGILL",    "SIGTRAP",   "SIGABRT",
    "SIGBUS",   "SIGFPE",  "SIGKILL",   "SIGUSR1", "SIGSEGV",   "SIGUSR2",   "SIGPIPE",
    "SIGALRM",  "SIGTERM", "SIGSTKFLT", "SIGCHLD", "SIGCONT",   "SIGSTOP",   "SIGTSTP",
    "SIGTTIN",  "SIGTTOU", "SIGURG",    "SIGXCPU", "SIGXFSZ",   "SIGVTALRM", "SIGPROF",
    "SIGWINCH", "SIGIO",   "SIGPWR",    "SIGSYS",  "RT_SIGNAL",
};

USignal::~USignal() {}

const char* USignal::GetSignalString(int signal) {
    if (signal < 0)
        return m_sStdSignalCode[0];
    return m_sStdSignalCode[signal > kLastStdSignal ? kLastStdSignal + 1 : signal];
}

bool USignal::RegisterHandler(int signal, Handler handler) {
    return SetAction(signal, PlainAction(handler), "RegisterHandler");
}

bool USignal::RegisterHandlerEx(int signal, HandlerEx handler) {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    return SetAction(signal, action, "RegisterHandlerEx");
}

bool USignal::RegisterAll(Handler handler) {
    bool ok = true;
    for (int signal = 1; signal <= kLastStdSignal; ++signal) {
        if (IsNonBlockSignal(signal))
            continue;
        ok = RegisterHandler(signal, handler) && ok;
    }
    return ok;
}

bool USignal::UnregisterHandler(int signal) {
    return SetAction(signal, PlainAction(SIG_DFL), "UnregisterHandler");
}

bool USignal::IgnoreSignal(int signal) {
    return SetAction(signal, PlainAction(SIG_IGN), "IgnoreSignal");
}

bool USignal::QueryHandler(int signal, struct sigaction& action) {
    if (sigaction(signal, nullptr, &action) == 0)
        return true;
    REPORT("QueryHandler");
    return false;
}

// GCOVR_EXCL_START: tested in a child that ends by _exit, which writes no coverage counters
void USignal::DefaultSignalHandler(int signal) {
    USysLog::Write(USysLog::ERR, "Received Signal (%s)", GetSignalString(signal));
    USysLog::PrintStackTrace(0);
    _exit(1);
}
// GCOVR_EXCL_STOP

int USignal::WaitSignal() {
    sigset_t all;
    if (!FillSet(all))
        return -1;
    return WaitMultiple(all);
}

int USignal::WaitSignal(int seconds, int milliseconds) {
    sigset_t all;
    if (!FillSet(all))
        return -1;
    return WaitTimeoutEx(all, nullptr, seconds, milliseconds);
}

int USignal::WaitSingle(int signal) {
    sigset_t one;
    if (!EmptySet(one) || !AddSet(one, signal))
        return -1;
    return WaitMultiple(one);
}

int USignal::WaitMultiple(const sigset_t& set) {
    int signal = 0;
    int result = sigwait(&set, &signal);
    if (result == 0)
        return signal;
    REPORT_RESULT("WaitMultiple", result);
    return -1;
}

int USignal::WaitEx(const sigset_t& set, siginfo_t* info) {
    int signal = sigwaitinfo(&set, info);
    if (signal < 0)
        REPORT("WaitEx");
    return signal;
}

int USignal::WaitTimeoutEx(const sigset_t& set, siginfo_t* info, int seconds, int milliseconds) {
    struct timespec span = TimeOut(seconds, milliseconds);
    int signal = sigtimedwait(&set, info, &span);
    if (signal > 0)
        return signal;
    if (errno == EAGAIN)
        return 0;
    REPORT("WaitTimeoutEx");
    return -1;
}

int USignal::GetSignalEx(const sigset_t& set, siginfo_t* info) {
    return WaitTimeoutEx(set, info, 0, 0);
}

bool USignal::HasSignals() {
    sigset_t pending;
    if (sigpending(&pending) != 0) {
        REPORT("HasSignals");
        return false;
    }
    return !sigisemptyset(&pending);
}

bool USignal::EmptySet(sigset_t& set) {
    if (sigemptyset(&set) == 0)
        return true;
    REPORT("EmptySet");  // GCOVR_EXCL_LINE: fails only for a null set
    return false;        // GCOVR_EXCL_LINE
}

bool USignal::FillSet(sigset_t& set) {
    if (sigfillset(&set) == 0)
        return true;
    REPORT("FillSet");  // GCOVR_EXCL_LINE: fails only for a null set
    return false;       // GCOVR_EXCL_LINE
}

bool USignal::AddSet(sigset_t& set, int signal) {
    if (sigaddset(&set, signal) == 0)
        return true;
    REPORT("AddSet");
    return false;
}

bool USignal::DelSet(sigset_t& set, int signal) {
    if (sigdelset(&set, signal) == 0)
        return true;
    REPORT("DelSet");
    return false;
}

bool USignal::InSet(const sigset_t& set, int signal) {
    return sigismember(&set, signal) == 1;
}

bool USignal::SendToSelf(int signal) {
    if (raise(signal) == 0)
        return true;
    REPORT("SendToSelf");
    return false;
}

int USignal::GetMinUserSigNo() {
    return SIGRTMIN;
}

int USignal::GetMaxUserSigNo() {
    return SIGRTMAX;
}

bool USignal::IsNonBlockSignal(int signal) {
    return signal == 0 || signal == SIGKILL || signal == SIGSTOP;
}

namespace usignal {

bool ChangeProcessMask(int how, const sigset_t* set, sigset_t* old, const char* operation) {
    if (sigprocmask(how, set, old) == 0)
        return true;
    // GCOVR_EXCL_START: fails only for a bad "how", and callers pass constants
    REPORT(operation);
    return false;
    // GCOVR_EXCL_STOP
}

bool SendToProcess(pid_t pid, int signal, const union sigval* value, const char* operation) {
    if ((value == nullptr ? kill(pid, signal) : sigqueue(pid, signal, *value)) == 0)
        return true;
    REPORT(operation);
    return false;
}

bool ChangeThreadMask(int how, const sigset_t* set, sigset_t* old, const char* operation) {
    int result = pthread_sigmask(how, set, old);
    if (result == 0)
        return true;
    // GCOVR_EXCL_START: fails only for a bad "how", and callers pass constants
    REPORT_RESULT(operation, result);
    return false;
    // GCOVR_EXCL_STOP
}

bool SendToThread(pthread_t thread, int signal, const union sigval* value, const char* operation) {
    int result =
        value == nullptr ? pthread_kill(thread, signal) : pthread_sigqueue(thread, signal, *value);
    if (result == 0)
        return true;
    REPORT_RESULT(operation, result);
    return false;
}

}  // namespace usignal

UProcessSignal::~UProcessSignal() {}

UThreadSignal::~UThreadSignal() {}
