#ifndef PPL_DISPLAY_STATUS_REPORT_H
#define PPL_DISPLAY_STATUS_REPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include "InstanceLock.h"

class SAttr;

// What the door display may show: the figures of counting group 0 from the
// service's status file, only when that file is the service's own and
// fresh. Otherwise the report says what is there instead (nothing, an old
// file, something another user put there) and carries no figures, so that
// a display never shows an old or made-up figure as the live one.
class StatusReport {
public:
    enum class State { kOk, kStale, kMissing, kUntrusted, kNoFigures };

    virtual ~StatusReport() = default;

    // Where the service keeps its status file and its instance lock; the
    // program uses the fixed places, tests their own.
    struct Places {
        std::string status;
        std::vector<std::string> lock_dirs;
        static Places Fixed();
    };

    // A file older than this was not written by a running service, which
    // rewrites it every second.
    static constexpr int64_t kFreshMs = 5000;
    // A clock set back makes a fresh file look written in the future; by
    // more than this it cannot be vouched for.
    static constexpr int64_t kFutureMs = 1000;

    // Reads the status file as it is at now_ms (real time, milliseconds).
    static StatusReport Read(const Places& places, int64_t now_ms);

    State state() const { return state_; }
    // The answer as one JSON object (docs/display.md gives its schema).
    std::string Json() const;

private:
    struct Figures {
        bool enabled = false;
        int in = 0, out = 0, stayin = 0, over = 0, under = 0;
        bool over_alarm = false;
        bool in_connected = false, out_connected = false;
    };

    // Reads the file as the service's own, the service being holder's user
    // (root when no service runs), with the time it was written. False with
    // the state and why_ set when it is missing or not the service's own.
    bool Load(const std::string& path, const InstanceLock::Holder* holder, std::string* text,
              int64_t* written_ms);
    // False with the state and why_ set when a file of this age was not
    // written by a running service.
    bool Fresh(int64_t age_ms, bool running);
    // Each sets why_ and returns false when the file lacks the key or its
    // value is not what the service writes.
    bool TakeFigures(const std::string& text);
    bool TakeNumber(SAttr& status, const char* key, int* number);
    bool TakeWord(SAttr& status, const char* key, const char* yes, const char* no, bool* flag);

    State state_ = State::kMissing;
    std::string why_;
    bool age_known_ = false;
    int64_t age_ms_ = 0;
    Figures figures_;
};

#endif
