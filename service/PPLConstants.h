#ifndef PPL_CONSTANTS_H
#define PPL_CONSTANTS_H

// The fixed places the service meets the rest of the recorder. Every path and
// queue key lives here; tests point the service elsewhere through
// PPLCounterPlaces, the binary itself always uses these.
namespace ppl {

constexpr const char* kSystemIniPath = "/opt/user/ZV318/INIT/ZV318System.ini";
constexpr const char* kStatusIniPath = "/tmp/PPLCounter.ini";
constexpr const char* kRecordIniPath = "/opt/user/PPLRecord.ini";
constexpr const char* kCommandSocketPath = "/tmp/SI_PPLCOUNTER";
// Held by the running service so that a second one refuses to start. It
// lives in the first of these directories that exists, the service may
// write and no other user may, so that nobody else can create, lock or
// replace it; where neither is, in a directory of the service's own, mode
// 0700, in /tmp.
constexpr const char* kInstanceLockDirs[] = {"/run", "/var/run"};
constexpr const char* kInstanceLockFallbackDir = "/tmp/PPLCounter.lock.d";
constexpr const char* kInstanceLockName = "PPLCounter.lock";
// Largest status file the service reads back (its own is a few hundred
// bytes); anything bigger at that path is not its file.
constexpr long kStatusIniMaxBytes = 64 * 1024;
// Modes of what the service creates in /tmp, whatever umask it inherits:
// the status file is for every reader, the command socket for root and the
// service's group.
constexpr unsigned int kStatusIniMode = 0644;
constexpr unsigned int kCommandSocketMode = 0660;
// 601 (0x259) is the queue the service owns and reads; 259 (decimal) the
// other module's queue it writes. Both values are exactly as they are.
constexpr int kEventInKey = 601;
constexpr int kEventOutKey = 259;

}  // namespace ppl

#endif
