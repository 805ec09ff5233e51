// The tests' sandbox and standard configuration for the shell tests and the
// demo, so that they set up nothing of their own.
//
//   pplsandbox [--] COMMAND [ARG...]
//       Runs COMMAND in private IPC, mount and network namespaces with fresh
//       tmpfs on /tmp, /opt and /run, /opt/user/ZV318/INIT made and loopback up.
//       PPL_BUILD names the build tree (usable under the covered /tmp) and
//       LD_LIBRARY_PATH points there for the client libraries.
//   pplsandbox --config IN_PORT OUT_PORT [KEY=VALUE...]
//       Prints the standard configuration for LAPI cameras on loopback at
//       the two ports, with the given keys set or replaced.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Sandbox.h"

namespace {

const char kUsage[] =
    "usage: pplsandbox [--] COMMAND [ARG...]\n"
    "       pplsandbox --config IN_PORT OUT_PORT [KEY=VALUE...]\n";

int Usage() {
    fputs(kUsage, stderr);
    return 2;
}

bool ReadPort(const char* text, int* port) {
    char* end = nullptr;
    long value = strtol(text, &end, 10);
    if (end == text || *end != '\0' || value < 1 || value > 65535)
        return false;
    *port = static_cast<int>(value);
    return true;
}

int PrintConfig(int argc, char** argv) {
    int in_port = 0, out_port = 0;
    if (argc < 2 || !ReadPort(argv[0], &in_port) || !ReadPort(argv[1], &out_port))
        return Usage();
    auto keys = ppltest::StandardConfig(in_port, out_port);
    for (int i = 2; i < argc; ++i) {
        const char* eq = strchr(argv[i], '=');
        if (eq == nullptr || eq == argv[i]) {
            fprintf(stderr, "pplsandbox: not KEY=VALUE: %s\n", argv[i]);
            return 2;
        }
        keys[std::string(argv[i], static_cast<size_t>(eq - argv[i]))] = eq + 1;
    }
    fputs(ppltest::ConfigText(keys).c_str(), stdout);
    return fflush(stdout) == 0 ? 0 : 1;
}

// A command named by a path is found before /tmp is covered (a checkout may
// lie there): it is held open, inheritable so that a script's interpreter
// can open it again, and run through /proc/self/fd.
int RunInside(char** argv) {
    int held = -1;
    if (strchr(argv[0], '/') != nullptr && (held = open(argv[0], O_PATH)) < 0) {
        fprintf(stderr, "pplsandbox: cannot run %s: %s\n", argv[0], strerror(errno));
        return 127;
    }
    std::string why;
    if (!ppltest::EnterSandbox(&why)) {
        fprintf(stderr, "pplsandbox: no private namespaces: %s\n", why.c_str());
        return 1;
    }
    const std::string build = ppltest::BuildTreeForChildren();
    setenv("PPL_BUILD", build.c_str(), 1);
    setenv("LD_LIBRARY_PATH", build.c_str(), 1);
    const std::string program = held < 0 ? argv[0] : "/proc/self/fd/" + std::to_string(held);
    execvp(program.c_str(), argv);
    fprintf(stderr, "pplsandbox: cannot run %s: %s\n", argv[0], strerror(errno));
    return 127;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && strcmp(argv[1], "--config") == 0)
        return PrintConfig(argc - 2, argv + 2);
    int first = argc >= 2 && strcmp(argv[1], "--") == 0 ? 2 : 1;
    if (first >= argc || argv[first][0] == '-')
        return Usage();
    return RunInside(argv + first);
}
