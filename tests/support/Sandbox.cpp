#include "Sandbox.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "PPLSystemIni.h"

namespace ppltest {
namespace {

int g_build_dir_fd = -1;

// The build tree held open, so that it stays reachable after /tmp is covered.
int BuildDirFd() {
    if (g_build_dir_fd < 0)
        g_build_dir_fd = open(PPL_BINARY_DIR, O_PATH | O_DIRECTORY);
    return g_build_dir_fd;
}

std::string ErrnoText(const char* what) {
    return std::string(what) + ": " + strerror(errno);
}

bool WriteProcFile(const char* path, const std::string& text) {
    int fd = open(path, O_WRONLY);
    if (fd < 0)
        return false;
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return ok;
}

// Without root, a user namespace maps us to root so that mounts are allowed.
bool EnterUserNamespaceIfNeeded(std::string* why) {
    if (geteuid() == 0)
        return true;
    uid_t uid = geteuid();
    gid_t gid = getegid();
    if (unshare(CLONE_NEWUSER) != 0) {
        *why = ErrnoText("unshare(CLONE_NEWUSER)");
        return false;
    }
    WriteProcFile("/proc/self/setgroups", "deny");
    if (!WriteProcFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !WriteProcFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
        *why = "cannot write the user namespace id maps";
        return false;
    }
    return true;
}

bool BringLoopbackUp(std::string* why) {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        *why = ErrnoText("socket");
        return false;
    }
    struct ifreq ifr;
    std::memset(&ifr, 0, sizeof(ifr));
    std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
    if (ok) {
        ifr.ifr_flags |= IFF_UP | IFF_RUNNING;
        ok = ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    }
    if (!ok)
        *why = ErrnoText("bring lo up");
    close(s);
    return ok;
}

bool MountTmpfs(const char* onto, const char* mode, std::string* why) {
    std::string options = std::string("size=256m,mode=") + mode;
    if (mount("tmpfs", onto, "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
        *why = ErrnoText((std::string("mount tmpfs on ") + onto).c_str());
        return false;
    }
    return true;
}

// The same arguments preceded by the emulator command, for a test build
// made for another processor; empty for a native build.
std::vector<std::string> ThroughEmulator(const std::vector<std::string>& argv) {
    std::vector<std::string> words;
#ifdef PPL_TARGET_EMULATOR
    std::istringstream emulator(PPL_TARGET_EMULATOR);
    std::string word;
    while (emulator >> word)
        words.push_back(word);
    words.insert(words.end(), argv.begin(), argv.end());
#else
    (void)argv;
#endif
    return words;
}

// The environment for a child. A program started through /proc/self/fd (the
// build tree under a covered /tmp) finds its shared libraries there: the
// loader would look for $ORIGIN under the covered path.
std::vector<std::string> ChildEnvironment(const std::string& program) {
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        if (strncmp(*e, "LD_LIBRARY_PATH=", 16) != 0)
            env.push_back(*e);
    }
    const std::string fd_prefix = "/proc/self/fd/";
    if (program.compare(0, fd_prefix.size(), fd_prefix) == 0) {
        env.push_back("LD_LIBRARY_PATH=" + program.substr(0, program.rfind('/')));
    } else if (const char* old = getenv("LD_LIBRARY_PATH")) {
        env.push_back(std::string("LD_LIBRARY_PATH=") + old);
    }
    return env;
}

std::vector<char*> ExecArgs(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    return args;
}

// A handle opened before the new mount namespace still points into the old
// one, from which nothing can be bind-mounted: the build tree is opened again
// under the same number, before /tmp is covered.
void ReopenBuildTree() {
    int fd = open(PPL_BINARY_DIR, O_PATH | O_DIRECTORY);
    if (fd < 0 || g_build_dir_fd < 0 || dup2(fd, g_build_dir_fd) < 0) {
        if (fd >= 0)
            close(fd);
        return;
    }
    close(fd);
}

// A coverage build's programs add their counters at exit to files at the
// build tree's own path: where a fresh tmpfs now covers it, the tree is bound
// back in place, so that this process and every program it starts still
// reach them.
bool KeepBuildTreeInPlace(std::string* why) {
#ifdef PPL_COVERAGE_BUILD
    std::error_code error;
    if (std::filesystem::exists(PPL_BINARY_DIR, error))
        return true;
    if (!std::filesystem::create_directories(PPL_BINARY_DIR, error)) {
        *why = "mkdir " PPL_BINARY_DIR ": " + error.message();
        return false;
    }
    if (mount(BuiltFile(".").c_str(), PPL_BINARY_DIR, nullptr, MS_BIND, nullptr) != 0) {
        *why = ErrnoText("bind the build tree back at " PPL_BINARY_DIR);
        return false;
    }
#else
    (void)why;
#endif
    return true;
}

}  // namespace

bool EnterIpcNamespace(std::string* why) {
    if (!EnterUserNamespaceIfNeeded(why))
        return false;
    if (unshare(CLONE_NEWIPC) != 0) {
        *why = ErrnoText("unshare(CLONE_NEWIPC)");
        return false;
    }
    return true;
}

bool EnterSandbox(std::string* why) {
    BuildDirFd();
    if (!EnterUserNamespaceIfNeeded(why))
        return false;
    if (unshare(CLONE_NEWIPC | CLONE_NEWNS | CLONE_NEWNET) != 0) {
        *why = ErrnoText("unshare(ipc, mount, net)");
        return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        *why = ErrnoText("make mounts private");
        return false;
    }
    ReopenBuildTree();
    // /run holds the instance lock, which would otherwise be the host's.
    if (!MountTmpfs("/opt", "1777", why) || !MountTmpfs("/tmp", "1777", why) ||
        !MountTmpfs("/run", "0755", why) || !KeepBuildTreeInPlace(why))
        return false;
    // Keep the service's syslog lines off the host's logger (they are
    // copied to standard error anyway).
    if (access("/dev/log", F_OK) == 0)
        mount("/dev/null", "/dev/log", nullptr, MS_BIND, nullptr);
    std::error_code error;
    if (!std::filesystem::create_directories("/opt/user/ZV318/INIT", error)) {
        *why = "mkdir /opt/user/ZV318/INIT: " + error.message();
        return false;
    }
    return BringLoopbackUp(why);
}

std::vector<std::string> WithShim(const std::vector<std::string>& settings) {
    // The shim comes before a sanitizer's runtime, which would refuse that.
    const char* asan = getenv("ASAN_OPTIONS");
    std::vector<std::string> env = {
        "/usr/bin/env", "LD_PRELOAD=" + BuildTreeForChildren() + "/libpplshim.so",
        "ASAN_OPTIONS=" + std::string(asan != nullptr ? asan : "") + ":verify_asan_link_order=0"};
    env.insert(env.end(), settings.begin(), settings.end());
#ifdef PPL_TARGET_EMULATOR
    std::string list = env[1];
    for (size_t i = 2; i < env.size(); ++i)
        list += "," + env[i];
    env = {env[0], "QEMU_SET_ENV=" + list};
#endif
    return env;
}

bool NamespacesMayBeSkipped() {
    const char* allow = getenv("PPL_ALLOW_NO_NAMESPACES");
    return allow != nullptr && strcmp(allow, "1") == 0;
}

std::string BuiltFile(const std::string& relative) {
    if (BuildDirFd() < 0)
        return std::string(PPL_BINARY_DIR) + "/" + relative;
    return "/proc/self/fd/" + std::to_string(g_build_dir_fd) + "/" + relative;
}

std::string BuildTreeForChildren() {
    if (BuildDirFd() < 0)
        return PPL_BINARY_DIR;
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(g_build_dir_fd);
}

Child::~Child() {
    if (pid_ > 0 && !reaped_) {
        kill(pid_, SIGKILL);
        Wait(5000);
    }
}

bool Child::Start(const std::vector<std::string>& argv, const std::string& dir,
                  const std::vector<std::string>& wrapper) {
    static int serial = 0;
    std::string tag = std::to_string(getpid()) + "-" + std::to_string(++serial);
    out_path_ = dir + "/child-" + tag + ".out";
    err_path_ = dir + "/child-" + tag + ".err";
    std::vector<std::string> emulated = ThroughEmulator(argv);
    std::vector<std::string> wrapped = wrapper;
    if (!wrapper.empty()) {
        // The wrapper cannot fall back to the emulator itself.
        const std::vector<std::string>& program = emulated.empty() ? argv : emulated;
        wrapped.insert(wrapped.end(), program.begin(), program.end());
        emulated.clear();
    }
    std::vector<char*> args = ExecArgs(wrapper.empty() ? argv : wrapped);
    std::vector<char*> emulated_args = ExecArgs(emulated);
    std::vector<std::string> environment = ChildEnvironment(argv.empty() ? "" : argv[0]);
    std::vector<char*> envp = ExecArgs(environment);
    pid_ = fork();
    if (pid_ < 0)
        return false;
    if (pid_ == 0) {
        int out = open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out < 0 || err < 0)
            _exit(126);
        dup2(out, 1);
        dup2(err, 2);
        int devnull = open("/dev/null", O_RDONLY);
        if (devnull >= 0)
            dup2(devnull, 0);
        // The child starts with no signal blocked, whatever the test did.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execve(args[0], args.data(), envp.data());
        // A target program the kernel cannot start itself (no binfmt_misc
        // entry for the target processor) runs under the tests' emulator.
        if (errno == ENOEXEC && !emulated.empty())
            execve(emulated_args[0], emulated_args.data(), envp.data());
        _exit(127);
    }
    reaped_ = false;
    return true;
}

bool Child::Running() {
    if (pid_ <= 0 || reaped_)
        return false;
    int st = 0;
    pid_t r = waitpid(pid_, &st, WNOHANG);
    if (r == pid_) {
        status_ = st;
        reaped_ = true;
        return false;
    }
    return true;
}

bool Child::Signal(int sig) {
    return pid_ > 0 && !reaped_ && kill(pid_, sig) == 0;
}

bool Child::Wait(int timeout_ms) {
    return WaitFor(timeout_ms, [this] { return !Running(); });
}

std::string Child::Stdout() const {
    return ReadWholeFile(out_path_);
}
std::string Child::Stderr() const {
    return ReadWholeFile(err_path_);
}

TempDir::TempDir(const std::string& prefix) {
    std::string name = "/tmp/" + prefix + "XXXXXX";
    if (mkdtemp(&name[0]) == nullptr)
        throw std::runtime_error(ErrnoText(("mkdtemp " + name).c_str()));
    path_ = name;
}

// In-process: under ARM emulation a fork right after other threads ended can
// leave the child hung before it runs a program.
TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

int CountOf(const std::string& text, const std::string& part) {
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

std::string ReadWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool WriteWholeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

bool WaitFor(int timeout_ms, const std::function<bool()>& pred) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (true) {
        if (pred())
            return true;
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

bool LockIsHeld(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    bool held = fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0;
    if (fd >= 0)
        close(fd);
    return held;
}

std::map<std::string, std::string> StandardConfig(int in_port, int out_port) {
    std::stringstream stream;
    auto key = [&](const char* head, int n, const char* tail) {
        return ppl::ComposeKey(stream, head, n, tail);
    };
    std::map<std::string, std::string> keys = {
        {ppl::kKeyGroupCount, "1"},
        {ppl::kKeyEnable, "1"},
        {ppl::kKeyCameraKind, "LAPI"},
        {key(ppl::kInCameraHead, 0, ppl::kCameraSideTail), "0"},
        {key(ppl::kOutCameraHead, 0, ppl::kCameraSideTail), "1"},
        {key(ppl::kStayinHead, 0, ppl::kOverTail), "5"},
        {key(ppl::kStayinHead, 0, ppl::kUnderTail), "1"},
    };
    const char* const settings[ppl::kSettingsKeys] = {"1", "23:5:0", "60", "3", "0"};
    for (int k = 0; k < ppl::kSettingsKeys; ++k)
        keys[key(ppl::kSettingsHead, 0, ppl::kSettingsTails[k])] = settings[k];
    const int ports[] = {in_port, out_port};
    for (int camera = 0; camera < 2; ++camera) {
        const std::string values[ppl::kCameraKeys] = {"127.0.0.1", std::to_string(ports[camera]),
                                                      "admin", "secret"};
        for (int k = 0; k < ppl::kCameraKeys; ++k)
            keys[key(ppl::kCameraHead, camera, ppl::kCameraTails[k])] = values[k];
    }
    return keys;
}

std::string ConfigText(const std::map<std::string, std::string>& keys) {
    std::string text;
    for (const auto& kv : keys)
        text += kv.first + "=" + kv.second + "\r\n";
    return text;
}

}  // namespace ppltest
