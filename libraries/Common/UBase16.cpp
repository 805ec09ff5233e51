#include "UBase16.h"

std::string UBase16::Encode(const void* data, size_t size, bool upper) {
    const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    std::string text(size * 2, '0');
    for (size_t i = 0; i < size; ++i) {
        text[2 * i] = digits[bytes[i] >> 4];
        text[2 * i + 1] = digits[bytes[i] & 0x0f];
    }
    return text;
}

std::string UBase16::Encode(const std::string& data, bool upper) {
    return Encode(data.data(), data.size(), upper);
}

int UBase16::DigitValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

bool UBase16::Decode(const std::string& text, std::string& out) {
    if (text.size() % 2 != 0)
        return false;
    std::string bytes(text.size() / 2, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) {
        int high = DigitValue(text[2 * i]), low = DigitValue(text[2 * i + 1]);
        if (high < 0 || low < 0)
            return false;
        bytes[i] = static_cast<char>(high << 4 | low);
    }
    out.swap(bytes);
    return true;
}
