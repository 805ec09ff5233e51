#ifndef PPL_TEST_SANDBOX_H
#define PPL_TEST_SANDBOX_H

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace ppltest {

// Moves the calling process, which must still be single-threaded, into
// private IPC, mount and network namespaces (with a user namespace when not
// root), mounts fresh tmpfs on /tmp, /opt and /run, creates /opt/user/ZV318/INIT
// and brings loopback up. The service's fixed paths and queue keys then
// belong to this process alone, and nothing is left behind when it ends.
// Returns false with a reason when the kernel does not allow it.
bool EnterSandbox(std::string* why);

// Only a private System V IPC namespace (for queue tests).
bool EnterIpcNamespace(std::string* why);

// The standard configuration of the tests: counting on, LAPI cameras, group
// 0 with in camera 0 and out camera 1 on loopback at the given ports
// (account admin/secret), stay-in limits 5 (over) and 1 (under), and the
// full settings (reset 23:5:0, report 60, sensitivity 3, no clearing).
std::map<std::string, std::string> StandardConfig(int in_port, int out_port);
// A configuration as the file holds it: "KEY=VALUE" lines ending in "\r\n".
std::string ConfigText(const std::map<std::string, std::string>& keys);

// A path to a file of the build tree that stays valid after /tmp was covered
// (the checkout may live under /tmp).
std::string BuiltFile(const std::string& relative);

// The build tree as a path the programs this process execs (and their
// children) can use after /tmp was covered: /proc/<pid>/fd/<handle>.
std::string BuildTreeForChildren();

// A wrapper for Child::Start that runs the program with the tests' shim
// (PreloadShim.cpp) preloaded and these NAME=VALUE settings in its
// environment; under the tests' emulator they are handed to the emulated
// program.
std::vector<std::string> WithShim(const std::vector<std::string>& settings);

// Tests that need private namespaces fail where the kernel refuses them,
// unless PPL_ALLOW_NO_NAMESPACES=1 explicitly allows skipping them
// (SandboxGTest.h turns that into a failed or skipped test).
bool NamespacesMayBeSkipped();

// A child process with standard output and error captured in files.
class Child {
public:
    Child() = default;
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Starts argv[0] (a path) with the arguments; output goes to files in dir.
    // A wrapper (a host program that execs the rest, such as setpriv) goes
    // first; a target program then runs through the tests' emulator.
    bool Start(const std::vector<std::string>& argv, const std::string& dir,
               const std::vector<std::string>& wrapper = {});
    bool Running();
    bool Signal(int sig);
    // Waits up to timeout_ms for the exit; returns false on time-out.
    bool Wait(int timeout_ms);
    int ExitStatus() const { return status_; }  // raw wait status
    std::string Stdout() const;
    std::string Stderr() const;
    pid_t Pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    int status_ = -1;
    bool reaped_ = false;
    std::string out_path_, err_path_;
};

// A fresh directory of its own under /tmp (as /tmp is when it is made: a
// sandbox's own once one was entered), removed with its contents when this
// ends. Throws when none can be made.
class TempDir {
public:
    explicit TempDir(const std::string& prefix = "ppl-test-");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& Path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// How often part stands in text.
int CountOf(const std::string& text, const std::string& part);

std::string ReadWholeFile(const std::string& path);
bool WriteWholeFile(const std::string& path, const std::string& text);
// Polls pred every 20 ms until it holds or timeout_ms passed.
bool WaitFor(int timeout_ms, const std::function<bool()>& pred);
// Whether another process holds an flock on the file at path (tried without
// waiting, never through a link).
bool LockIsHeld(const std::string& path);

}  // namespace ppltest

#endif
