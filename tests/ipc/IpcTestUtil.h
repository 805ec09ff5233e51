#ifndef PPL_IPC_TEST_UTIL_H
#define PPL_IPC_TEST_UTIL_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

#include "Sandbox.h"

namespace ipctest {

#define ENTER_IPC_NAMESPACE_OR_SKIP()             \
    do {                                          \
        std::string why_;                         \
        if (!::ppltest::EnterIpcNamespace(&why_)) \
            GTEST_SKIP() << why_;                 \
    } while (0)

// Runs body in a forked child whose exit code is body's result.
inline pid_t Spawn(const std::function<int()>& body) {
    pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    return pid;
}

inline int Reap(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A private directory for socket files, removed with its contents.
class TempDir {
public:
    TempDir() {
        char templ[] = "/tmp/ppl-ipc-XXXXXX";
        if (mkdtemp(templ) != nullptr)
            path_ = templ;
    }
    virtual ~TempDir() {
        std::error_code ignored;
        if (!path_.empty())
            std::filesystem::remove_all(path_, ignored);
    }
    std::string Path(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

}  // namespace ipctest

#endif
