#include "PPLSystemIni.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "SAttr.h"

namespace ppl {

namespace {

// Why the file at path could not be loaded, in the C library's words.
std::string WhyNotLoaded(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return strerror(errno);
    if (S_ISDIR(st.st_mode))
        return strerror(EISDIR);
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return strerror(errno);
    close(fd);
    return "it could not be read whole";
}

}  // namespace

IniLoad LoadSystemIni(SAttr& ini, const std::string& path, std::string* text, std::string* why) {
    if (ini.LoadFile(path.c_str(), text))
        return IniLoad::Loaded;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 && errno == ENOENT) {
        if (why != nullptr)
            *why = strerror(ENOENT);
        return IniLoad::Missing;
    }
    if (ini.LoadFile(path.c_str(), text))
        return IniLoad::Loaded;
    if (why != nullptr)
        *why = WhyNotLoaded(path);
    return IniLoad::Unreadable;
}

std::string ComposeKey(std::stringstream& stream, const char* head, long number, const char* tail) {
    stream.str("");
    stream.clear();
    stream << head << number << tail;
    return stream.str();
}

int ReadNumber(SAttr& ini, const std::string& key) {
    return ini.GetIntValue(key.c_str(), 10);
}

unsigned int ReadUnsigned(SAttr& ini, const std::string& key) {
    return ini.GetUIntValue(key.c_str(), 10);
}

bool NamesCounter(bool tdpc, long camera) {
    return camera >= 0 && camera < (tdpc ? kCameraIndexes : kLapiChannels);
}

bool ReadGroupSettings(SAttr& ini, std::stringstream& stream, unsigned int g,
                       _PPL_CAM_SETTINGS& record,
                       const std::function<void(SettingsKey, const std::string&)>& read,
                       std::string* missing) {
    int* const numbers[kSettingsKeys] = {&record.ResetEnable, nullptr, &record.ReportInterval,
                                         &record.Sensitivity, &record.ClearCounts};
    for (int step = 0; step < kSettingsKeys; ++step) {
        const std::string key = ComposeKey(stream, kSettingsHead, g, kSettingsTails[step]);
        if (!ini.HasKey(key.c_str())) {
            *missing = key;
            return false;
        }
        if (numbers[step] != nullptr)
            *numbers[step] = ReadNumber(ini, key);
        else
            CopyField(record.ResetTime, sizeof(record.ResetTime), ini.GetKeyValue(key.c_str()));
        read(static_cast<SettingsKey>(step), key);
    }
    return true;
}

void CopyField(char* field, size_t size, const char* text) {
    strncpy(field, text, size - 1);
    field[size - 1] = '\0';
}

}  // namespace ppl
