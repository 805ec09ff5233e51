// camsim: plays people-counting cameras on loopback until its time is up or
// it receives SIGINT or SIGTERM.

#include <signal.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "CameraSim.h"
#include "PPLVersion.h"

namespace {

struct Options {
    std::vector<std::pair<std::string, int>> cameras;  // kind, port
    std::string bind = "127.0.0.1";
    double rate = 6;
    uint32_t seed = 1;
    long seconds = 0;
    int start_in = 0;
    int start_out = 0;
    camsim::Subscribe subscribe = camsim::Subscribe::Ok;
    bool verbose = false;
};

const std::map<std::string, camsim::Subscribe>& SubscribeModes() {
    static const std::map<std::string, camsim::Subscribe> modes = {
        {"ok", camsim::Subscribe::Ok},
        {"401", camsim::Subscribe::Unauthorized},
        {"nobody", camsim::Subscribe::OkWithoutBody},
        {"zerolength", camsim::Subscribe::OkZeroLength},
        {"shortbody", camsim::Subscribe::OkShortBody},
        {"hugebody", camsim::Subscribe::OkHugeBody},
        {"longline", camsim::Subscribe::LongHeaderLine},
        {"midhead", camsim::Subscribe::CloseMidHead},
        {"garbage", camsim::Subscribe::Garbage},
        {"silent", camsim::Subscribe::Silent},
        {"trickle", camsim::Subscribe::Trickle},
        {"close", camsim::Subscribe::CloseAtOnce},
    };
    return modes;
}

void PrintHelp() {
    std::printf(
        "Usage: camsim [options]\n"
        "Plays people-counting cameras on TCP ports. A LAPI camera answers the event\n"
        "subscription and then sends one event message per person walking past.\n"
        "\n"
        "  --lapi PORT         a LAPI camera on PORT (0 picks a free port); repeatable\n");
    for (const camsim::CameraKind& kind : camsim::RegisteredKinds()) {
        if (!kind.option.empty())
            std::printf("  %-19s %s\n", (kind.option + " PORT").c_str(), kind.help.c_str());
    }
    std::printf(
        "  --bind ADDR         address to listen on (default 127.0.0.1)\n"
        "  --rate N            people per minute walking past each camera (default 6, 0 none)\n"
        "  --seed N            random seed of the walking model (default 1)\n"
        "  --seconds N         run N seconds, then exit (default: until SIGINT/SIGTERM)\n"
        "  --start-in N        initial in total (default 0)\n"
        "  --start-out N       initial out total (default 0)\n"
        "  --verbose           also print every request received\n"
        "  --version           the release of camsim\n"
        "  --help              this text\n"
        "\n"
        "Prints one line per camera when it listens, one per event sent and one per\n"
        "settings or enable request taken.\n");
    // Not listed: --subscribe MODE answers subscriptions with one of the
    // faults of SubscribeModes(), for trying the service against a faulty
    // camera by hand; the fault tests use the library directly.
}

bool IsKindOption(const std::string& arg, std::string* kind) {
    if (arg == "--lapi") {
        *kind = "lapi";
        return true;
    }
    for (const camsim::CameraKind& k : camsim::RegisteredKinds()) {
        if (!k.option.empty() && k.option == arg) {
            *kind = k.name;
            return true;
        }
    }
    return false;
}

bool ToLong(const char* text, long* value) {
    char* end = nullptr;
    errno = 0;
    *value = std::strtol(text, &end, 10);
    return errno == 0 && end != text && *end == '\0';
}

// Returns 0 to run, 1 after --help or --version, 2 on a usage error.
int ParseArgs(int argc, char** argv, Options* opt) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            PrintHelp();
            return 1;
        }
        if (arg == "--version") {
            std::printf("camsim %s\n", PPL_VERSION);
            return 1;
        }
        if (arg == "--verbose") {
            opt->verbose = true;
            continue;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "camsim: unknown option or missing value: %s\n", arg.c_str());
            return 2;
        }
        const char* value = argv[++i];
        long number = 0;
        bool numeric = ToLong(value, &number);
        std::string kind;
        if (IsKindOption(arg, &kind) && numeric && number >= 0 && number <= 65535) {
            opt->cameras.emplace_back(kind, static_cast<int>(number));
        } else if (arg == "--bind") {
            opt->bind = value;
        } else if (arg == "--rate") {
            opt->rate = std::strtod(value, nullptr);
        } else if (arg == "--seed" && numeric) {
            opt->seed = static_cast<uint32_t>(number);
        } else if (arg == "--seconds" && numeric && number >= 0) {
            opt->seconds = number;
        } else if (arg == "--start-in" && numeric) {
            opt->start_in = static_cast<int>(number);
        } else if (arg == "--start-out" && numeric) {
            opt->start_out = static_cast<int>(number);
        } else if (arg == "--subscribe" && SubscribeModes().count(value)) {
            opt->subscribe = SubscribeModes().at(value);
        } else {
            std::fprintf(stderr, "camsim: bad option or value: %s %s\n", arg.c_str(), value);
            return 2;
        }
    }
    if (opt->cameras.empty()) {
        std::fprintf(stderr, "camsim: no camera given (try --lapi 0); see --help\n");
        return 2;
    }
    return 0;
}

std::mutex g_print_lock;

void Say(const char* format, const std::string& a, int b, const std::string& c) {
    std::lock_guard<std::mutex> guard(g_print_lock);
    std::printf(format, a.c_str(), b, c.c_str());
    std::fflush(stdout);
}

void InstallKind(camsim::Camera& cam, const std::string& kind) {
    for (const camsim::CameraKind& k : camsim::RegisteredKinds()) {
        if (k.name == kind && k.install)
            k.install(cam);
    }
}

std::unique_ptr<camsim::Camera> StartCamera(const Options& opt, const std::string& kind, int port) {
    auto cam = std::make_unique<camsim::Camera>(port, opt.bind);
    InstallKind(*cam, kind);
    cam->SetSubscribe(opt.subscribe);
    cam->SetTotals(opt.start_in, opt.start_out);
    std::string tag = kind + " " + opt.bind + ":";
    if (!cam->Start()) {
        std::fprintf(stderr, "camsim: cannot listen on %s:%d: %s\n", opt.bind.c_str(), port,
                     std::strerror(errno));
        return nullptr;
    }
    int bound = cam->Port();
    cam->OnEvent([tag, bound](const std::string& body, int receivers) {
        Say("camsim: [%s%d] event to %s\n", tag, bound,
            std::to_string(receivers) + " subscriber(s): " + body);
    });
    cam->OnNote(
        [tag, bound](const std::string& note) { Say("camsim: [%s%d] %s\n", tag, bound, note); });
    if (opt.verbose) {
        cam->OnRequest([tag, bound](const camsim::Request& req) {
            Say("camsim: [%s%d] request %s\n", tag, bound,
                req.method + " " + req.target + " (" + std::to_string(req.body.size()) +
                    " body bytes)");
        });
    }
    Say("camsim: %s%d listening%s\n", tag, bound, "");
    cam->StartWalking(opt.rate, opt.seed + static_cast<uint32_t>(bound));
    return cam;
}

// Waits for SIGINT or SIGTERM, or until the given seconds passed (0: no end).
void WaitForEnd(const sigset_t& stop_signals, long seconds) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (true) {
        timespec slice = {0, 200 * 1000 * 1000};
        if (sigtimedwait(&stop_signals, nullptr, &slice) > 0)
            return;
        if (seconds > 0 && std::chrono::steady_clock::now() >= end)
            return;
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    int parsed = ParseArgs(argc, argv, &opt);
    if (parsed != 0)
        return parsed == 1 ? 0 : 2;

    // Blocked before any thread starts, so only the main thread takes them.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    std::vector<std::unique_ptr<camsim::Camera>> cameras;
    for (const auto& c : opt.cameras) {
        auto cam = StartCamera(opt, c.first, c.second);
        if (!cam)
            return 1;
        cameras.push_back(std::move(cam));
    }
    WaitForEnd(stop_signals, opt.seconds);
    for (auto& cam : cameras)
        cam->Stop();
    std::printf("camsim: stopped\n");
    return 0;
}
