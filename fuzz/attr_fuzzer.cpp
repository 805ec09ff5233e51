// The attribute store's parsers: configuration files, commands and module
// events all go through them. The text parser's records must come out
// trimmed, non-empty and free of record ends, and a store written back must
// read back to the same records; the buffer parser gets a buffer without a
// terminating zero, allocated to the byte.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "SAttr.h"
#include "UTextParam.h"

namespace {

const char kWhitespace[] = " \f\n\t\r\v";

void Check(bool ok) {
    if (!ok)
        abort();
}

bool Trimmed(const std::string& s) {
    return !s.empty() && strchr(kWhitespace, s.front()) == nullptr &&
           strchr(kWhitespace, s.back()) == nullptr;
}

// Records as the text parser leaves them; then written and read again.
void TextParser(const char* text, const char* terminators, const char* record_separator) {
    SAttr store('=', terminators, record_separator, nullptr);
    store.LoadMemory(text);
    for (const auto& record : store.GetRawData()) {
        Check(Trimmed(record.first) && Trimmed(record.second));
        Check(record.first.find('=') == std::string::npos);
        Check(record.first.find_first_of(terminators) == std::string::npos);
        Check(record.second.find_first_of(terminators) == std::string::npos);
    }
    for (bool spaces : {false, true}) {
        std::string saved;
        store.SaveMemory(saved, spaces, spaces);
        SAttr again('=', terminators, record_separator, nullptr);
        again.LoadMemory(saved.c_str());
        Check(again.GetRawData() == store.GetRawData());
    }
    for (const auto& record : store.GetRawData()) {
        const char* key = record.first.c_str();
        for (int base : {2, 8, 10, 16})
            (void)store.GetUIntValue(key, base), (void)store.GetIntValue(key, base);
        (void)store.GetFloatValue(key);
    }
}

void BufferParser(const uint8_t* data, size_t size, const char* terminators) {
    std::unique_ptr<char[]> buffer(new char[size == 0 ? 1 : size]);
    memcpy(buffer.get(), data, size);
    SAttr store('=', terminators, "\n", nullptr);
    store.LoadMemory(buffer.get(), static_cast<unsigned int>(size));
    for (const auto& record : store.GetRawData())
        Check(!record.first.empty() && !record.second.empty());
}

void Records(const char* text) {
    SAttr store('=', "&", "&", nullptr);
    std::list<std::string> records;
    const char* from = text;
    while (true) {
        const char* end = strchr(from, '\n');
        records.emplace_back(from, end == nullptr ? strlen(from) : static_cast<size_t>(end - from));
        if (end == nullptr)
            break;
        from = end + 1;
    }
    store.SetKeyValues(records);
    std::list<std::string> back;
    store.GetKeyValues(back);
    Check(back.size() == store.GetSize());
}

void Cursor(const char* text) {
    std::vector<char> copy(text, text + strlen(text) + 1);
    UTextParam cursor(copy.data());
    char* key = nullptr;
    char* value = nullptr;
    for (int i = 0; i < 1000 && cursor.getNextParam(key, value, '=', '&'); ++i)
        Check(key != nullptr && value != nullptr);
    std::vector<char> again(text, text + strlen(text) + 1);
    UTextParam named(again.data());
    while (named.getNextParam("action", '=', '&') != nullptr) {
    }
}

// A whole file through LoadFile, from memory so that no disk is touched.
void File(const uint8_t* data, size_t size) {
    static int fd = memfd_create("attr_fuzzer", MFD_CLOEXEC);
    if (fd < 0)
        return;
    if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
        return;
    std::string path = "/proc/self/fd/" + std::to_string(fd);
    SAttr store('=', "\r\n", "\n", nullptr);
    Check(store.LoadFile(path.c_str()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);  // cut at a zero byte
    TextParser(text.c_str(), "\r\n", "\n");
    TextParser(text.c_str(), "&", "&");
    BufferParser(data, size, "\r\n");
    BufferParser(data, size, "&");
    Records(text.c_str());
    Cursor(text.c_str());
    File(data, size);
    return 0;
}
