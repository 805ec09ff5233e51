// Service and camera configuration from the system configuration file.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <iostream>

#include "PPLCounter.h"
#include "PPLSystemIni.h"
#include "SAttr.h"
#include "ShowLog.h"
#include "Tarn_3DPC_Counter.h"
#include "UBrand_PPL_Counter.h"

namespace {

// Texts handed to fixed fields keep what fits (size - 1 characters).
std::string Cut(const char* text, size_t field_size) {
    std::string s(text);
    if (s.size() > field_size - 1)
        s.resize(field_size - 1);
    return s;
}

}  // namespace

std::string PPLCounter::KeyOfCamera(int camera, ppl::CameraKey key) {
    return ppl::ComposeKey(cfg_key_stream, ppl::kCameraHead, camera, ppl::kCameraTails[key]);
}

void PPLCounter::StopLapiCounters() {
    for (UBrand_PPL_Counter* counter : lapi_counters)
        counter->stop();
}

// The counter that serves a camera index, or null when the index names none:
// the 3DPC counter serves every index that fits the mask, a LAPI index must
// be one of the four counters.
Abstract_PPL_Counter* PPLCounter::CounterForCamera(int camera) {
    if (use_3dpc == 1)
        return ppl::NamesCounter(true, camera) ? counter_3dpc : nullptr;
    return LapiCounter(camera);
}

UBrand_PPL_Counter* PPLCounter::LapiCounter(long camera) {
    return ppl::NamesCounter(false, camera) ? lapi_counters[camera] : nullptr;
}

// The system configuration is the whole recorder's: every other module's
// keys are in it too. It is created, empty, only where there is none. A file
// that exists but cannot be loaded (another module rewriting it, unreadable,
// too big) is never written: the pass reads as every key missing.
void PPLCounter::LoadSystemIni(SAttr& ini) {
    const char* path = where.system_ini.c_str();
    switch (ppl::LoadSystemIni(ini, where.system_ini)) {
        case ppl::IniLoad::Loaded:
            return;
        case ppl::IniLoad::Missing: {
            int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
            if (fd >= 0)
                close(fd);
            return;
        }
        case ppl::IniLoad::Unreadable:
            ShowLog("PPLCounter::ReadIni(), %s cannot be loaded; read as empty, left as it is\n",
                    path);
            return;
    }
}

bool PPLCounter::ReadIni() {
    SAttr ini('=', "\r\n", "\n", nullptr);
    LoadSystemIni(ini);
    lapi_cam_mask = 0;

    group_num = ppl::ReadUnsigned(ini, ppl::kKeyGroupCount);
    std::cout << "PPL Grp Num: " << group_num << std::endl;
    if (group_num > ppl::kMaxGroups) {
        std::cout << "Max PPL Group Num is " << ppl::kMaxGroups << std::endl;
        group_num = ppl::kMaxGroups;
    }

    enable = ppl::ReadNumber(ini, ppl::kKeyEnable);
    std::cout << "PPL Service Enable: " << enable << std::endl;
    if (enable == 0) {
        StopLapiCounters();
        counter_3dpc->stop();
        return true;
    }

    if (ini.HasKey(ppl::kKeyCameraKind))
        use_3dpc = strcmp(ini.GetKeyValue(ppl::kKeyCameraKind), ppl::kCameraKind3DPC) == 0 ? 1 : 0;
    if (use_3dpc == 1) {
        StopLapiCounters();
        group_num = 1;
    } else {
        counter_3dpc->stop();
    }
    for (uint32_t g = 0; g < group_num; ++g)
        ReadGroup(ini, g);
    StartSelectedCounters();
    return true;
}

void PPLCounter::ReadGroup(SAttr& ini, unsigned int g) {
    PPL_Counter_Group* group = groups[g];
    std::pair<int, int> old_pair;
    group->get_cam_pair(old_pair);
    group->clear();
    ReadGroupCamera(ini, g, true);
    ReadGroupCamera(ini, g, false);
    ReadGroupLimits(ini, g);

    _PPL_CAM_SETTINGS record;
    memset(&record, 0, sizeof(record));
    if (!ReadGroupSettings(ini, g, record))
        return;
    if (group->compare_ppl_settings(record) && group->compare_cam_pair(old_pair)) {
        std::cout << "PPL settings are the same." << std::endl;
    } else {
        std::cout << "PPL settings are different." << std::endl;
        group->set_ppl_settings(record);
    }
}

// The out side passes through direction 3 on its way to OUT, so a camera that
// is both the in and the out camera (set IN just before) ends DUAL.
void PPLCounter::ReadGroupCamera(SAttr& ini, unsigned int g, bool in) {
    const std::string key = ppl::ComposeKey(
        cfg_key_stream, in ? ppl::kInCameraHead : ppl::kOutCameraHead, g, ppl::kCameraSideTail);
    if (!ini.HasKey(key.c_str()))
        return;
    int c = ppl::ReadNumber(ini, key);
    std::cout << (in ? "PPL In Cam: " : "PPL Out Cam: ") << c << std::endl;
    Abstract_PPL_Counter* counter = CounterForCamera(c);
    if (counter == nullptr)
        return;  // names no counter: no bit, no pair
    lapi_cam_mask |= 1u << c;
    PPL_Counter_Group* group = groups[g];
    if (in) {
        counter->set_dir(PPL_DIR_IN);
    } else {
        std::pair<int, int> pair;
        group->get_cam_pair(pair);
        if (c != pair.first)
            counter->set_dir(PPL_DIR_TRANSIT);
        counter->set_dir(counter->get_dir() != 0 ? PPL_DIR_OUT : PPL_DIR_DUAL);
    }
    group->add_ppl_counter(counter);
    group->set_cam_pair(in, c);
}

void PPLCounter::ReadGroupLimits(SAttr& ini, unsigned int g) {
    static const struct {
        const char* tail;
        const char* label;
        bool over;
    } kLimits[] = {{ppl::kOverTail, "PPL Alarm Over: ", true},
                   {ppl::kUnderTail, "PPL Alarm Under: ", false}};
    for (const auto& limit : kLimits) {
        const std::string key = ppl::ComposeKey(cfg_key_stream, ppl::kStayinHead, g, limit.tail);
        if (!ini.HasKey(key.c_str()))
            continue;  // the limit stays as it was
        int value = ppl::ReadNumber(ini, key);
        {
            std::lock_guard<std::mutex> guard(alarm_lock);
            (limit.over ? stayin_limits[g].first : stayin_limits[g].second) = value;
        }
        std::cout << limit.label << value << std::endl;
    }
}

// Fills the record key by key, printing each value as it is read; false
// (after naming the missing key) when the group's settings are incomplete.
bool PPLCounter::ReadGroupSettings(SAttr& ini, unsigned int g, _PPL_CAM_SETTINGS& record) {
    std::string missing;
    auto print = [&](ppl::SettingsKey step, const std::string&) {
        switch (step) {
            case ppl::kResetEnable:
                std::cout << "PPL Reset Time Enable: " << record.ResetEnable << std::endl;
                break;
            case ppl::kResetTime:
                std::cout << "PPL Reset Time: " << record.ResetTime << std::endl;
                break;
            case ppl::kReportInterval:
                std::cout << "PPL Report Interval: " << record.ReportInterval << std::endl;
                if (use_3dpc == 1)
                    counter_3dpc->SetDeviceInterval(record.ReportInterval);
                break;
            case ppl::kSensitivity:
                std::cout << "PPL Sensitivity: " << record.Sensitivity << std::endl;
                break;
            default:
                std::cout << "PPL Clear Counts: " << record.ClearCounts << std::endl;
                break;
        }
    };
    if (ppl::ReadGroupSettings(ini, cfg_key_stream, g, record, print, &missing))
        return true;
    std::cout << "PPL config is incomplete: " << missing << std::endl;
    return false;
}

// The 3DPC counter runs only when camera index 0 is named; LAPI counters run
// exactly when their bit is set.
void PPLCounter::StartSelectedCounters() {
    uint32_t mask = lapi_cam_mask;
    if (use_3dpc == 1) {
        if (mask & 1u) {
            counter_3dpc->SetAPIType(E_PC_API_COUNTING);  // use_3dpc, that is 1
            counter_3dpc->start();
        } else {
            counter_3dpc->stop();
        }
        return;
    }
    for (int n = 0; n < ppl::kLapiChannels; ++n) {
        if (mask & (1u << n)) {
            lapi_counters[n]->start();
        } else {
            lapi_counters[n]->stop();
        }
    }
}

int PPLCounter::ReadCamIni() {
    SAttr ini('=', "\r\n", "\n", nullptr);
    ppl::LoadSystemIni(ini, where.system_ini);
    if (use_3dpc == 1) {
        ReadCamIni3DPC(ini);
        return 1;
    }
    for (int n = 0; n < ppl::kLapiChannels; ++n) {
        if (lapi_cam_mask & (1u << n))
            ReadCamIniLapi(ini, n);
    }
    return 1;
}

// Values are compared as the counter can hold them, so an over-long text does
// not look changed on every reload.
void PPLCounter::ReadCamIni3DPC(SAttr& ini) {
    std::string ip, port, user, password;
    counter_3dpc->GetDeviceInfo(ip, port);
    counter_3dpc->GetDeviceAccount(user, password);
    bool changed = false;
    const char* value = ini.GetKeyValue(KeyOfCamera(0, ppl::kCameraAddress).c_str());
    if (value != nullptr && Cut(value, sizeof(DeviceInfo::IP)) != ip) {
        counter_3dpc->SetDeviceIP(value);
        changed = true;
    }
    value = ini.GetKeyValue(KeyOfCamera(0, ppl::kCameraPort).c_str());
    if (value != nullptr && Cut(value, sizeof(DeviceInfo::HttpPort)) != port) {
        counter_3dpc->SetDeviceHttpPort(value);
        changed = true;
    }
    value = ini.GetKeyValue(KeyOfCamera(0, ppl::kCameraUser).c_str());
    if (value != nullptr && Cut(value, sizeof(DeviceInfo::UserName)) != user) {
        user = value;
        counter_3dpc->SetDeviceAccount(user, password);
        changed = true;
    }
    value = ini.GetKeyValue(KeyOfCamera(0, ppl::kCameraPassword).c_str());
    if (value != nullptr && Cut(value, sizeof(DeviceInfo::Password)) != password) {
        counter_3dpc->SetDeviceAccount(user, value);
        changed = true;
    }
    if (changed)
        counter_3dpc->reconnect();
}

// The first address given to a counter does not reconnect it; a later change
// does. A changed port reconnects whatever the address did.
void PPLCounter::ReadCamIniLapi(SAttr& ini, int n) {
    UBrand_PPL_Counter* counter = lapi_counters[n];
    bool changed = false;
    const char* ip = ini.GetKeyValue(KeyOfCamera(n, ppl::kCameraAddress).c_str());
    if (ip != nullptr) {
        std::string current = counter->get_server_addr();
        if (current.empty()) {
            counter->set_server_addr(ip);
        } else if (current != ip) {
            counter->set_server_addr(ip);
            changed = true;
        }
    }
    const std::string http = KeyOfCamera(n, ppl::kCameraPort);
    if (ini.HasKey(http.c_str())) {
        int port = ppl::ReadNumber(ini, http);
        if (port != counter->get_server_port()) {
            counter->set_server_port(port);
            counter->reconnect();
            return;
        }
    }
    if (changed)
        counter->reconnect();
}

bool PPLCounter::GetCamInfo(int camera, CamInfo& info) {
    SAttr ini('=', "\r\n", "\n", nullptr);
    ppl::LoadSystemIni(ini, where.system_ini);
    struct Field {
        char* dest;
        size_t size;
    } fields[ppl::kCameraKeys] = {{info.IP, sizeof(info.IP)},
                                  {info.HttpPort, sizeof(info.HttpPort)},
                                  {info.UserName, sizeof(info.UserName)},
                                  {info.Password, sizeof(info.Password)}};
    for (int key = 0; key < ppl::kCameraKeys; ++key) {
        const char* value = ini.GetKeyValue(KeyOfCamera(camera, ppl::CameraKey(key)).c_str());
        if (value == nullptr) {
            std::cout << "PPL Cam config is incomplete" << std::endl;
            return false;
        }
        ppl::CopyField(fields[key].dest, fields[key].size, value);
    }
    return true;
}

bool PPLCounter::GetCamInfo(int camera, std::string& address, int& port) {
    SAttr ini('=', "\r\n", "\n", nullptr);
    ppl::LoadSystemIni(ini, where.system_ini);
    const char* ip = ini.GetKeyValue(KeyOfCamera(camera, ppl::kCameraAddress).c_str());
    if (ip != nullptr)
        address = ip;
    const std::string http = KeyOfCamera(camera, ppl::kCameraPort);
    if (ini.HasKey(http.c_str()))
        port = ppl::ReadNumber(ini, http);
    return true;
}
