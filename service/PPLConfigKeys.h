#ifndef PPL_CONFIG_KEYS_H
#define PPL_CONFIG_KEYS_H

// Every key the service reads from the recorder's system configuration file,
// and the bounds of the numbers they carry. The service's reader, pplctl's
// configuration check and the tests' standard configuration spell keys from
// here only. A key that carries a group or camera number is a head, the
// number in decimal and a tail: "SERV_PPL_IN_" 0 "_CAM".
namespace ppl {

// Keys of the whole service.
constexpr const char* kKeyGroupCount = "SERV_PPL_NUM";
constexpr const char* kKeyEnable = "SERV_PPL_ENABLE";
constexpr const char* kKeyCameraKind = "SERV_PPL_TYPE";
// The one camera kind that selects the 3DPC counter; any other text selects
// LAPI cameras.
constexpr const char* kCameraKind3DPC = "3DPCV2";
// What every key of the service begins with.
constexpr const char* kKeyPrefix = "SERV_PPL_";

// Groups: the service reads one at most, whatever the group count says.
constexpr unsigned int kMaxGroups = 1;
// Keys of group <g>: its in and out cameras, its stay-in limits.
constexpr const char* kInCameraHead = "SERV_PPL_IN_";
constexpr const char* kOutCameraHead = "SERV_PPL_OUT_";
constexpr const char* kCameraSideTail = "_CAM";
constexpr const char* kStayinHead = "SERV_PPL_STAYIN_";
constexpr const char* kOverTail = "_OVER";
constexpr const char* kUnderTail = "_UNDER";
// The settings keys of group <g>, in the order the service reads them: the
// first one missing leaves the group's settings as they were.
constexpr const char* kSettingsHead = "SERV_PPL_SETTINGS_";
enum SettingsKey {
    kResetEnable,
    kResetTime,
    kReportInterval,
    kSensitivity,
    kClearCount,
    kSettingsKeys
};
constexpr const char* kSettingsTails[kSettingsKeys] = {
    "_RESET_ENABLE", "_RESET_TIME", "_REPORT_INTERVAL", "_SENSITIVITY", "_CLEAR_COUNT"};

// Keys of camera <n>: address, HTTP port and account.
constexpr const char* kCameraHead = "SERV_PPL_CAM_";
enum CameraKey { kCameraAddress, kCameraPort, kCameraUser, kCameraPassword, kCameraKeys };
constexpr const char* kCameraTails[kCameraKeys] = {"_IP", "_HTTP", "_USERNAME", "_PASSWORD"};

// Camera indexes a group may name: one bit each of the service's camera mask.
// The 3DPC counter serves any of them (and reads camera 0's keys).
constexpr int kCameraIndexes = 32;
// LAPI cameras are channels 0 to 3, one counter each.
constexpr int kLapiChannels = 4;

}  // namespace ppl

#endif
