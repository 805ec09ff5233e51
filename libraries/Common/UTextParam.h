#ifndef COMMON_UTEXTPARAM_H
#define COMMON_UTEXTPARAM_H

#include <cstdint>

// A cursor over "key=value" records of a writable text; the text is cut up in
// place and is not owned.
class UTextParam {
public:
    explicit UTextParam(char* text = nullptr);
    virtual ~UTextParam();

    void setTextParam(char* text);
    char* getTextParam() const { return m_pText; }
    operator char*() const { return m_pText; }

    // Next record of the text split at runs of terminators, key and value
    // trimmed; records without a key are passed over.
    bool GetNextParam(char*& key, char*& value, char separator, const char* terminators);
    // One record from the current pointer, untrimmed; the pointer moves past it.
    bool getNextParam(char*& key, char*& value, char separator, char terminator);
    // The value of the record at the current pointer if its key is name, else null.
    char* getNextParam(const char* name, char separator, char terminator);

    static int makeTextParam(char* out, int size, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    // strtol of text in base; beyond the range of int, the nearest end of it.
    static int toIntValue(const char* text, int base);
    // The IPv4 address a text names, as the C library's inet_addr reads it
    // (dotted quads, their shorter and hexadecimal forms, anything after a
    // blank ignored), in network byte order; false when it names none.
    static bool toIPv4Address(const char* text, uint32_t* address);

protected:
    char* m_pText;
    char* m_pSave;
};

#endif
