#ifndef COMMON_SATTR_H
#define COMMON_SATTR_H

#include <list>
#include <map>
#include <string>

// Ordered key/value store behind every file, command and reply text.
// Files use separator '=', terminators "\r\n" and record separator "\n";
// commands use '=' and "&". Records are kept in key order; a key appears
// once (a later record replaces an earlier one). One store belongs to one
// thread at a time: nothing in it is locked.
class SAttr {
public:
    SAttr(char separator, const char* terminators, const char* record_separator,
          const char* file_name);
    virtual ~SAttr();

    // Adds the records of a whole file (and remembers the path): its size is
    // looked at, that many bytes read at once and the records taken up to
    // the first NUL byte. False when it cannot be read whole. An empty file
    // loads as no records. *bytes, when given, receives every byte read.
    bool LoadFile(const char* path);
    bool LoadFile(const char* path, std::string* bytes);
    // Adds the records of a text: split at the terminators, each record
    // trimmed of white space around key and value; records with an empty
    // key or value, or without the separator, are skipped. The const form
    // works on a copy; the char* form cuts the caller's text in place.
    void LoadMemory(const char* text);
    void LoadMemory(char* text);
    // Adds the records of exactly length bytes, which need no terminating
    // zero; cuts the buffer in place and trims nothing (the second byte of a
    // "\r\n" stays at the front of the next key).
    void LoadMemory(char* buffer, unsigned int length);
    // Writes the records joined by the record separator, with no separator
    // after the last; space_before and space_after put a space on either
    // side of the key/value separator ("KEY = VALUE" with both).
    void SaveMemory(std::string& out, bool space_before, bool space_after);
    bool SaveFile(const char* path, bool space_before, bool space_after);
    void SetFilename(const char* path);

    bool HasKey(const char* key);
    // The value of a key, or null when it is missing. The pointer stays
    // valid until that key is set or removed, or the store is cleared,
    // loaded into, or destroyed; copy the text to keep it longer.
    const char* GetKeyValue(const char* key);
    const char* operator()(const char* key) { return GetKeyValue(key); }
    int GetIntValue(const char* key, int base);
    unsigned int GetUIntValue(const char* key, int base);
    float GetFloatValue(const char* key);

    void SetKeyValue(const char* key, const char* value);
    void SetKeyValue(std::string& record);
    void SetKeyValues(std::list<std::string>& records);
    void SetIntValue(const char* key, int value, int base);
    void SetUIntValue(const char* key, unsigned int value, int base);
    bool RemoveKey(const char* key);

    void GetKeys(std::list<std::string>& keys);
    void GetValues(std::list<std::string>& values);
    void GetKeyValues(std::list<std::string>& records);
    void Clear();
    size_t GetSize();
    std::map<std::string, std::string>& GetRawData();

protected:
    char m_cSeparator;
    char m_szTerminators[16];
    char m_szRecordSeparator[8];
    char m_szFileName[256];
    std::map<std::string, std::string> m_mapAttrs;
};

#endif
