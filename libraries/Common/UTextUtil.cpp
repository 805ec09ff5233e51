#include "UTextUtil.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "UTextParam.h"

namespace {

const char* SkipBlanks(const char* text) {
    while (*text == ' ')
        ++text;
    return text;
}

// Value start after the separator that follows an occurrence of key.
const char* ValueAfterKey(const char* occurrence, const char* key, char separator) {
    const char* sep = strchr(occurrence + strlen(key), separator);
    return sep == nullptr ? nullptr : sep + 1;
}

// The first occurrence of key that a blank or the separator follows directly.
const char* FindExactOccurrence(const char* text, const char* key, char separator) {
    size_t key_length = strlen(key);
    if (key_length == 0)
        return nullptr;
    for (const char* at = strstr(text, key); at != nullptr; at = strstr(at + 1, key)) {
        char next = at[key_length];
        if (next == ' ' || (next == separator && next != '\0'))
            return at;
    }
    return nullptr;
}

int CopyWithoutTrailingBlanks(const char* value, int length, char* out, int size) {
    int copied = length < size - 1 ? length : size - 1;
    memcpy(out, value, copied);
    while (copied > 0 && out[copied - 1] == ' ')
        --copied;
    out[copied] = '\0';
    return copied;
}

thread_local char* tTokenSave = nullptr;

}  // namespace

UTextUtil::~UTextUtil() {}

void UTextUtil::Trim(char*& text, const char* set) {
    while (*text != '\0' && strchr(set, *text) != nullptr)
        ++text;
    size_t length = strlen(text);
    if (length == 0)
        return;
    // The first remaining character is never removed.
    for (char* end = text + length - 1; end > text && strchr(set, *end) != nullptr; --end) {
        *end = '\0';
    }
}

char* UTextUtil::TrimStr(char* text, const char* set) {
    Trim(text, set);
    return text;
}

std::string UTextUtil::Trim(std::string text, const char* set) {
    size_t first = text.find_first_not_of(set);
    if (first == std::string::npos)
        return std::string();
    size_t last = text.find_last_not_of(set);
    return text.substr(first, last - first + 1);
}

const char* UTextUtil::findKey(const char* text, const char* key, char separator) {
    const char* at = strstr(text, key);
    if (at == nullptr)
        return nullptr;
    const char* value = ValueAfterKey(at, key, separator);
    return value == nullptr ? nullptr : SkipBlanks(value);
}

bool UTextUtil::findKey(const char* text, const char* key, char separator, const char* stops,
                        char** value, int* length) {
    const char* at = strstr(text, key);
    const char* found = at == nullptr ? nullptr : ValueAfterKey(at, key, separator);
    if (found == nullptr)
        return false;
    *value = const_cast<char*>(found);
    *length = static_cast<int>(strcspn(found, stops));
    return true;
}

bool UTextUtil::findKeyExact(const char* text, const char* key, char separator, const char* stops,
                             char** value, int* length) {
    const char* at = FindExactOccurrence(text, key, separator);
    const char* found = at == nullptr ? nullptr : ValueAfterKey(at, key, separator);
    if (found == nullptr)
        return false;
    *value = const_cast<char*>(found);
    *length = static_cast<int>(strcspn(found, stops));
    return true;
}

int UTextUtil::findKeyExact(const char* text, const char* key, char separator, const char* stops,
                            char* out, int size) {
    char* value = nullptr;
    int length = 0;
    if (size < 1 || !findKeyExact(text, key, separator, stops, &value, &length))
        return -1;
    return CopyWithoutTrailingBlanks(value, length, out, size);
}

bool UTextUtil::findKeyExact(const char* text, const char* key, char separator, const char* stops,
                             int* number) {
    char digits[16];
    if (findKeyExact(text, key, separator, stops, digits, sizeof(digits)) < 0)
        return false;
    *number = UTextParam::toIntValue(digits, 10);
    return true;
}

const char* UTextUtil::findValue(const char* text, char separator) {
    const char* sep = strchr(text, separator);
    return sep == nullptr ? nullptr : SkipBlanks(sep + 1);
}

void UTextUtil::split(char* text, const char* delimiters, std::list<char*>& tokens) {
    char* save = nullptr;
    for (char* token = strtok_r(text, delimiters, &save); token != nullptr;
         token = strtok_r(nullptr, delimiters, &save)) {
        tokens.push_back(token);
    }
}

std::list<std::string> UTextUtil::tokenize(const std::string& text, const std::string& delimiters) {
    std::list<std::string> tokens;
    if (text.empty())
        return tokens;
    size_t start = 0;
    for (size_t next = text.find_first_of(delimiters); next != std::string::npos;
         next = text.find_first_of(delimiters, start)) {
        tokens.push_back(Trim(text.substr(start, next - start), WHITESPACE));
        start = next + 1;
    }
    tokens.push_back(Trim(text.substr(start), WHITESPACE));
    return tokens;
}

std::string UTextUtil::implode(const std::list<std::string>& items, std::string glue) {
    std::string joined;
    for (const std::string& item : items) {
        if (&item != &items.front())
            joined += glue;
        joined += item;
    }
    return joined;
}

void UTextUtil::Replace(char* text, char from, char to) {
    for (; *text != '\0'; ++text) {
        if (*text == from)
            *text = to;
    }
}

void UTextUtil::ToLower(char* text) {
    for (; *text != '\0'; ++text)
        *text = static_cast<char>(tolower(static_cast<unsigned char>(*text)));
}

void UTextUtil::ToUpper(char* text) {
    for (; *text != '\0'; ++text)
        *text = static_cast<char>(toupper(static_cast<unsigned char>(*text)));
}

char* UTextUtil::firstToken(char* text, const char* delimiters) {
    return strtok_r(text, delimiters, &tTokenSave);
}

char* UTextUtil::nextToken(const char* delimiters) {
    if (tTokenSave == nullptr)
        return nullptr;
    return strtok_r(nullptr, delimiters, &tTokenSave);
}
