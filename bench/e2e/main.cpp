// End-to-end benchmark of the event path: a real pplcounter process in
// private namespaces, two simulated LAPI cameras, and a reader of queue 259,
// all timed on one monotonic clock. Beside the service, a minimal relay gets
// the same event messages and sends them to the same queue: its figures are
// the floor that the service's are compared with.
#include <fcntl.h>
#include <sys/msg.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Bench.h"
#include "Sandbox.h"

namespace pplbench {

namespace {

// Raises the byte capacity of new System V queues in this IPC namespace, so
// that the reader of a burst never makes the service drop an event.
bool RaiseQueueCapacity(long bytes) {
    int fd = open("/proc/sys/kernel/msgmnb", O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    std::string text = std::to_string(bytes);
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return ok;
}

bool ParseOptions(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--verbose") {
            o->verbose = true;
            continue;
        }
        if (i + 1 >= argc)
            return false;
        const char* v = argv[++i];
        if (a == "--service") {
            o->service = v;
        } else if (a == "--relay") {
            o->relay = v;
        } else if (a == "--runs") {
            o->runs = atoi(v);
        } else if (a == "--idle") {
            o->idle_seconds = atof(v);
        } else if (a == "--paced-events") {
            o->paced_events = atoi(v);
        } else if (a == "--paced-rate") {
            o->paced_rate = atoi(v);
        } else if (a == "--burst") {
            o->burst_events = atoi(v);
        } else if (a == "--step") {
            o->step_seconds = atof(v);
        } else if (a == "--max-rate") {
            int top = atoi(v);
            o->ladder.erase(std::remove_if(o->ladder.begin(), o->ladder.end(),
                                           [top](int r) { return r > top; }),
                            o->ladder.end());
        } else {
            return false;
        }
    }
    return !o->service.empty() && !o->relay.empty() && o->runs > 0 && o->paced_rate > 0;
}

int Main(int argc, char** argv) {
    Options opt;
    if (!ParseOptions(argc, argv, &opt)) {
        fprintf(stderr,
                "usage: %s --service PATH --relay PATH [--runs N] [--idle S] [--paced-events N]\n"
                "       [--paced-rate R] [--burst N] [--step S] [--max-rate R] [--verbose]\n",
                argv[0]);
        return 2;
    }
    // Opened before /tmp and /opt are covered, in case the build lives there.
    int service_fd = open(opt.service.c_str(), O_PATH);
    int relay_fd = open(opt.relay.c_str(), O_PATH);
    if (service_fd < 0 || relay_fd < 0) {
        perror("pplbench: open the service or the relay");
        return 1;
    }
    std::string why;
    if (!ppltest::EnterSandbox(&why)) {
        fprintf(stderr, "pplbench: %s\n", why.c_str());
        return 1;
    }
    if (!RaiseQueueCapacity(kQueueCapacity))
        fprintf(stderr,
                "pplbench: cannot raise the queue capacity (%s); a slow reader may make "
                "the service drop events\n",
                strerror(errno));
    prctl(PR_SET_TIMERSLACK, 1UL);
    signal(SIGPIPE, SIG_IGN);
    int queue = msgget(kQueueKey, IPC_CREAT | 0777);
    if (queue < 0) {
        perror("pplbench: msgget");
        return 1;
    }
    long size = FileSize(ExecPath(service_fd));
    long stripped = StrippedSize(ExecPath(service_fd));
    std::vector<RunResult> runs;
    for (int n = 1; n <= opt.runs; ++n) {
        RunResult r = RunOnce(opt, service_fd, relay_fd, queue);
        PrintRun(n, r);
        if (r.error.empty())
            runs.push_back(r);
    }
    if (runs.empty())
        return 1;
    PrintSummary(opt, runs, size, stripped);
    return 0;
}

}  // namespace

}  // namespace pplbench

int main(int argc, char** argv) {
    return pplbench::Main(argc, argv);
}
