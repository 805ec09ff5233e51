#include "ConfigCheck.h"

#include <arpa/inet.h>
#include <errno.h>
#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "PPLConstants.h"
#include "PPLSettingsRequest.h"
#include "SAttr.h"

namespace {

constexpr int kCameraIndexes = 32;  // 3DPC: indexes 0 to 31 name the one counter
constexpr size_t kLargestFile = 1 << 20;

std::string Key(const char* head, int number, const char* tail) {
    return head + std::to_string(number) + tail;
}

std::string Trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r\n\f\v"), e = s.find_last_not_of(" \t\r\n\f\v");
    return b == std::string::npos ? "" : s.substr(b, e - b + 1);
}

// The whole text is a base-10 number, as a person writing the file means it.
bool IsNumber(const std::string& text) {
    if (text.empty())
        return false;
    errno = 0;
    char* end = nullptr;
    strtol(text.c_str(), &end, 10);
    return *end == '\0' && errno == 0;
}

class Checker {
public:
    Checker(SAttr& ini, ConfigReport& report) : ini_(ini), r_(report) {}

    void Run() {
        if (!ReadEnable())
            return;  // the service reads no other key
        bool tdpc = ReadKind();
        unsigned groups = ReadGroupCount(tdpc);
        if (groups == 0) {
            Say("No counting group: no camera is started and nothing is counted.");
            return;
        }
        ReadGroup(tdpc);
    }

private:
    bool Has(const std::string& key) { return ini_.HasKey(key.c_str()); }
    std::string Value(const std::string& key) { return ini_.GetKeyValue(key.c_str()); }
    void Say(const std::string& line) { r_.lines.push_back(line); }
    void Problem(const std::string& line) {
        for (const auto& known : r_.problems)
            if (known == line)
                return;
        r_.problems.push_back(line);
    }

    // The value as the service reads it (base-10, leading digits), with a
    // problem when the text is not a plain number.
    int Number(const std::string& key) {
        int value = ini_.GetIntValue(key.c_str(), 10);
        if (!IsNumber(Value(key)))
            Problem(key + "=" + Value(key) + ": not a number; the service reads it as " +
                    std::to_string(value) + ".");
        return value;
    }

    bool ReadEnable() {
        if (!Has("SERV_PPL_ENABLE")) {
            Problem("SERV_PPL_ENABLE is missing: counting is off and every camera is stopped.");
            return false;
        }
        int enable = Number("SERV_PPL_ENABLE");
        Say(enable != 0 ? "Counting is on (SERV_PPL_ENABLE=" + Value("SERV_PPL_ENABLE") + ")."
                        : "Counting is off (SERV_PPL_ENABLE=0): every camera is stopped and no "
                          "other key is read.");
        return enable != 0;
    }

    bool ReadKind() {
        if (!Has("SERV_PPL_TYPE")) {
            Problem(
                "SERV_PPL_TYPE is missing: the camera kind stays as it was (LAPI cameras "
                "when the service starts).");
            Say("Cameras: LAPI cameras (channels 0 to 3).");
            return false;
        }
        bool tdpc = Value("SERV_PPL_TYPE") == "3DPCV2";
        Say(tdpc ? "Cameras: the 3DPC V2 counter (SERV_PPL_TYPE=3DPCV2)."
                 : "Cameras: LAPI cameras, channels 0 to 3 (SERV_PPL_TYPE=" +
                       Value("SERV_PPL_TYPE") + ").");
        return tdpc;
    }

    unsigned ReadGroupCount(bool tdpc) {
        unsigned groups = 0;
        if (!Has("SERV_PPL_NUM")) {
            if (!tdpc)
                Problem("SERV_PPL_NUM is missing: there is no counting group.");
        } else {
            std::string text = Value("SERV_PPL_NUM");
            groups = ini_.GetUIntValue("SERV_PPL_NUM", 10);
            if (!IsNumber(text))
                Problem("SERV_PPL_NUM=" + text + ": not a number; the service reads it as " +
                        std::to_string(groups) + ".");
            if (groups > 1)
                Problem("SERV_PPL_NUM=" + text +
                        ": the service counts one group at most; it uses group 0 only.");
        }
        return tdpc ? 1 : (groups > 1 ? 1 : groups);
    }

    // Returns the camera index the group uses for one side, or -1.
    int ReadSide(bool tdpc, bool in) {
        std::string key = Key(in ? "SERV_PPL_IN_" : "SERV_PPL_OUT_", 0, "_CAM");
        const char* side = in ? "in" : "out";
        if (!Has(key)) {
            Problem(key + " is missing: group 0 has no " + side + " camera; nobody is counted " +
                    (in ? "coming in" : "going out") +
                    " and reset and clear commands are "
                    "refused.");
            return -1;
        }
        int c = Number(key);
        int limit = tdpc ? kCameraIndexes : ppl::kLapiCounters;
        if (c < 0 || c >= limit) {
            Problem(key + "=" + Value(key) + ": the service ignores this camera (" +
                    (tdpc ? "indexes 0 to 31" : "LAPI channels are 0 to 3") + ").");
            return -1;
        }
        return c;
    }

    void ReadGroup(bool tdpc) {
        int in = ReadSide(tdpc, true), out = ReadSide(tdpc, false);
        auto describe = [&](int c, const char* dir) {
            return "camera " + std::to_string(c) + " (" + dir + ", " + Address(tdpc, c) + ")";
        };
        if (in >= 0 && in == out)
            Say("Group 0: camera " + std::to_string(in) + " counts both ways (dual, " +
                Address(tdpc, in) + ").");
        else
            Say("Group 0: in " + (in >= 0 ? describe(in, "in") : std::string("none")) + ", out " +
                (out >= 0 ? describe(out, "out") : std::string("none")) + ".");
        if (tdpc && in != 0 && out != 0 && (in >= 0 || out >= 0))
            Problem(
                "SERV_PPL_IN_0_CAM/SERV_PPL_OUT_0_CAM: no side names camera 0, so the 3DPC "
                "counter is not started.");
        ReadLimits();
        _PPL_CAM_SETTINGS settings;
        if (!ReadSettings(settings))
            return;
        if (tdpc) {
            Say("The 3DPC counter takes the report interval directly; no settings request is "
                "sent.");
            return;
        }
        std::string request = PPL_Settings_Request_Text(settings);
        if (in >= 0)
            Say("Settings request to camera " + std::to_string(in) + ": " + request);
        if (out >= 0 && out != in)
            Say("Settings request to camera " + std::to_string(out) + ": " + request);
    }

    std::string Address(bool tdpc, int c) {
        if (tdpc)
            c = 0;  // the one 3DPC counter uses camera 0's keys
        std::string ip_key = Key("SERV_PPL_CAM_", c, "_IP"),
                    port_key = Key("SERV_PPL_CAM_", c, "_HTTP");
        std::string ip = Has(ip_key) ? Value(ip_key) : "",
                    port = Has(port_key) ? Value(port_key) : "";
        in_addr probe;
        if (ip.empty())
            Problem(ip_key + " is missing: camera " + std::to_string(c) +
                    " has no address and its counter cannot connect.");
        else if (inet_pton(AF_INET, ip.c_str(), &probe) != 1)
            Problem(ip_key + "=" + ip +
                    ": not a dotted IPv4 address; the service cannot reach "
                    "the camera (host names are not looked up).");
        if (port.empty())
            Problem(port_key + " is missing: camera " + std::to_string(c) + " has no port.");
        else
            CheckPort(port_key, tdpc);
        for (const char* tail : {"_USERNAME", "_PASSWORD"}) {
            std::string key = Key("SERV_PPL_CAM_", c, tail);
            if (!Has(key))
                Problem(key + " is missing: settings, enable and clear requests to camera " +
                        std::to_string(c) + " fail (\"PPL Cam config is incomplete\").");
        }
        return (ip.empty() ? "no address" : ip) + ":" + (port.empty() ? "no port" : port);
    }

    void CheckPort(const std::string& key, bool tdpc) {
        int port = Number(key);
        if (port >= 1 && port <= 65535)
            return;
        int used = static_cast<unsigned short>(port);
        Problem(key + "=" + Value(key) + ": port outside 1-65535; " +
                (tdpc ? std::string("the 3DPC client library is given the text as it is.")
                      : "the service would connect to port " + std::to_string(used) + "."));
    }

    void ReadLimits() {
        const std::string over_key = "SERV_PPL_STAYIN_0_OVER",
                          under_key = "SERV_PPL_STAYIN_0_UNDER";
        bool has_over = Has(over_key), has_under = Has(under_key);
        int over = has_over ? Number(over_key) : 0, under = has_under ? Number(under_key) : 0;
        for (const auto& k : {over_key, under_key})
            if (!Has(k))
                Problem(k + " is missing: the limit keeps its value (0 when the service starts).");
        Say("Stay-in alarms: over when " + std::to_string(over) +
            " or more are inside, under when " + std::to_string(under) + " or fewer.");
        if (over <= under)
            Problem(over_key + "=" + std::to_string(over) + ", " + under_key + "=" +
                    std::to_string(under) +
                    ": the over limit is not above the under limit; a "
                    "stay-in that meets both raises the over alarm only.");
    }

    // The settings keys in the service's order; the first missing one skips
    // the rest of the group's settings.
    bool ReadSettings(_PPL_CAM_SETTINGS& s) {
        memset(&s, 0, sizeof(s));
        static const char* const kTails[] = {"_RESET_ENABLE", "_RESET_TIME", "_REPORT_INTERVAL",
                                             "_SENSITIVITY", "_CLEAR_COUNT"};
        int* numbers[] = {&s.ResetEnable, nullptr, &s.ReportInterval, &s.Sensitivity,
                          &s.ClearCounts};
        for (int i = 0; i < 5; ++i) {
            std::string key = Key("SERV_PPL_SETTINGS_", 0, kTails[i]);
            if (!Has(key)) {
                Problem(key +
                        " is missing: the group's settings are incomplete and skipped; no "
                        "settings request is sent.");
                return false;
            }
            if (numbers[i] != nullptr) {
                *numbers[i] = Number(key);
            } else {
                std::string text = Value(key);
                if (text.size() >= sizeof(s.ResetTime))
                    Problem(key + "=" + text + ": longer than 15 characters; the service keeps \"" +
                            text.substr(0, sizeof(s.ResetTime) - 1) + "\".");
                strncpy(s.ResetTime, text.c_str(), sizeof(s.ResetTime) - 1);
            }
        }
        Say(std::string("Settings: daily reset at ") + s.ResetTime + " (" +
            (s.ResetEnable ? "on" : "off") + "), report interval " +
            std::to_string(s.ReportInterval) + ", sensitivity " + std::to_string(s.Sensitivity) +
            ", clear counts " + (s.ClearCounts ? "on: counts are cleared on every reload" : "off") +
            ".");
        return true;
    }

    SAttr& ini_;
    ConfigReport& r_;
};

// Lines the attribute store does not take: no "=", or nothing on one side.
void CheckLines(const std::string& text, SAttr& ini, ConfigReport& r) {
    std::istringstream in(text);
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        std::string trimmed = Trim(line);
        if (trimmed.empty())
            continue;
        size_t eq = trimmed.find('=');
        std::string where = "line " + std::to_string(number) + " \"" + trimmed + "\": ";
        if (eq == std::string::npos)
            r.problems.push_back(where + "no \"=\"; the service skips the line.");
        else if (!ini.HasKey(Trim(trimmed.substr(0, eq)).c_str()))
            r.problems.push_back(where + "empty key or value; the service skips the line.");
    }
}

bool LooksLikeText(const std::string& text) {
    for (unsigned char c : text)
        if (c == 0 || (c < 0x20 && c != '\t' && c != '\r' && c != '\n' && c != '\f' && c != '\v'))
            return false;
    return true;
}

bool ReadWhole(const std::string& path, std::string& text, std::string& why) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        why = strerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode) || static_cast<size_t>(st.st_size) > kLargestFile) {
        why = S_ISREG(st.st_mode) ? "larger than 1 MiB" : "not a regular file";
        return false;
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        why = strerror(errno);
        return false;
    }
    std::ostringstream all;
    all << file.rdbuf();
    text = all.str();
    return true;
}

}  // namespace

ConfigReport CheckConfig(const std::string& path) {
    ConfigReport report;
    std::string text;
    if (!ReadWhole(path, text, report.why_unreadable))
        return report;
    report.readable = true;
    SAttr ini('=', "\r\n", "\n", nullptr);
    ini.LoadFile(path.c_str());
    if (!LooksLikeText(text)) {
        report.problems.push_back(path +
                                  " is not a text file (it holds control bytes): the "
                                  "service takes only what reads as KEY=VALUE lines.");
    } else {
        CheckLines(text, ini, report);
    }
    Checker(ini, report).Run();
    return report;
}
