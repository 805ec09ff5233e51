#include "UTextParam.h"

#include <arpa/inet.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "UTextUtil.h"

UTextParam::UTextParam(char* text) : m_pText(text), m_pSave(nullptr) {}

UTextParam::~UTextParam() {}

void UTextParam::setTextParam(char* text) {
    m_pText = text;
    m_pSave = nullptr;
}

bool UTextParam::GetNextParam(char*& key, char*& value, char separator, const char* terminators) {
    if (m_pText == nullptr)
        return false;
    for (;;) {
        char* token = strtok_r(m_pSave == nullptr ? m_pText : nullptr, terminators, &m_pSave);
        if (token == nullptr)
            return false;
        char* sep = strchr(token, separator);
        if (sep == nullptr || sep == token)
            continue;
        *sep = '\0';
        key = token;
        value = sep + 1;
        UTextUtil::Trim(key, UTextUtil::WHITESPACE);
        UTextUtil::Trim(value, UTextUtil::WHITESPACE);
        return true;
    }
}

bool UTextParam::getNextParam(char*& key, char*& value, char separator, char terminator) {
    if (m_pText == nullptr || *m_pText == '\0')
        return false;
    char* sep = strchr(m_pText, separator);
    if (sep == nullptr || sep == m_pText)
        return false;
    *sep = '\0';
    key = m_pText;
    value = sep + 1;
    if (*value == '\0') {
        m_pText = nullptr;
        return true;
    }
    char* end = strchr(value, terminator);
    if (end == nullptr) {
        m_pText = nullptr;
    } else {
        *end = '\0';
        m_pText = end + 1;
    }
    return true;
}

char* UTextParam::getNextParam(const char* name, char separator, char terminator) {
    if (m_pText == nullptr)
        return nullptr;
    size_t length = strlen(name);
    if (strncmp(m_pText, name, length) != 0 || m_pText[length] != separator)
        return nullptr;
    char* value = m_pText + length + 1;
    char* end = *value == '\0' ? nullptr : strchr(value, terminator);
    if (end == nullptr) {
        m_pText = nullptr;
    } else {
        *end = '\0';
        m_pText = end + 1;
    }
    return value;
}

int UTextParam::makeTextParam(char* out, int size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    int result = vsnprintf(out, size < 0 ? 0 : static_cast<size_t>(size), format, args);
    va_end(args);
    return result;
}

// A number beyond the range of int reads as the nearest end of it, as strtol
// gives it on the recorder's 32-bit processor; never as a wrapped value.
int UTextParam::toIntValue(const char* text, int base) {
    long long value = strtoll(text, nullptr, base);
    return static_cast<int>(std::clamp<long long>(value, INT_MIN, INT_MAX));
}

bool UTextParam::toIPv4Address(const char* text, uint32_t* address) {
    in_addr parsed;
    if (text == nullptr || inet_aton(text, &parsed) == 0)
        return false;
    *address = parsed.s_addr;
    return true;
}
