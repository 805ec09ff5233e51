#ifndef COMMON_NURI_H
#define COMMON_NURI_H

#include <string>

// The components of a URI reference (RFC 3986, section 3), as they stand in
// the text: still percent-encoded. The has* flags tell an empty component
// from an absent one ("http://h?" has an empty query, "http://h" none), so
// that composing the components gives back the text they were taken from.
struct NURIParts {
    std::string scheme;    // without the ':'
    std::string userinfo;  // without the '@'
    std::string host;      // an IPv6 literal keeps its brackets
    std::string port;      // digits only, possibly empty
    std::string path;
    std::string query;     // without the '?'
    std::string fragment;  // without the '#'
    bool hasScheme = false;
    bool hasAuthority = false;  // "//" present
    bool hasUserinfo = false;
    bool hasPort = false;
    bool hasQuery = false;
    bool hasFragment = false;
};

// URI references: decompose, compose, resolve against a base, and the
// percent-encoding of components. Stateless and thread-safe.
class NURI {
public:
    virtual ~NURI() = default;

    // Splits a URI reference into its components. Returns false, leaving
    // parts unspecified, when the text is not a URI reference: a bad scheme,
    // a port that is not all digits, an unclosed IPv6 literal, a character
    // no component allows (spaces and controls among them) or a '%' not
    // followed by two hex digits.
    static bool Decompose(const std::string& uri, NURIParts& parts);

    // Recomposes a reference from its components (RFC 3986, 5.3); a path
    // that starts with "//" and has no authority is written as "/.//" so
    // that it reads back as a path.
    static std::string Compose(const NURIParts& parts);

    // Resolves a relative reference against an absolute base URI
    // (RFC 3986, 5.2, strict). False when either does not decompose or the
    // base has no scheme.
    static bool Resolve(const std::string& base, const std::string& reference, std::string& target);

    // Removes "." and ".." segments from a path (RFC 3986, 5.2.4).
    static std::string RemoveDotSegments(const std::string& path);

    // Percent-encodes every byte except the unreserved characters and those
    // listed in keep (for example "/" to encode a path while keeping its
    // separators). Hex digits are upper case.
    static std::string URLEncode(const std::string& text, const std::string& keep = "");

    // Decodes percent-encoded octets; other characters are copied as they
    // are. False when a '%' is not followed by two hex digits.
    static bool URLDecode(const std::string& text, std::string& out);

    // ALPHA / DIGIT / "-" / "." / "_" / "~"
    static bool IsUnreserved(char c);
    // gen-delims ":/?#[]@" and sub-delims "!$&'()*+,;="
    static bool IsReserved(char c);
};

#endif
