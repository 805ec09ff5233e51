#ifndef COMMON_SATTR_H
#define COMMON_SATTR_H

#include <list>
#include <map>
#include <string>

// Ordered key/value store behind every file, command and reply text.
// Files use separator '=', terminators "\r\n" and record separator "\n";
// commands use '=' and "&".
class SAttr {
public:
    SAttr(char separator, const char* terminators, const char* record_separator,
          const char* file_name);
    virtual ~SAttr();

    bool LoadFile(const char* path);
    void LoadMemory(const char* text);
    void LoadMemory(char* text);
    void LoadMemory(char* buffer, unsigned int length);
    void SaveMemory(std::string& out, bool space_before, bool space_after);
    bool SaveFile(const char* path, bool space_before, bool space_after);
    void SetFilename(const char* path);

    bool HasKey(const char* key);
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
