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

// The operations on a signal mask and the sending of signals, once for both
// kinds: Change is sigprocmask's or pthread_sigmask's part (it reports a
// failure under the operation's name), Deliver sends a signal, with a value
// when one is given, to a Target (a process or a thread). Block and Unblock
// report "EmptySet", "AddSet" or "BlockMultiple"/"UnblockMultiple".
template <typename Target,
          bool (*Change)(int how, const sigset_t* set, sigset_t* old, const char* operation),
          bool (*Deliver)(Target target, int signal, const union sigval* value,
                          const char* operation)>
class USignalMask : public USignal {
public:
    static bool Block(int signal) {
        sigset_t one;
        return EmptySet(one) && AddSet(one, signal) && BlockMultiple(one);
    }
    static bool Unblock(int signal) {
        sigset_t one;
        return EmptySet(one) && AddSet(one, signal) && UnblockMultiple(one);
    }
    static bool BlockAll() {
        sigset_t all;
        return FillSet(all) && BlockMultiple(all);
    }
    static bool BlockMultiple(const sigset_t& set) {
        return Change(SIG_BLOCK, &set, nullptr, "BlockMultiple");
    }
    static bool UnblockMultiple(const sigset_t& set) {
        return Change(SIG_UNBLOCK, &set, nullptr, "UnblockMultiple");
    }
    static bool GetSignalMask(sigset_t& set) {
        return Change(SIG_BLOCK, nullptr, &set, "GetSignalMask");
    }
    static bool SetSignalMask(const sigset_t& set) {
        return Change(SIG_SETMASK, &set, nullptr, "SetSignalMask");
    }
    static bool Send(Target target, int signal) { return Deliver(target, signal, nullptr, "Send"); }
    static bool SendEx(Target target, int signal, int value) {
        union sigval data;
        data.sival_int = value;
        return Deliver(target, signal, &data, "SendEx");
    }
};

// The system calls under the two masks.
namespace usignal {
bool ChangeProcessMask(int how, const sigset_t* set, sigset_t* old, const char* operation);
bool SendToProcess(pid_t pid, int signal, const union sigval* value, const char* operation);
bool ChangeThreadMask(int how, const sigset_t* set, sigset_t* old, const char* operation);
bool SendToThread(pthread_t thread, int signal, const union sigval* value, const char* operation);
}  // namespace usignal

// The process's signal mask; meant to be changed before any thread starts.
class UProcessSignal
    : public USignalMask<pid_t, usignal::ChangeProcessMask, usignal::SendToProcess> {
public:
    ~UProcessSignal() override;
};

// The calling thread's signal mask, and signals to one thread.
class UThreadSignal
    : public USignalMask<pthread_t, usignal::ChangeThreadMask, usignal::SendToThread> {
public:
    ~UThreadSignal() override;
};

#endif
