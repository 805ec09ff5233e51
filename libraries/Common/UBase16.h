#ifndef COMMON_UBASE16_H
#define COMMON_UBASE16_H

#include <cstddef>
#include <string>

// Base-16 (hexadecimal) codec: two digits per byte, the high nibble first.
// Stateless and thread-safe.
class UBase16 {
public:
    virtual ~UBase16() = default;

    // Encodes size bytes of data; digits A-F when upper is true, a-f otherwise.
    static std::string Encode(const void* data, size_t size, bool upper = true);
    static std::string Encode(const std::string& data, bool upper = true);

    // Decodes digits of either case into out. Returns false, leaving out
    // unchanged, when the length is odd or a character is not a hex digit.
    static bool Decode(const std::string& text, std::string& out);

    // The value of one hex digit of either case, or -1.
    static int DigitValue(char c);
};

#endif
