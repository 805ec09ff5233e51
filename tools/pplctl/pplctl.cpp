// pplctl: talks to a running pplcounter the way the recorder's modules do.
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "ConfigCheck.h"
#include "Doctor.h"
#include "NModuleInterface.h"
#include "OwnedFile.h"
#include "PPLConstants.h"
#include "PPLVersion.h"
#include "QueueAccess.h"
#include "SAttr.h"
#include "ServiceClient.h"
#include "ULog.h"

namespace {

enum Exit { kOk = 0, kRefused = 1, kUsage = 2, kNoService = 3, kSystem = 4 };

const char* const kUsageText =
    "usage: pplctl [options] COMMAND [ARGS]\n"
    "\n"
    "Commands:\n"
    "  status            connection state of the in and out cameras\n"
    "  reload            re-read the configuration (ppl_config_change)\n"
    "  reset             restart the cameras' counting (Enable=0 now, Enable=1 within 5 s)\n"
    "  clear             clear the cameras' counts\n"
    "  send 'TEXT'       send a raw command text, print the reply\n"
    "  events            print the service's events (queue 259) as they arrive; creates\n"
    "                    the queue when no module owns it, and refuses to read one that\n"
    "                    another module owns: each event read here would be taken from it\n"
    "  camera add N      send event=add_camera&ch=N on queue 601\n"
    "  camera del N      send event=del_camera&ch=N on queue 601\n"
    "  watch             show the status file every second (redrawn on a terminal,\n"
    "                    one snapshot after another otherwise)\n"
    "  check-config [FILE]  say what the service will do with a configuration file\n"
    "                    (default /opt/user/ZV318/INIT/ZV318System.ini) and list its\n"
    "                    problems; contacts neither the service nor a camera\n"
    "  doctor            check the deployment: the service runs and answers, its status\n"
    "                    file and queues, the configuration, each camera; one line per\n"
    "                    check (takes nothing off the queues)\n"
    "  queue-access MODE GROUP  give queue 601 this octal mode (with all of the owner's\n"
    "                    bits, e.g. 0770) and group (name or number): made so when\n"
    "                    missing, for the service to take; the start-up scripts run it\n"
    "                    before and after each start of the service (--seconds: how long\n"
    "                    another user's queue is waited out)\n"
    "\n"
    "Options:\n"
    "  --socket PATH     service command socket (default /tmp/SI_PPLCOUNTER)\n"
    "  --status PATH     status file (default /tmp/PPLCounter.ini)\n"
    "  --timeout MS      wait for a reply (default 3000)\n"
    "  --seconds N       end 'events' and 'watch' after N seconds; wait for\n"
    "                    'queue-access'\n"
    "  --take            let 'events' read queue 259 although another module owns it\n"
    "  --version         the release of pplctl\n"
    "  -h, --help        this text\n"
    "\n"
    "Exit status: 0 done, 1 the service answered reply=error (or another result),\n"
    "2 usage error, 3 no answer from the service, 4 system error. check-config:\n"
    "0 no problem, 1 problems found, 2 the file cannot be read. doctor: 0 every\n"
    "check passed, 1 otherwise. events: 1 when another module owns queue 259.\n"
    "queue-access: 1 when queue 601 is another user's.\n";

std::atomic<bool> g_interrupted(false);

void OnInterrupt(int) {
    g_interrupted = true;
}

struct Options {
    std::string socket_path = ppl::kCommandSocketPath;
    std::string status_path = ppl::kStatusIniPath;
    int timeout_ms = 3000;
    int seconds = 0;
    bool take = false;
    std::vector<std::string> args;
};

int Usage(const char* problem) {
    if (problem == nullptr) {
        fputs(kUsageText, stdout);
        return kOk;
    }
    fprintf(stderr, "pplctl: %s (pplctl --help shows the usage)\n", problem);
    return kUsage;
}

// Commands that take no argument refuse extra ones rather than ignore them.
bool ExtraArguments(const Options& o, size_t allowed) {
    if (o.args.size() <= allowed + 1)
        return false;
    Usage((o.args[0] + ": unexpected argument '" + o.args[allowed + 1] + "'").c_str());
    return true;
}

bool ParseNumber(const char* text, int* value) {
    char* end = nullptr;
    long v = strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < 0 || v > 1000000000)
        return false;
    *value = static_cast<int>(v);
    return true;
}

// Returns -1 when the options are fine, else the exit status.
int ParseOptions(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        bool has_value = i + 1 < argc;
        if (a == "-h" || a == "--help")
            return Usage(nullptr);
        if (a == "--version") {
            printf("pplctl %s\n", PPL_VERSION);
            return kOk;
        }
        if (a == "--take") {
            o->take = true;
            continue;
        }
        if (a == "--socket" && has_value) {
            o->socket_path = argv[++i];
        } else if (a == "--status" && has_value) {
            o->status_path = argv[++i];
        } else if (a == "--timeout" && has_value) {
            if (!ParseNumber(argv[++i], &o->timeout_ms))
                return Usage("--timeout needs milliseconds");
        } else if (a == "--seconds" && has_value) {
            if (!ParseNumber(argv[++i], &o->seconds))
                return Usage("--seconds needs a number");
        } else if (a.size() > 1 && a[0] == '-' && o->args.empty()) {
            return Usage(("unknown option " + a).c_str());
        } else {
            o->args.push_back(a);
        }
    }
    return o->args.empty() ? Usage("no command given") : -1;
}

// Sends one command and returns the reply text in *reply, or says on
// standard error why there is none.
int Exchange(const Options& o, const std::string& text, std::string* reply) {
    CommandResult result = SendCommand(o.socket_path, text, o.timeout_ms);
    switch (result.outcome) {
        case CommandResult::kReplied:
            *reply = result.reply;
            return kOk;
        case CommandResult::kNoSocket:
            fprintf(stderr, "pplctl: %s\n", result.error.c_str());
            return kSystem;
        case CommandResult::kNoService:
            fprintf(stderr, "pplctl: no service answers on %s: is pplcounter running?\n",
                    o.socket_path.c_str());
            return kNoService;
        default:
            fprintf(stderr,
                    "pplctl: no reply on %s within %d ms (the service serves ten commands a "
                    "second; try a longer --timeout)\n",
                    o.socket_path.c_str(), o.timeout_ms);
            return kNoService;
    }
}

int ResultOf(const std::string& reply) {
    return reply.compare(0, 13, "reply=success") == 0 ? kOk : kRefused;
}

int SimpleCommand(const Options& o, const std::string& text, const char* done,
                  const char* refused = "the service refused the command") {
    if (ExtraArguments(o, 0))
        return kUsage;
    std::string reply;
    int rc = Exchange(o, text, &reply);
    if (rc != kOk)
        return rc;
    if (ResultOf(reply) != kOk) {
        fprintf(stderr, "pplctl: %s (reply: %s)\n", refused, reply.c_str());
        return kRefused;
    }
    printf("%s\n", done);
    return kOk;
}

int Status(const Options& o) {
    if (ExtraArguments(o, 0))
        return kUsage;
    std::string reply;
    int rc = Exchange(o, "action=ppl_get_service_status", &reply);
    if (rc != kOk)
        return rc;
    SAttr parsed('=', "&", "&", nullptr);
    parsed.LoadMemory(reply.c_str());
    const char* in = parsed.GetKeyValue("in0");
    const char* out = parsed.GetKeyValue("out0");
    if (ResultOf(reply) != kOk || in == nullptr || out == nullptr) {
        fprintf(stderr, "pplctl: unexpected reply: %s\n", reply.c_str());
        return kRefused;
    }
    printf("in camera:  %s\nout camera: %s\n", in, out);
    return kOk;
}

int Send(const Options& o) {
    if (o.args.size() != 2)
        return Usage("send takes one command text, e.g. 'action=...'");
    std::string reply;
    int rc = Exchange(o, o.args[1], &reply);
    if (rc != kOk)
        return rc;
    printf("%s\n", reply.c_str());
    return ResultOf(reply);
}

bool TimeIsUp(const Options& o, time_t start) {
    return g_interrupted || (o.seconds > 0 && time(nullptr) - start >= o.seconds);
}

// Queue 259 belongs to the module that made it: each message read here is
// gone for that module. With no owner, pplctl makes the queue itself (and
// removes it at the end).
bool RefusesOwnedQueue(const Options& o, bool* owned) {
    *owned = msgget(ppl::kEventOutKey, IPC_CREAT | IPC_EXCL | 0777) >= 0;
    if (*owned || o.take)
        return false;
    msqid_ds ds;
    int id = msgget(ppl::kEventOutKey, 0);
    if (id < 0 || msgctl(id, IPC_STAT, &ds) != 0) {
        fprintf(stderr, "pplctl: cannot make or look at queue %d\n", ppl::kEventOutKey);
        return true;
    }
    fprintf(stderr,
            "pplctl: queue %d belongs to another module (made by user %u): each event read "
            "here is taken from it and that module never sees it; --take reads it anyway\n",
            ppl::kEventOutKey, static_cast<unsigned>(ds.msg_perm.cuid));
    return true;
}

int Events(const Options& o) {
    if (ExtraArguments(o, 0))
        return kUsage;
    bool owned = false;
    if (RefusesOwnedQueue(o, &owned))
        return kRefused;
    NEventMQ queue;
    if (owned ? !queue.create(ppl::kEventOutKey) : !queue.connect(ppl::kEventOutKey)) {
        fprintf(stderr, "pplctl: cannot open event queue %d\n", ppl::kEventOutKey);
        return kSystem;
    }
    fprintf(stderr, "pplctl: %s queue %d; Ctrl-C ends\n",
            owned ? "created" : "taking the events of", ppl::kEventOutKey);
    time_t start = time(nullptr);
    char text[4096];
    while (!TimeIsUp(o, start)) {
        if (queue.Wait(0, 0) > 0 && queue.Recv(text, sizeof(text)) > 0) {
            printf("%s\n", text);
            fflush(stdout);
            continue;
        }
        usleep(50000);
    }
    return kOk;
}

int Camera(const Options& o) {
    int ch = 0;
    if (o.args.size() != 3 || (o.args[1] != "add" && o.args[1] != "del") ||
        !ParseNumber(o.args[2].c_str(), &ch) || ch > 3) {
        return Usage("camera takes 'add N' or 'del N' with a channel 0 to 3");
    }
    std::string text = "event=" + o.args[1] + "_camera&ch=" + std::to_string(ch);
    NEventMQ queue(ppl::kEventInKey, false);
    if (queue.Send(text.c_str(), static_cast<unsigned int>(text.size())) < 0) {
        int err = errno;
        fprintf(stderr, "pplctl: cannot send on queue %d: %s\n", ppl::kEventInKey,
                err == ENOENT ? "is pplcounter running?" : UError::Text(err).c_str());
        return err == ENOENT ? kNoService : kRefused;
    }
    printf("sent %s\n", text.c_str());
    return kOk;
}

// The status file as the service writes it: a regular file of root's or of
// this user's, read without following a link, never a FIFO or a huge file,
// which anyone could have put in /tmp. Empty when it is none of those;
// *why then says what is there instead.
std::string ReadStatusFile(const std::string& path, std::string* why) {
    std::string text;
    for (uid_t owner : {geteuid(), static_cast<uid_t>(0)}) {
        OwnedFile::Read read =
            OwnedFile::LoadOwnedBy(owner, path, ppl::kStatusIniMaxBytes, &text, why);
        if (read == OwnedFile::Read::Ok || read == OwnedFile::Read::Missing)
            break;
    }
    return text;
}

// One snapshot of the status file; a missing file is waited for quietly.
void ShowStatus(const Options& o, bool terminal) {
    if (terminal)
        printf("\033[H\033[2J%s  (Ctrl-C ends)\n\n", o.status_path.c_str());
    else
        printf("--- %s\n", o.status_path.c_str());
    std::string why;
    SAttr status('=', "\r\n", "\n", nullptr);
    status.LoadMemory(ReadStatusFile(o.status_path, &why).c_str());
    if (status.GetSize() == 0)
        printf("(waiting for the status file%s)\n", why.empty() ? "" : (": " + why).c_str());
    for (const auto& kv : status.GetRawData())
        printf("%-22s %s\n", kv.first.c_str(), kv.second.c_str());
    fflush(stdout);
}

int Watch(const Options& o) {
    if (ExtraArguments(o, 0))
        return kUsage;
    bool terminal = isatty(STDOUT_FILENO) == 1;
    time_t start = time(nullptr);
    while (!TimeIsUp(o, start)) {
        ShowStatus(o, terminal);
        for (int i = 0; i < 10 && !TimeIsUp(o, start); ++i)
            usleep(100000);
    }
    return kOk;
}

int CheckConfigCommand(const Options& o) {
    if (ExtraArguments(o, 1))
        return kUsage;
    std::string path = o.args.size() > 1 ? o.args[1] : ppl::kSystemIniPath;
    ConfigReport report = CheckConfig(path);
    if (!report.readable) {
        fprintf(stderr, "pplctl: cannot read %s: %s\n", path.c_str(),
                report.why_unreadable.c_str());
        return 2;
    }
    printf("%s:\n", path.c_str());
    for (const auto& line : report.lines)
        printf("  %s\n", line.c_str());
    if (report.problems.empty()) {
        printf("No problems found.\n");
        return kOk;
    }
    printf("Problems:\n");
    for (const auto& line : report.problems)
        printf("  - %s\n", line.c_str());
    printf("%zu problem%s found.\n", report.problems.size(),
           report.problems.size() == 1 ? "" : "s");
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    int rc = ParseOptions(argc, argv, &o);
    if (rc >= 0)
        return rc;
    // The library's own diagnostics go to syslog only; pplctl says itself
    // what failed.
    USysLog::open("pplctl", false);
    signal(SIGINT, OnInterrupt);
    signal(SIGTERM, OnInterrupt);
    const std::string& cmd = o.args[0];
    if (cmd == "status")
        return Status(o);
    if (cmd == "reload") {
        return SimpleCommand(o, "action=ppl_config_change",
                             "reload requested; the service reads the configuration at its "
                             "next pass");
    }
    if (cmd == "reset") {
        return SimpleCommand(o, "action=ppl_reset_service&group=0",
                             "reset requested; the cameras get the enable request within 5 s");
    }
    if (cmd == "clear") {
        return SimpleCommand(o, "action=ppl_clear_counts&group=0",
                             "counts cleared: the cameras took the clear request",
                             "the counts were not cleared: group 0 lacks a camera or a camera "
                             "did not take the request (the service's log names it)");
    }
    if (cmd == "check-config")
        return CheckConfigCommand(o);
    if (cmd == "doctor") {
        if (ExtraArguments(o, 0))
            return kUsage;
        return RunDoctor({o.socket_path, o.status_path, ppl::kSystemIniPath});
    }
    if (cmd == "queue-access") {
        if (o.args.size() != 3)
            return Usage("queue-access takes a mode and a group");
        return QueueAccess(ppl::kEventInKey, o.args[1], o.args[2], o.seconds);
    }
    if (cmd == "send")
        return Send(o);
    if (cmd == "events")
        return Events(o);
    if (cmd == "camera")
        return Camera(o);
    if (cmd == "watch")
        return Watch(o);
    return Usage(("unknown command " + cmd).c_str());
}
