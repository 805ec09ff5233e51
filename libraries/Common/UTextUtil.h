#ifndef COMMON_UTEXTUTIL_H
#define COMMON_UTEXTUTIL_H

#include <list>
#include <string>

// Stateless helpers for zero-terminated texts: trimming, key searches,
// splitting and joining.
class UTextUtil {
public:
    // The set trimmed wherever the library trims.
    static constexpr const char* WHITESPACE = " \f\n\t\r\v";

    virtual ~UTextUtil();

    // Moves text past leading characters of set and overwrites trailing ones with zeros.
    static void Trim(char*& text, const char* set = WHITESPACE);
    static char* TrimStr(char* text, const char* set = WHITESPACE);
    static std::string Trim(std::string text, const char* set = WHITESPACE);

    // First occurrence of key, then the next separator: the text after it,
    // leading blanks skipped; null if either is missing.
    static const char* findKey(const char* text, const char* key, char separator);
    // As above without skipping blanks; length runs up to the first stop character.
    static bool findKey(const char* text, const char* key, char separator, const char* stops,
                        char** value, int* length);
    // Only occurrences of key directly followed by a blank or the separator count.
    static bool findKeyExact(const char* text, const char* key, char separator, const char* stops,
                             char** value, int* length);
    // Copies the value (trailing blanks removed); the copied length, or -1 if not found.
    static int findKeyExact(const char* text, const char* key, char separator, const char* stops,
                            char* out, int size);
    static bool findKeyExact(const char* text, const char* key, char separator, const char* stops,
                             int* number);
    static const char* findValue(const char* text, char separator);

    // Appends the tokens between runs of delimiters; the text is cut in place.
    static void split(char* text, const char* delimiters, std::list<char*>& tokens);
    // Tokens between single delimiter characters, each trimmed of whitespace.
    static std::list<std::string> tokenize(const std::string& text, const std::string& delimiters);
    static std::string implode(const std::list<std::string>& items, std::string glue);

    static void Replace(char* text, char from, char to);
    static void ToLower(char* text);
    static void ToUpper(char* text);

    // Tokenization that continues where the calling thread's last one stopped.
    static char* firstToken(char* text, const char* delimiters);
    static char* nextToken(const char* delimiters);
};

#endif
