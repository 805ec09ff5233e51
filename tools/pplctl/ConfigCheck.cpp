#include "ConfigCheck.h"

#include <errno.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "ConfigFile.h"
#include "PPLSettingsRequest.h"
#include "PPLSystemIni.h"
#include "SAttr.h"
#include "UTextParam.h"

using configfile::Shown;

namespace {

// The whole text is a base-10 number, as a person writing the file means it.
bool IsNumber(const std::string& text) {
    if (text.empty())
        return false;
    errno = 0;
    char* end = nullptr;
    strtol(text.c_str(), &end, 10);
    return *end == '\0' && errno == 0;
}

// hours:minutes:seconds, each one or two digits and within its range.
bool IsTimeOfDay(const std::string& text) {
    int parts[3], used = 0;
    char tail;
    if (text.find_first_not_of("0123456789:") != std::string::npos || text.size() > 8 ||
        sscanf(text.c_str(), "%2d:%2d:%2d%n%c", &parts[0], &parts[1], &parts[2], &used, &tail) != 3)
        return false;
    return used == static_cast<int>(text.size()) && parts[0] <= 23 && parts[1] <= 59 &&
           parts[2] <= 59;
}

// "Hour=3&Min=0&Sec=0" of a settings request: what the cameras are sent.
std::string SentTime(const std::string& request) {
    size_t from = request.find("Hour="), to = request.find("&Sensitivity=");
    return request.substr(from, to - from);
}

// The same as a clock shows it: "3:00:00".
std::string ClockTime(const std::string& sent) {
    int h = 0, m = 0, s = 0;
    sscanf(sent.c_str(), "Hour=%d&Min=%d&Sec=%d", &h, &m, &s);
    char text[48];
    snprintf(text, sizeof(text), "%d:%02d:%02d", h, m, s);
    return text;
}

class Checker {
public:
    Checker(SAttr& ini, ConfigReport& report) : ini_(ini), r_(report) {}

    void Run() {
        if (!ReadEnable())
            return;
        bool tdpc = ReadKind();
        if (ReadGroupCount(tdpc) == 0) {
            Say("No counting group: no camera is started and nothing is counted.");
            return;
        }
        ReadGroup(tdpc);
    }

private:
    std::string Key(const char* head, int number, const char* tail) {
        return ppl::ComposeKey(keys_, head, number, tail);
    }
    std::string KeyOfCamera(int camera, ppl::CameraKey key) {
        return Key(ppl::kCameraHead, camera, ppl::kCameraTails[key]);
    }
    bool Has(const std::string& key) { return ini_.HasKey(key.c_str()); }
    std::string Value(const std::string& key) {
        const char* value = ini_.GetKeyValue(key.c_str());
        return value != nullptr ? value : "";
    }
    std::string KeyValue(const std::string& key) { return key + "=" + Shown(key, Value(key)); }
    void Say(const std::string& line) { r_.lines.push_back(line); }
    void Problem(const std::string& line) {
        for (const auto& known : r_.problems)
            if (known == line)
                return;
        r_.problems.push_back(line);
    }

    // The value as the service reads it (base-10, leading digits), with a
    // problem when the text is not a plain number.
    int Number(const std::string& key, const std::string& consequence = "") {
        int value = ppl::ReadNumber(ini_, key);
        if (!IsNumber(Value(key)))
            Problem(KeyValue(key) + ": not a number; the service reads it as " +
                    std::to_string(value) + consequence + ".");
        return value;
    }

    bool OtherServiceKeys() {
        for (const auto& kv : ini_.GetRawData())
            if (configfile::IsServiceKey(kv.first) && kv.first != ppl::kKeyEnable)
                return true;
        return false;
    }

    // Counting off by a plain 0 is meant: the rest is checked only when the
    // file configures counting at all. Off by a missing or unreadable value
    // is a mistake, and everything else is checked as it will be read once
    // counting is on.
    bool ReadEnable() {
        const std::string key = ppl::kKeyEnable;
        const char* off = ": counting is off and every camera is stopped";
        int enable = 0;
        if (!Has(key))
            Problem(key + " is missing" + off + ".");
        else
            enable = Number(key, ppl::ReadNumber(ini_, key) == 0 ? off : "");
        r_.counting = enable != 0;
        if (enable != 0) {
            Say("Counting is on (" + KeyValue(key) + ").");
            return true;
        }
        Say("Counting is off: every camera is stopped and no other key is read.");
        if (!OtherServiceKeys())
            return false;
        Say("The other keys are checked as the service will read them once counting is on.");
        return true;
    }

    bool ReadKind() {
        const std::string key = ppl::kKeyCameraKind;
        const std::string lapi =
            "LAPI cameras, channels 0 to " + std::to_string(ppl::kLapiChannels - 1);
        if (!Has(key)) {
            Problem(key +
                    " is missing: the camera kind stays as it was (LAPI cameras when the service "
                    "starts).");
            Say("Cameras: " + lapi + ".");
            return false;
        }
        bool tdpc = Value(key) == ppl::kCameraKind3DPC;
        if (!tdpc && Value(key) != "LAPI")
            Problem(KeyValue(key) + ": only \"" + ppl::kCameraKind3DPC +
                    "\" selects the 3DPC counter; the service uses " + lapi + ".");
        Say(tdpc ? "Cameras: the 3DPC V2 counter (" + KeyValue(key) + ")."
                 : "Cameras: " + lapi + " (" + KeyValue(key) + ").");
        return tdpc;
    }

    unsigned ReadGroupCount(bool tdpc) {
        const std::string key = ppl::kKeyGroupCount;
        unsigned groups = 0;
        if (!Has(key)) {
            if (!tdpc)
                Problem(key + " is missing: there is no counting group.");
        } else {
            groups = ppl::ReadUnsigned(ini_, key);
            if (!IsNumber(Value(key)))
                Problem(KeyValue(key) + ": not a number; the service reads it as " +
                        std::to_string(groups) + ".");
            if (groups > ppl::kMaxGroups)
                Problem(KeyValue(key) +
                        ": the service counts one group at most; it uses group 0 only.");
        }
        return tdpc ? ppl::kMaxGroups : (groups > ppl::kMaxGroups ? ppl::kMaxGroups : groups);
    }

    std::string SideKey(bool in) {
        return Key(in ? ppl::kInCameraHead : ppl::kOutCameraHead, 0, ppl::kCameraSideTail);
    }

    // Returns the camera index the group uses for one side, or -1.
    int ReadSide(bool tdpc, bool in) {
        std::string key = SideKey(in);
        if (!Has(key)) {
            Problem(key + " is missing: group 0 has no " + (in ? "in" : "out") +
                    " camera; nobody is counted " + (in ? "coming in" : "going out") +
                    " and reset and clear commands are refused.");
            return -1;
        }
        int c = Number(key);
        if (!ppl::NamesCounter(tdpc, c)) {
            Problem(KeyValue(key) + ": the service ignores this camera (" +
                    (tdpc ? "indexes 0 to " + std::to_string(ppl::kCameraIndexes - 1)
                          : "LAPI channels are 0 to " + std::to_string(ppl::kLapiChannels - 1)) +
                    ").");
            return -1;
        }
        return c;
    }

    void ReadGroup(bool tdpc) {
        int in = ReadSide(tdpc, true), out = ReadSide(tdpc, false);
        DescribeCameras(tdpc, in, out);
        CheckUnusedCameras(tdpc, in, out);
        ReadLimits();
        _PPL_CAM_SETTINGS settings;
        if (!ReadSettings(tdpc, settings))
            return;
        if (tdpc) {
            Say("The 3DPC counter takes the report interval directly; no settings request is "
                "sent.");
            return;
        }
        std::string cameras = in >= 0 ? "camera " + std::to_string(in) : "";
        if (out >= 0 && out != in)
            cameras += (cameras.empty() ? "camera " : " and camera ") + std::to_string(out);
        if (!cameras.empty())
            Say("Settings for " + cameras +
                ", pushed to the cameras when they change on a reload, never at start: " +
                PPL_Settings_Request_Text(settings));
    }

    void DescribeCameras(bool tdpc, int in, int out) {
        if (in >= 0 && in == out) {
            Say("Group 0: camera " + std::to_string(in) + " counts both ways (dual, " +
                Use(tdpc, in, true, true) + ").");
        } else {
            // One after the other, so that the cameras are checked in this order.
            std::string in_text = in >= 0 ? "camera " + std::to_string(in) + " (in, " +
                                                Use(tdpc, in, true, false) + ")"
                                          : "none";
            std::string out_text = out >= 0 ? "camera " + std::to_string(out) + " (out, " +
                                                  Use(tdpc, out, false, true) + ")"
                                            : "none";
            Say("Group 0: in " + in_text + ", out " + out_text + ".");
        }
        if (tdpc && in != 0 && out != 0 && (in >= 0 || out >= 0)) {
            Problem(SideKey(true) + "/" + SideKey(false) +
                    ": no side names camera 0, so the 3DPC counter is not started.");
            r_.cameras.front().started = false;
        }
    }

    // Records the camera the service connects to for one side and checks its
    // keys; returns its address and port for the description.
    std::string Use(bool tdpc, int c, bool in, bool out) {
        if (tdpc)
            c = 0;  // the one 3DPC counter uses camera 0's keys
        CameraUse* use = nullptr;
        for (auto& known : r_.cameras)
            use = known.index == c ? &known : use;
        if (use == nullptr) {
            r_.cameras.push_back(CameraUse());
            use = &r_.cameras.back();
            use->index = c;
            CheckCameraKeys(c, SideKey(in), use);
        }
        use->in |= in;
        use->out |= out;
        return (use->address.empty() ? "no address" : use->address) + ":" +
               (use->port == 0 ? "no port" : std::to_string(use->port));
    }

    void CheckCameraKeys(int c, const std::string& naming_key, CameraUse* use) {
        bool any = false;
        std::string tails;
        for (int key = 0; key < ppl::kCameraKeys; ++key) {
            any |= Has(KeyOfCamera(c, ppl::CameraKey(key)));
            tails += (key == 0 ? "" : ", ") + std::string(ppl::kCameraTails[key]);
        }
        if (!any) {
            Problem(KeyValue(naming_key) + ": camera " + std::to_string(c) + " has no keys (" +
                    Key(ppl::kCameraHead, c, "") + tails +
                    "); its counter cannot connect and every request to it fails.");
            return;
        }
        use->address = CheckAddress(KeyOfCamera(c, ppl::kCameraAddress), c);
        const std::string port = KeyOfCamera(c, ppl::kCameraPort);
        if (!Has(port))
            Problem(port + " is missing: camera " + std::to_string(c) + " has no port.");
        else
            use->port = CheckPort(port);
        for (ppl::CameraKey account : {ppl::kCameraUser, ppl::kCameraPassword})
            CheckAccount(KeyOfCamera(c, account), c);
    }

    // The address as the service's event channel connects to it.
    std::string CheckAddress(const std::string& key, int c) {
        uint32_t address;
        if (!Has(key))
            Problem(key + " is missing: camera " + std::to_string(c) +
                    " has no address and its counter cannot connect.");
        else if (!UTextParam::toIPv4Address(Value(key).c_str(), &address))
            Problem(KeyValue(key) +
                    ": not a dotted IPv4 address; the service cannot reach the camera (host "
                    "names are not looked up).");
        return Value(key);
    }

    int CheckPort(const std::string& key) {
        int port = Number(key);
        if (port < 1 || port > 65535)
            Problem(KeyValue(key) + ": port outside 1-65535; the service would connect to port " +
                    std::to_string(static_cast<unsigned short>(port)) + ".");
        return port;
    }

    // The account goes to the camera byte for byte: a word processor's
    // quotes or a stray tab make the camera refuse it.
    void CheckAccount(const std::string& key, int c) {
        if (!Has(key)) {
            Problem(key + " is missing: settings, enable and clear requests to camera " +
                    std::to_string(c) + " fail (\"PPL Cam config is incomplete\").");
            return;
        }
        for (unsigned char byte : Value(key)) {
            if (byte >= 0x20 && byte < 0x7f)
                continue;
            Problem(KeyValue(key) + ": holds a " + (byte >= 0x80 ? "non-ASCII" : "control") +
                    " byte (" + Shown("", std::string(1, static_cast<char>(byte))) +
                    "); the service sends it as it is and the camera refuses every settings, "
                    "enable and clear request.");
            return;
        }
    }

    // Camera keys that no group uses are never read: a camera meant to count
    // that is not counting.
    void CheckUnusedCameras(bool tdpc, int in, int out) {
        for (int c = 0; c < ppl::kLapiChannels; ++c) {
            if (tdpc ? c == 0 : (c == in || c == out))
                continue;
            for (int k = 0; k < ppl::kCameraKeys; ++k) {
                std::string key = KeyOfCamera(c, ppl::CameraKey(k));
                if (!Has(key))
                    continue;
                std::string camera = "camera " + std::to_string(c);
                Problem(KeyValue(key) + ": " +
                        (tdpc
                             ? "the service never reads " + camera +
                                   "'s keys; the 3DPC counter uses camera 0's only."
                             : camera + " is used by no group; the service never connects to it."));
                break;
            }
        }
    }

    void ReadLimits() {
        const std::string over_key = Key(ppl::kStayinHead, 0, ppl::kOverTail),
                          under_key = Key(ppl::kStayinHead, 0, ppl::kUnderTail);
        bool has_over = Has(over_key), has_under = Has(under_key);
        int over = has_over ? Number(over_key) : 0, under = has_under ? Number(under_key) : 0;
        for (const auto& k : {over_key, under_key})
            if (!Has(k))
                Problem(k + " is missing: the limit keeps its value (0 when the service starts).");
        r_.limits = {over, under};
        Say("Stay-in alarms: over when " + std::to_string(over) +
            " or more are inside, under when " + std::to_string(under) + " or fewer.");
        if (over <= under)
            Problem(over_key + "=" + std::to_string(over) + ", " + under_key + "=" +
                    std::to_string(under) +
                    ": the over limit is not above the under limit; a "
                    "stay-in that meets both raises the over alarm only.");
    }

    // The settings keys as the service reads them; the first missing one
    // skips the rest of the group's settings.
    bool ReadSettings(bool tdpc, _PPL_CAM_SETTINGS& s) {
        memset(&s, 0, sizeof(s));
        std::string missing;
        auto check = [&](ppl::SettingsKey step, const std::string& key) {
            if (step == ppl::kResetTime)
                CheckResetTime(key, tdpc, s);
            else
                Number(key);
        };
        if (!ppl::ReadGroupSettings(ini_, keys_, 0, s, check, &missing)) {
            Problem(missing +
                    " is missing: the group's settings are incomplete and skipped; no "
                    "settings request is sent.");
            return false;
        }
        r_.settings = PPL_Settings_Request_Text(s);
        std::string sent = ClockTime(SentTime(r_.settings));
        Say("Settings: daily reset at " + sent + " (" + (s.ResetEnable ? "on" : "off") +
            "), report interval " + std::to_string(s.ReportInterval) + ", sensitivity " +
            std::to_string(s.Sensitivity) + ", clear counts " +
            (s.ClearCounts ? "on: counts are cleared on every reload" : "off") + ".");
        return true;
    }

    // The reset time as the service keeps it, already cut to its field.
    void CheckResetTime(const std::string& key, bool tdpc, const _PPL_CAM_SETTINGS& s) {
        if (Value(key).size() >= sizeof(s.ResetTime))
            Problem(KeyValue(key) + ": longer than 15 characters; the service keeps \"" +
                    Shown(key, s.ResetTime) + "\".");
        // The 3DPC counter is sent no reset time.
        if (!tdpc && !IsTimeOfDay(s.ResetTime))
            Problem(KeyValue(key) +
                    ": not hours:minutes:seconds within 23:59:59; the cameras will be sent " +
                    SentTime(PPL_Settings_Request_Text(s)) + ".");
    }

    SAttr& ini_;
    ConfigReport& r_;
    std::stringstream keys_;  // where keys are composed, as the service does
};

}  // namespace

// The file is loaded as the service loads it: whatever it reads, this reads.
ConfigReport CheckConfig(const std::string& path) {
    ConfigReport report;
    SAttr ini('=', "\r\n", "\n", nullptr);
    std::string text;
    if (ppl::LoadSystemIni(ini, path, &text, &report.why_unreadable) != ppl::IniLoad::Loaded)
        return report;
    report.readable = true;
    configfile::CheckText(text, ini, &report.problems);
    Checker(ini, report).Run();
    configfile::CheckUnknownKeys(ini, &report.problems);
    return report;
}
