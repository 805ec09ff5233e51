#include "StatusReport.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "InstanceLock.h"
#include "OwnedFile.h"
#include "PPLConstants.h"
#include "SAttr.h"
#include "UTime.h"

namespace {

const char* const kStateNames[] = {"ok", "stale", "missing", "untrusted", "nofigures"};
const char* const kNotRunning = "; pplcounter is not running (nobody holds its instance lock)";

// Milliseconds as seconds with one decimal, the form of a JSON number.
std::string Seconds(int64_t ms) {
    const char* sign = ms < -99 ? "-" : "";
    uint64_t magnitude = ms < 0 ? static_cast<uint64_t>(-ms) : static_cast<uint64_t>(ms);
    char text[32];
    snprintf(text, sizeof(text), "%s%llu.%llu", sign,
             static_cast<unsigned long long>(magnitude / 1000),
             static_cast<unsigned long long>(magnitude % 1000 / 100));
    return text;
}

// A JSON string. Whatever the text holds, the answer stays valid JSON in
// ASCII: quotes, backslashes, control characters and any byte outside
// ASCII are escaped.
std::string Quoted(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c >= 0x7f) {
            char escape[8];
            snprintf(escape, sizeof(escape), "\\u%04x", c);
            out += escape;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

void Field(std::string* json, const char* key, const std::string& value) {
    *json += json->size() > 1 ? ",\"" : "\"";
    *json += key;
    *json += "\":";
    *json += value;
}

const char* Bool(bool value) {
    return value ? "true" : "false";
}

// The file's modification time, or false when nothing is at path.
bool WrittenAt(const std::string& path, int64_t* ms) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return false;
    *ms = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000;
    return true;
}

}  // namespace

StatusReport::Places StatusReport::Places::Fixed() {
    return {ppl::kStatusIniPath, InstanceLock::ServiceDirs()};
}

StatusReport StatusReport::Read(const Places& places, int64_t now_ms) {
    StatusReport report;
    // The service's user owns the instance lock it holds; while none is
    // held, only root's file is taken, as the service runs as root.
    InstanceLock::Holder holder;
    bool running = InstanceLock::FindHolder(places.lock_dirs, &holder);
    std::string text;
    int64_t written_ms = 0;
    if (report.Load(places.status, running ? &holder : nullptr, &text, &written_ms) &&
        report.Fresh(now_ms - written_ms, running))
        report.state_ = report.TakeFigures(text) ? State::kOk : State::kNoFigures;
    return report;
}

bool StatusReport::Load(const std::string& path, const InstanceLock::Holder* holder,
                        std::string* text, int64_t* written_ms) {
    // Looked at before the file is read: if the service replaces it in
    // between, the figures read are newer than this, never older.
    bool seen = WrittenAt(path, written_ms);
    std::string why;
    OwnedFile::Read read = OwnedFile::LoadOwnedBy(holder != nullptr ? holder->owner : 0, path,
                                                  ppl::kStatusIniMaxBytes, text, &why);
    const std::string service = holder != nullptr
                                    ? "; the service runs as user " + std::to_string(holder->owner)
                                    : std::string(kNotRunning);
    if (read == OwnedFile::Read::Missing) {
        state_ = State::kMissing;
        why_ = path + " does not exist" + (holder != nullptr ? "" : kNotRunning);
        return false;
    }
    if (read == OwnedFile::Read::Refused) {
        state_ = State::kUntrusted;
        why_ = path + " is not the service's own file (" + why + ")" + service;
        return false;
    }
    if (!seen && !WrittenAt(path, written_ms))
        *written_ms = UTime::GetRealTimeMs();  // made and removed while read: as new as can be
    return true;
}

bool StatusReport::Fresh(int64_t age_ms, bool running) {
    age_known_ = true;
    age_ms_ = age_ms;
    if (age_ms > kFreshMs) {
        state_ = State::kStale;
        why_ = "written " + Seconds(age_ms) + " s ago; the service rewrites it every second" +
               (running ? "" : kNotRunning);
        return false;
    }
    if (age_ms < -kFutureMs) {
        state_ = State::kStale;
        why_ = "written " + Seconds(-age_ms) + " s in the future: the clock was set back";
        return false;
    }
    return true;
}

bool StatusReport::TakeFigures(const std::string& text) {
    SAttr status('=', "\r\n", "\n", nullptr);
    status.LoadMemory(text.c_str());
    Figures& f = figures_;
    int enable = 0;
    if (!TakeNumber(status, "PPL.StayIn0.Count", &f.stayin) ||
        !TakeNumber(status, "PPL.In0.Count", &f.in) ||
        !TakeNumber(status, "PPL.Out0.Count", &f.out) ||
        !TakeNumber(status, "PPL.StayIn0.Over", &f.over) ||
        !TakeNumber(status, "PPL.StayIn0.Under", &f.under) ||
        !TakeNumber(status, "PPL.Enable", &enable) ||
        !TakeWord(status, "PPL.StayIn0.Status", "Over", "Under", &f.over_alarm) ||
        !TakeWord(status, "PPL.In0.Status", "connect", "disconnect", &f.in_connected) ||
        !TakeWord(status, "PPL.Out0.Status", "connect", "disconnect", &f.out_connected))
        return false;
    f.enabled = enable != 0;
    return true;
}

// A decimal number as the service writes it: an optional minus sign and
// digits, within the range of int.
bool StatusReport::TakeNumber(SAttr& status, const char* key, int* number) {
    const char* value = status.GetKeyValue(key);
    if (value == nullptr) {
        why_ = std::string("the file has no ") + key;
        return false;
    }
    const char* digits = value[0] == '-' ? value + 1 : value;
    char* end = nullptr;
    errno = 0;
    long long parsed = strtoll(value, &end, 10);
    if (digits[0] < '0' || digits[0] > '9' || *end != '\0' || errno != 0 || parsed < INT_MIN ||
        parsed > INT_MAX) {
        why_ = std::string(key) + " is not a number";
        return false;
    }
    *number = static_cast<int>(parsed);
    return true;
}

bool StatusReport::TakeWord(SAttr& status, const char* key, const char* yes, const char* no,
                            bool* flag) {
    const char* value = status.GetKeyValue(key);
    if (value == nullptr) {
        why_ = std::string("the file has no ") + key;
        return false;
    }
    if (strcmp(value, yes) != 0 && strcmp(value, no) != 0) {
        why_ = std::string(key) + " is neither " + yes + " nor " + no;
        return false;
    }
    *flag = strcmp(value, yes) == 0;
    return true;
}

std::string StatusReport::Json() const {
    std::string json = "{";
    Field(&json, "state", Quoted(kStateNames[static_cast<int>(state_)]));
    if (state_ != State::kOk)
        Field(&json, "why", Quoted(why_));
    if (age_known_)
        Field(&json, "age", Seconds(age_ms_));
    if (state_ == State::kOk) {
        const Figures& f = figures_;
        Field(&json, "enabled", Bool(f.enabled));
        Field(&json, "in", std::to_string(f.in));
        Field(&json, "out", std::to_string(f.out));
        Field(&json, "stayin", std::to_string(f.stayin));
        Field(&json, "over", std::to_string(f.over));
        Field(&json, "under", std::to_string(f.under));
        Field(&json, "over_alarm", Bool(f.over_alarm));
        Field(&json, "cameras",
              std::string("{\"in\":") + Bool(f.in_connected) + ",\"out\":" + Bool(f.out_connected) +
                  "}");
    }
    return json + "}";
}
