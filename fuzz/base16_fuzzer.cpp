// Base-16 text from outside: a decode that succeeds gives bytes that encode
// back to the same digits (case aside), and any bytes encoded in either case
// decode back to themselves.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "UBase16.h"

namespace {

void Check(bool ok) {
    if (!ok)
        abort();
}

std::string Lower(std::string s) {
    for (char& c : s)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size), bytes;
    if (UBase16::Decode(text, bytes))
        Check(UBase16::Encode(bytes, false) == Lower(text));
    else
        Check(text.size() % 2 == 1 ||
              Lower(text).find_first_not_of("0123456789abcdef") != std::string::npos);
    std::string back;
    Check(UBase16::Decode(UBase16::Encode(text, true), back) && back == text);
    Check(UBase16::Decode(UBase16::Encode(text, false), back) && back == text);
    return 0;
}
