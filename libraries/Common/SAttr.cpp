#include "SAttr.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "UFile.h"
#include "UTextParam.h"
#include "UTextUtil.h"

namespace {

// Saving reserves this much so that a large file is built without regrowth.
const size_t kSaveReserve = 524288;

template <size_t N>
void CopyBounded(char (&to)[N], const char* from) {
    snprintf(to, N, "%s", from == nullptr ? "" : from);
}

}  // namespace

SAttr::SAttr(char separator, const char* terminators, const char* record_separator,
             const char* file_name)
    : m_cSeparator(separator) {
    CopyBounded(m_szTerminators, terminators);
    CopyBounded(m_szRecordSeparator, record_separator);
    CopyBounded(m_szFileName, file_name);
}

SAttr::~SAttr() {}

bool SAttr::LoadFile(const char* path) {
    return LoadFile(path, nullptr);
}

bool SAttr::LoadFile(const char* path, std::string* bytes) {
    SetFilename(path);
    if (bytes != nullptr)
        bytes->clear();
    int64_t size = UFile::GetFileSize(m_szFileName);
    if (size < 0)
        return false;
    if (size == 0)
        return true;
    if (size >= INT_MAX)
        return false;  // GCOVR_EXCL_LINE: a file of 2 GiB or more
    std::unique_ptr<char[]> text(new (std::nothrow) char[size + 1]);
    if (!text)
        return false;  // GCOVR_EXCL_LINE: out of memory
    int length = static_cast<int>(size);
    if (UFile::ReadFile(m_szFileName, text.get(), length) != length)
        return false;
    text[length] = '\0';
    if (bytes != nullptr)
        bytes->assign(text.get(), static_cast<size_t>(length));
    LoadMemory(text.get());
    return true;
}

void SAttr::LoadMemory(const char* text) {
    if (text == nullptr)
        return;
    std::vector<char> copy(text, text + strlen(text) + 1);
    LoadMemory(copy.data());
}

void SAttr::LoadMemory(char* text) {
    UTextParam records(text);
    char* key = nullptr;
    char* value = nullptr;
    while (records.GetNextParam(key, value, m_cSeparator, m_szTerminators)) {
        if (*key != '\0' && *value != '\0')
            SetKeyValue(key, value);
    }
}

// Splits in place without trimming; the second character of a "\r\n" pair
// stays at the front of the next key.
void SAttr::LoadMemory(char* buffer, unsigned int length) {
    if (buffer == nullptr)
        return;
    char* end = buffer + length;
    char* start = buffer;
    while (start < end) {
        char* sep =
            static_cast<char*>(memchr(start, m_cSeparator, static_cast<size_t>(end - start)));
        if (sep == nullptr)
            break;
        *sep = '\0';
        char* value = sep + 1;
        char* stop = value;
        while (stop < end && *stop != '\0' && strchr(m_szTerminators, *stop) == nullptr)
            ++stop;
        if (stop < end)
            *stop = '\0';
        // Lengths are bounded by the buffer: its last value need not be terminated.
        std::string key_text(start, strnlen(start, static_cast<size_t>(sep - start)));
        std::string value_text(value, static_cast<size_t>(stop - value));
        if (!key_text.empty() && !value_text.empty()) {
            SetKeyValue(key_text.c_str(), value_text.c_str());
        }
        start = stop + 1;
    }
}

void SAttr::SaveMemory(std::string& out, bool space_before, bool space_after) {
    bool first = true;
    for (const auto& record : m_mapAttrs) {
        if (!first)
            out += m_szRecordSeparator;
        first = false;
        out += record.first;
        if (space_before)
            out += ' ';
        out += m_cSeparator;
        if (space_after)
            out += ' ';
        out += record.second;
    }
}

bool SAttr::SaveFile(const char* path, bool space_before, bool space_after) {
    SetFilename(path);
    std::string text;
    text.reserve(kSaveReserve);
    SaveMemory(text, space_before, space_after);
    return UFile::WriteFile(m_szFileName, text);
}

void SAttr::SetFilename(const char* path) {
    if (path != nullptr)
        CopyBounded(m_szFileName, path);
}

bool SAttr::HasKey(const char* key) {
    return key != nullptr && m_mapAttrs.find(key) != m_mapAttrs.end();
}

const char* SAttr::GetKeyValue(const char* key) {
    if (key == nullptr)
        return nullptr;
    auto found = m_mapAttrs.find(key);
    return found == m_mapAttrs.end() ? nullptr : found->second.c_str();
}

int SAttr::GetIntValue(const char* key, int base) {
    const char* value = GetKeyValue(key);
    return value == nullptr ? 0 : UTextParam::toIntValue(value, base);
}

unsigned int SAttr::GetUIntValue(const char* key, int base) {
    const char* value = GetKeyValue(key);
    unsigned int number = 0;
    if (value == nullptr)
        return 0;
    switch (base) {
        case 16:
            if (sscanf(value, "0x%x", &number) != 1 && sscanf(value, "%x", &number) != 1)
                return 0;
            return number;
        case 10:
            return sscanf(value, "%u", &number) == 1 ? number : 0;
        case 8:
            if (sscanf(value, "0%o", &number) != 1 && sscanf(value, "%o", &number) != 1)
                return 0;
            return number;
        default:
            return 0;
    }
}

float SAttr::GetFloatValue(const char* key) {
    const char* value = GetKeyValue(key);
    return value == nullptr ? 0.0f : strtof(value, nullptr);
}

void SAttr::SetKeyValue(const char* key, const char* value) {
    if (key == nullptr || value == nullptr)
        return;
    std::string key_text(key);
    // Copy before erasing: value may point into the record being replaced.
    std::string value_text(value);
    m_mapAttrs.erase(key_text);
    m_mapAttrs.emplace(std::move(key_text), std::move(value_text));
}

void SAttr::SetKeyValue(std::string& record) {
    size_t sep = record.find('=');
    if (sep == std::string::npos || sep == 0)
        return;
    std::string key = UTextUtil::Trim(record.substr(0, sep), UTextUtil::WHITESPACE);
    std::string value = UTextUtil::Trim(record.substr(sep + 1), UTextUtil::WHITESPACE);
    m_mapAttrs.erase(key);
    m_mapAttrs.emplace(std::move(key), std::move(value));
}

void SAttr::SetKeyValues(std::list<std::string>& records) {
    for (std::string& record : records)
        SetKeyValue(record);
}

void SAttr::SetIntValue(const char* key, int value, int base) {
    char text[16];
    if (base == 16) {
        snprintf(text, sizeof(text), "%#x", static_cast<unsigned int>(value));
    } else {
        snprintf(text, sizeof(text), "%d", value);
    }
    SetKeyValue(key, text);
}

// Base 16 is stored in decimal too: readers of such keys parse base 10.
void SAttr::SetUIntValue(const char* key, unsigned int value, int base) {
    char text[16];
    if (base == 8) {
        snprintf(text, sizeof(text), "0%o", value);
    } else {
        snprintf(text, sizeof(text), "%u", value);
    }
    SetKeyValue(key, text);
}

bool SAttr::RemoveKey(const char* key) {
    return key != nullptr && m_mapAttrs.erase(key) > 0;
}

void SAttr::GetKeys(std::list<std::string>& keys) {
    for (const auto& record : m_mapAttrs)
        keys.push_back(record.first);
}

void SAttr::GetValues(std::list<std::string>& values) {
    for (const auto& record : m_mapAttrs)
        values.push_back(record.second);
}

void SAttr::GetKeyValues(std::list<std::string>& records) {
    for (const auto& record : m_mapAttrs)
        records.push_back(record.first + "=" + record.second);
}

void SAttr::Clear() {
    m_mapAttrs.clear();
}

size_t SAttr::GetSize() {
    return m_mapAttrs.size();
}

std::map<std::string, std::string>& SAttr::GetRawData() {
    return m_mapAttrs;
}
