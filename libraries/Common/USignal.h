#ifndef COMMON_USIGNAL_H
#define COMMON_USIGNAL_H

#include <pthread.h>
#include <signal.h>
#include <sys/types.h>

// Signal sets, actions and synchronous waiting. Failing calls are logged
// through USysLog and give false or -1.
class USignal {
public:
    typedef void (*Handler)(int);
    typedef void (*HandlerEx)(int, siginfo_t*, void*);

    virtual ~USignal();

    // Names by signal number; 32 and above share "RT_SIGNAL".
    static const char* m_sStdSignalCode[33];
    static const char* GetSignalString(int signal);

    static bool RegisterHandler(int signal, Handler handler);
    static bool RegisterHandlerEx(int signal, HandlerEx handler);
    // Installs handler for every signal that can be caught.
    static bool RegisterAll(Handler handler);
    static bool UnregisterHandler(int signal);
    static bool IgnoreSignal(int signal);
    static bool QueryHandler(int signal, struct sigaction& action);
    // Logs the signal and a stack trace, then ends the process with status 1.
    static void DefaultSignalHandler(int signal);

    // Takes one pending signal of the full set: blocks until one arrives, or
    // waits at most seconds plus milliseconds. The signal number, 0 on
    // time-out, -1 on failure.
    static int WaitSignal();
    static int WaitSignal(int seconds, int milliseconds);
    static int WaitSingle(int signal);
    static int WaitMultiple(const sigset_t& set);
    static int WaitEx(const sigset_t& set, siginfo_t* info);
    static int WaitTimeoutEx(const sigset_t& set, siginfo_t* info, int seconds, int milliseconds);
    // Takes one pending signal of set without waiting; 0 if none is pending.
    static int GetSignalEx(const sigset_t& set, siginfo_t* info);
    // Whether any signal is pending for the caller.
    static bool HasSignals();

    static bool EmptySet(sigset_t& set);
    static bool FillSet(sigset_t& set);
    static bool AddSet(sigset_t& set, int signal);
    static bool DelSet(sigset_t& set, int signal);
    static bool InSet(const sigset_t& set, int signal);
    static bool SendToSelf(int signal);
    static int GetMinUserSigNo();
    static int GetMaxUserSigNo();
    // Signals that can be neither caught nor blocked (and the null signal).
    static bool IsNonBlockSignal(int signal);
};

// The process's signal mask; meant to be changed before any thread starts.
class UProcessSignal : public USignal {
public:
    virtual ~UProcessSignal();

    static bool Block(int signal);
    static bool Unblock(int signal);
    static bool BlockAll();
    static bool BlockMultiple(const sigset_t& set);
    static bool UnblockMultiple(const sigset_t& set);
    static bool GetSignalMask(sigset_t& set);
    static bool SetSignalMask(const sigset_t& set);
    static bool Send(pid_t pid, int signal);
    static bool SendEx(pid_t pid, int signal, int value);
};

// The calling thread's signal mask.
class UThreadSignal : public USignal {
public:
    virtual ~UThreadSignal();

    static bool Block(int signal);
    static bool Unblock(int signal);
    static bool BlockAll();
    static bool BlockMultiple(const sigset_t& set);
    static bool UnblockMultiple(const sigset_t& set);
    static bool GetSignalMask(sigset_t& set);
    static bool SetSignalMask(const sigset_t& set);
    static bool Send(pthread_t thread, int signal);
    static bool SendEx(pthread_t thread, int signal, int value);
};

#endif
