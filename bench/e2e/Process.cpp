// The benchmark's processes, files and clocks.
#include <fcntl.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Bench.h"
#include "Sandbox.h"

namespace pplbench {

std::string ExecPath(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

pid_t Spawn(int exe_fd, const std::vector<std::string>& argv, const std::string& out,
            const std::string& err) {
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::string path = ExecPath(exe_fd);
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int in = open("/dev/null", O_RDONLY);
    if (o < 0 || e < 0 || in < 0)
        _exit(126);
    dup2(in, 0);
    dup2(o, 1);
    dup2(e, 2);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(path.c_str(), args.data());
    _exit(127);
}

void Reap(pid_t pid, int sig, int timeout_ms) {
    if (pid <= 0)
        return;
    kill(pid, sig);
    for (int waited = 0; waited < timeout_ms; waited += 10) {
        if (waitpid(pid, nullptr, WNOHANG) == pid)
            return;
        usleep(10000);
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

long FileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

// Size of a stripped copy, -1 when strip is not at hand.
long StrippedSize(const std::string& path) {
    const char* copy = "/tmp/pplcounter.stripped";
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 2);
        execlp("strip", "strip", "-o", copy, path.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    long size = WIFEXITED(status) && WEXITSTATUS(status) == 0 ? FileSize(copy) : -1;
    unlink(copy);
    return size;
}

// The tests' standard configuration with limits out of reach: every event
// gives exactly one count event.
void WriteConfig() {
    std::map<std::string, std::string> keys = ppltest::StandardConfig(kInPort, kOutPort);
    keys["SERV_PPL_STAYIN_0_OVER"] = "1000000000";
    keys["SERV_PPL_STAYIN_0_UNDER"] = "-1000000000";
    std::ofstream("/opt/user/ZV318/INIT/ZV318System.ini", std::ios::trunc)
        << ppltest::ConfigText(keys);
}

void DrainQueue(int queue) {
    struct {
        long type;
        char text[4096];
    } msg;
    while (msgrcv(queue, &msg, sizeof(msg.text), 0, IPC_NOWAIT | MSG_NOERROR) >= 0) {
    }
}

void SleepSeconds(double s) {
    std::this_thread::sleep_for(std::chrono::microseconds(static_cast<long>(s * 1e6)));
}

void SleepUntil(uint64_t ns) {
    timespec ts = {static_cast<time_t>(ns / 1000000000u), static_cast<long>(ns % 1000000000u)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

}  // namespace pplbench
