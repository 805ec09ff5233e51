// Service and camera configuration from the system configuration file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "PPLCounter.h"
#include "SAttr.h"
#include "ShowLog.h"
#include "Tarn_3DPC_Counter.h"
#include "UBrand_PPL_Counter.h"

namespace {

constexpr int kMaskBits = 32;

// Texts handed to fixed fields keep what fits (size - 1 characters).
std::string Cut(const char* text, size_t field_size) {
    std::string s(text);
    if (s.size() > field_size - 1)
        s.resize(field_size - 1);
    return s;
}

void CopyField(char* field, size_t field_size, const char* text) {
    strncpy(field, text, field_size - 1);
    field[field_size - 1] = '\0';
}

}  // namespace

std::string PPLCounter::ComposeKey(std::stringstream& stream, const char* head, long number,
                                   const char* tail) {
    stream.str("");
    stream.clear();
    stream << head << number << tail;
    return stream.str();
}

void PPLCounter::StopLapiCounters() {
    for (UBrand_PPL_Counter* counter : lapi_counters)
        counter->stop();
}

// The counter that serves a camera index, or null when the index names none:
// the 3DPC counter serves every index that fits the mask, a LAPI index must
// be one of the four counters.
Abstract_PPL_Counter* PPLCounter::CounterForCamera(int camera) {
    if (use_3dpc == 1) {
        return (camera >= 0 && camera < kMaskBits) ? counter_3dpc : nullptr;
    }
    return LapiCounter(camera);
}

UBrand_PPL_Counter* PPLCounter::LapiCounter(long camera) {
    if (camera < 0 || camera >= ppl::kLapiCounters)
        return nullptr;
    return lapi_counters[camera];
}

// The system configuration is the whole recorder's: every other module's
// keys are in it too. It is created, empty, only where there is none. A file
// that exists but cannot be loaded (another module rewriting it, unreadable,
// too big) is never written: it is tried once more, then the pass reads as
// every key missing.
void PPLCounter::LoadSystemIni(SAttr& ini) {
    const char* path = where.system_ini.c_str();
    if (ini.LoadFile(path))
        return;
    struct stat st;
    if (lstat(path, &st) != 0 && errno == ENOENT) {
        int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd >= 0)
            close(fd);
        return;
    }
    if (!ini.LoadFile(path))
        ShowLog("PPLCounter::ReadIni(), %s cannot be loaded; read as empty, left as it is\n", path);
}

bool PPLCounter::ReadIni() {
    SAttr ini('=', "\r\n", "\n", nullptr);
    LoadSystemIni(ini);
    lapi_cam_mask = 0;

    group_num = ini.GetUIntValue("SERV_PPL_NUM", 10);
    std::cout << "PPL Grp Num: " << group_num << std::endl;
    if (group_num > 1) {
        std::cout << "Max PPL Group Num is " << 1 << std::endl;
        group_num = 1;
    }

    enable = ini.GetIntValue("SERV_PPL_ENABLE", 10);
    std::cout << "PPL Service Enable: " << enable << std::endl;
    if (enable == 0) {
        StopLapiCounters();
        counter_3dpc->stop();
        return true;
    }

    if (ini.HasKey("SERV_PPL_TYPE")) {
        use_3dpc = strcmp(ini.GetKeyValue("SERV_PPL_TYPE"), "3DPCV2") == 0 ? 1 : 0;
    }
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
    const std::string key =
        ComposeKey(cfg_key_stream, in ? "SERV_PPL_IN_" : "SERV_PPL_OUT_", g, "_CAM");
    if (!ini.HasKey(key.c_str()))
        return;
    int c = ini.GetIntValue(key.c_str(), 10);
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
    } kLimits[] = {{"_OVER", "PPL Alarm Over: ", true}, {"_UNDER", "PPL Alarm Under: ", false}};
    for (const auto& limit : kLimits) {
        const std::string key = ComposeKey(cfg_key_stream, "SERV_PPL_STAYIN_", g, limit.tail);
        if (!ini.HasKey(key.c_str()))
            continue;  // the limit stays as it was
        int value = ini.GetIntValue(key.c_str(), 10);
        {
            std::lock_guard<std::mutex> guard(alarm_lock);
            (limit.over ? stayin_limits[g].first : stayin_limits[g].second) = value;
        }
        std::cout << limit.label << value << std::endl;
    }
}

// Fills the record key by key; false (after naming the missing key) when the
// group's settings are incomplete.
bool PPLCounter::ReadGroupSettings(SAttr& ini, unsigned int g, _PPL_CAM_SETTINGS& record) {
    static const char* const kTails[] = {"_RESET_ENABLE", "_RESET_TIME", "_REPORT_INTERVAL",
                                         "_SENSITIVITY", "_CLEAR_COUNT"};
    for (int step = 0; step < 5; ++step) {
        const std::string key = ComposeKey(cfg_key_stream, "SERV_PPL_SETTINGS_", g, kTails[step]);
        if (!ini.HasKey(key.c_str())) {
            std::cout << "PPL config is incomplete: " << key << std::endl;
            return false;
        }
        switch (step) {
            case 0:
                record.ResetEnable = ini.GetIntValue(key.c_str(), 10);
                std::cout << "PPL Reset Time Enable: " << record.ResetEnable << std::endl;
                break;
            case 1:
                CopyField(record.ResetTime, sizeof(record.ResetTime), ini.GetKeyValue(key.c_str()));
                std::cout << "PPL Reset Time: " << record.ResetTime << std::endl;
                break;
            case 2:
                record.ReportInterval = ini.GetIntValue(key.c_str(), 10);
                std::cout << "PPL Report Interval: " << record.ReportInterval << std::endl;
                if (use_3dpc == 1)
                    counter_3dpc->SetDeviceInterval(record.ReportInterval);
                break;
            case 3:
                record.Sensitivity = ini.GetIntValue(key.c_str(), 10);
                std::cout << "PPL Sensitivity: " << record.Sensitivity << std::endl;
                break;
            default:
                record.ClearCounts = ini.GetIntValue(key.c_str(), 10);
                std::cout << "PPL Clear Counts: " << record.ClearCounts << std::endl;
                break;
        }
    }
    return true;
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
    for (int n = 0; n < ppl::kLapiCounters; ++n) {
        if (mask & (1u << n)) {
            lapi_counters[n]->start();
        } else {
            lapi_counters[n]->stop();
        }
    }
}

int PPLCounter::ReadCamIni() {
    SAttr ini('=', "\r\n", "\n", nullptr);
    ini.LoadFile(where.system_ini.c_str());
    if (use_3dpc == 1) {
        ReadCamIni3DPC(ini);
        return 1;
    }
    for (int n = 0; n < ppl::kLapiCounters; ++n) {
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
    const char* value = ini.GetKeyValue("SERV_PPL_CAM_0_IP");
    if (value != nullptr && Cut(value, sizeof(DeviceInfo::IP)) != ip) {
        counter_3dpc->SetDeviceIP(value);
        changed = true;
    }
    value = ini.GetKeyValue("SERV_PPL_CAM_0_HTTP");
    if (value != nullptr && Cut(value, sizeof(DeviceInfo::HttpPort)) != port) {
        counter_3dpc->SetDeviceHttpPort(value);
        changed = true;
    }
    value = ini.GetKeyValue("SERV_PPL_CAM_0_USERNAME");
    if (value != nullptr && Cut(value, sizeof(DeviceInfo::UserName)) != user) {
        user = value;
        counter_3dpc->SetDeviceAccount(user, password);
        changed = true;
    }
    value = ini.GetKeyValue("SERV_PPL_CAM_0_PASSWORD");
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
    const char* ip = ini.GetKeyValue(ComposeKey(cfg_key_stream, "SERV_PPL_CAM_", n, "_IP").c_str());
    if (ip != nullptr) {
        std::string current = counter->get_server_addr();
        if (current.empty()) {
            counter->set_server_addr(ip);
        } else if (current != ip) {
            counter->set_server_addr(ip);
            changed = true;
        }
    }
    const std::string http = ComposeKey(cfg_key_stream, "SERV_PPL_CAM_", n, "_HTTP");
    if (ini.HasKey(http.c_str())) {
        int port = ini.GetIntValue(http.c_str(), 10);
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
    ini.LoadFile(where.system_ini.c_str());
    struct Field {
        const char* tail;
        char* dest;
        size_t size;
    } fields[] = {{"_IP", info.IP, sizeof(info.IP)},
                  {"_HTTP", info.HttpPort, sizeof(info.HttpPort)},
                  {"_USERNAME", info.UserName, sizeof(info.UserName)},
                  {"_PASSWORD", info.Password, sizeof(info.Password)}};
    for (const Field& f : fields) {
        const char* value =
            ini.GetKeyValue(ComposeKey(cfg_key_stream, "SERV_PPL_CAM_", camera, f.tail).c_str());
        if (value == nullptr) {
            std::cout << "PPL Cam config is incomplete" << std::endl;
            return false;
        }
        CopyField(f.dest, f.size, value);
    }
    return true;
}

bool PPLCounter::GetCamInfo(int camera, std::string& address, int& port) {
    SAttr ini('=', "\r\n", "\n", nullptr);
    ini.LoadFile(where.system_ini.c_str());
    const char* ip =
        ini.GetKeyValue(ComposeKey(cfg_key_stream, "SERV_PPL_CAM_", camera, "_IP").c_str());
    if (ip != nullptr)
        address = ip;
    const std::string http = ComposeKey(cfg_key_stream, "SERV_PPL_CAM_", camera, "_HTTP");
    if (ini.HasKey(http.c_str()))
        port = ini.GetIntValue(http.c_str(), 10);
    return true;
}
