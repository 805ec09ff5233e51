// pplctl: talks to a running pplcounter the way the recorder's modules do.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "NModuleInterface.h"
#include "PPLConstants.h"
#include "SAttr.h"

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
    "                    the queue when no module owns it (an owner's events are taken)\n"
    "  camera add N      send event=add_camera&ch=N on queue 601\n"
    "  camera del N      send event=del_camera&ch=N on queue 601\n"
    "  watch             show the status file, refreshed every second\n"
    "\n"
    "Options:\n"
    "  --socket PATH     service command socket (default /tmp/SI_PPLCOUNTER)\n"
    "  --status PATH     status file (default /tmp/PPLCounter.ini)\n"
    "  --timeout MS      wait for a reply (default 3000)\n"
    "  --seconds N       end 'events' and 'watch' after N seconds\n"
    "  -h, --help        this text\n"
    "\n"
    "Exit status: 0 done, 1 the service answered reply=error (or another result),\n"
    "2 usage error, 3 no answer from the service, 4 system error.\n";

std::atomic<bool> g_interrupted(false);

void OnInterrupt(int) {
    g_interrupted = true;
}

struct Options {
    std::string socket_path = ppl::kCommandSocketPath;
    std::string status_path = ppl::kStatusIniPath;
    int timeout_ms = 3000;
    int seconds = 0;
    std::vector<std::string> args;
};

int Usage(const char* problem) {
    if (problem != nullptr)
        fprintf(stderr, "pplctl: %s\n\n", problem);
    fputs(kUsageText, problem != nullptr ? stderr : stdout);
    return problem != nullptr ? kUsage : kOk;
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

// Sends one command from a socket of our own (the service answers the
// sender's bound path) and returns the reply text, or "" without one.
int Exchange(const Options& o, const std::string& text, std::string* reply) {
    std::string local = "/tmp/pplctl-" + std::to_string(getpid());
    NCommandIPC client(local.c_str(), o.socket_path.c_str());
    if (client.GetFD() < 0) {
        fprintf(stderr, "pplctl: cannot create a socket at %s\n", local.c_str());
        return kSystem;
    }
    if (client.Send(text.c_str(), static_cast<unsigned int>(text.size())) < 0) {
        fprintf(stderr,
                "pplctl: cannot reach the service at %s: is pplcounter running? (start it, or "
                "give --socket)\n",
                o.socket_path.c_str());
        return kNoService;
    }
    if (client.Wait(o.timeout_ms / 1000, (o.timeout_ms % 1000) * 1000) <= 0) {
        fprintf(stderr,
                "pplctl: no reply within %d ms (the service serves ten commands a "
                "second; try a longer --timeout)\n",
                o.timeout_ms);
        return kNoService;
    }
    char buffer[16384] = {0};
    if (client.Recv(buffer, sizeof(buffer)) <= 0)
        return kNoService;
    *reply = buffer;
    return kOk;
}

int ResultOf(const std::string& reply) {
    return reply.compare(0, 13, "reply=success") == 0 ? kOk : kRefused;
}

int SimpleCommand(const Options& o, const std::string& text, const char* done) {
    std::string reply;
    int rc = Exchange(o, text, &reply);
    if (rc != kOk)
        return rc;
    if (ResultOf(reply) != kOk) {
        fprintf(stderr, "pplctl: the service refused: %s\n", reply.c_str());
        return kRefused;
    }
    printf("%s\n", done);
    return kOk;
}

int Status(const Options& o) {
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

int Events(const Options& o) {
    NEventMQ opened(ppl::kEventOutKey, false);
    bool owned = opened.GetMQId() < 0;
    NEventMQ created;
    if (owned && !created.create(ppl::kEventOutKey)) {
        fprintf(stderr, "pplctl: cannot create event queue %d\n", ppl::kEventOutKey);
        return kSystem;
    }
    NEventMQ& queue = owned ? created : opened;
    fprintf(stderr, "pplctl: %s queue %d; Ctrl-C ends\n", owned ? "created" : "reading",
            ppl::kEventOutKey);
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
        fprintf(stderr, "pplctl: cannot send on queue %d: is pplcounter running?\n",
                ppl::kEventInKey);
        return kNoService;
    }
    printf("sent %s\n", text.c_str());
    return kOk;
}

int Watch(const Options& o) {
    time_t start = time(nullptr);
    while (!TimeIsUp(o, start)) {
        SAttr status('=', "\r\n", "\n", nullptr);
        bool loaded = status.LoadFile(o.status_path.c_str());
        printf("\033[H\033[2J%s  (Ctrl-C ends)\n\n", o.status_path.c_str());
        if (!loaded)
            printf("(no status file yet: is pplcounter running?)\n");
        for (const auto& kv : status.GetRawData()) {
            printf("%-22s %s\n", kv.first.c_str(), kv.second.c_str());
        }
        fflush(stdout);
        for (int i = 0; i < 10 && !TimeIsUp(o, start); ++i)
            usleep(100000);
    }
    return kOk;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    int rc = ParseOptions(argc, argv, &o);
    if (rc >= 0)
        return rc;
    signal(SIGINT, OnInterrupt);
    signal(SIGTERM, OnInterrupt);
    const std::string& cmd = o.args[0];
    if (cmd == "status")
        return Status(o);
    if (cmd == "reload")
        return SimpleCommand(o, "action=ppl_config_change", "reload requested");
    if (cmd == "reset") {
        return SimpleCommand(o, "action=ppl_reset_service&group=0",
                             "cameras stopped; they start again within 5 s");
    }
    if (cmd == "clear")
        return SimpleCommand(o, "action=ppl_clear_counts&group=0", "counts cleared");
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
