#include "NURI.h"

#include <string.h>

#include "UBase16.h"

namespace {

bool IsAlpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

bool IsSubDelim(char c) {
    return c != '\0' && strchr("!$&'()*+,;=", c) != nullptr;
}

// Every character of the text is unreserved, a sub-delimiter, one of extra,
// or the start of a well-formed percent-encoded octet.
bool AllowedText(const std::string& text, const char* extra) {
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '%') {
            if (i + 2 >= text.size() || UBase16::DigitValue(text[i + 1]) < 0 ||
                UBase16::DigitValue(text[i + 2]) < 0)
                return false;
            i += 2;
        } else if (!NURI::IsUnreserved(c) && !IsSubDelim(c) &&
                   (c == '\0' || strchr(extra, c) == nullptr)) {
            return false;
        }
    }
    return true;
}

bool ValidScheme(const std::string& scheme) {
    if (scheme.empty() || !IsAlpha(scheme[0]))
        return false;
    for (char c : scheme)
        if (!IsAlpha(c) && !IsDigit(c) && c != '+' && c != '-' && c != '.')
            return false;
    return true;
}

bool ValidHost(const std::string& host) {
    if (!host.empty() && host[0] == '[') {
        // IP literal: hex digits, ':' and '.' of IPv6, or an IPvFuture form.
        if (host.size() < 3 || host.back() != ']')
            return false;
        return AllowedText(host.substr(1, host.size() - 2), ":") &&
               host.find('%') == std::string::npos;
    }
    return AllowedText(host, "");
}

// authority = [ userinfo "@" ] host [ ":" port ]
bool SplitAuthority(const std::string& authority, NURIParts& parts) {
    std::string rest = authority;
    size_t at = rest.rfind('@');
    if (at != std::string::npos) {
        parts.hasUserinfo = true;
        parts.userinfo = rest.substr(0, at);
        rest.erase(0, at + 1);
        if (!AllowedText(parts.userinfo, ":"))
            return false;
    }
    size_t colon = rest.rfind(':');
    if (colon != std::string::npos && rest.find(']', colon) == std::string::npos) {
        parts.hasPort = true;
        parts.port = rest.substr(colon + 1);
        rest.erase(colon);
        for (char c : parts.port)
            if (!IsDigit(c))
                return false;
    }
    parts.host = rest;
    return ValidHost(parts.host);
}

// A reference without a scheme must not look like one: a ':' in the first
// segment of a relative path would be read as a scheme (RFC 3986, 4.2).
bool SplitScheme(std::string& rest, NURIParts& parts) {
    size_t end = rest.find_first_of(":/?#");
    if (end == std::string::npos || rest[end] != ':')
        return true;
    parts.hasScheme = true;
    parts.scheme = rest.substr(0, end);
    rest.erase(0, end + 1);
    return ValidScheme(parts.scheme);
}

void SplitTail(std::string& rest, char mark, bool& has, std::string& value) {
    size_t at = rest.find(mark);
    if (at == std::string::npos)
        return;
    has = true;
    value = rest.substr(at + 1);
    rest.erase(at);
}

// RFC 3986, 5.2.3: the base path up to its last '/', then the reference's.
std::string MergePaths(const NURIParts& base, const std::string& path) {
    if (base.hasAuthority && base.path.empty())
        return "/" + path;
    size_t slash = base.path.rfind('/');
    return slash == std::string::npos ? path : base.path.substr(0, slash + 1) + path;
}

void CopyAuthority(const NURIParts& from, NURIParts& to) {
    to.hasAuthority = from.hasAuthority;
    to.hasUserinfo = from.hasUserinfo;
    to.userinfo = from.userinfo;
    to.host = from.host;
    to.hasPort = from.hasPort;
    to.port = from.port;
}

}  // namespace

bool NURI::IsUnreserved(char c) {
    return IsAlpha(c) || IsDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

bool NURI::IsReserved(char c) {
    return IsSubDelim(c) || (c != '\0' && strchr(":/?#[]@", c) != nullptr);
}

bool NURI::Decompose(const std::string& uri, NURIParts& parts) {
    parts = NURIParts();
    std::string rest = uri;
    SplitTail(rest, '#', parts.hasFragment, parts.fragment);
    SplitTail(rest, '?', parts.hasQuery, parts.query);
    if (!SplitScheme(rest, parts))
        return false;
    if (rest.compare(0, 2, "//") == 0) {
        size_t end = rest.find('/', 2);
        if (end == std::string::npos)
            end = rest.size();
        parts.hasAuthority = true;
        if (!SplitAuthority(rest.substr(2, end - 2), parts))
            return false;
        rest.erase(0, end);
    }
    parts.path = rest;
    return AllowedText(parts.path, ":@/") && AllowedText(parts.query, ":@/?") &&
           AllowedText(parts.fragment, ":@/?");
}

std::string NURI::Compose(const NURIParts& parts) {
    std::string uri;
    if (parts.hasScheme)
        uri += parts.scheme + ":";
    if (parts.hasAuthority) {
        uri += "//";
        if (parts.hasUserinfo)
            uri += parts.userinfo + "@";
        uri += parts.host;
        if (parts.hasPort)
            uri += ":" + parts.port;
    }
    // A path that starts with "//" would read back as an authority.
    if (!parts.hasAuthority && parts.path.compare(0, 2, "//") == 0)
        uri += "/.";
    uri += parts.path;
    if (parts.hasQuery)
        uri += "?" + parts.query;
    if (parts.hasFragment)
        uri += "#" + parts.fragment;
    return uri;
}

std::string NURI::RemoveDotSegments(const std::string& path) {
    std::string in = path, out;
    while (!in.empty()) {
        if (in.compare(0, 3, "../") == 0) {
            in.erase(0, 3);
        } else if (in.compare(0, 2, "./") == 0) {
            in.erase(0, 2);
        } else if (in.compare(0, 3, "/./") == 0) {
            in.erase(0, 2);
        } else if (in == "/.") {
            in = "/";
        } else if (in.compare(0, 4, "/../") == 0 || in == "/..") {
            in = in.size() == 3 ? "/" : in.substr(3);
            size_t last = out.rfind('/');
            out.erase(last == std::string::npos ? 0 : last);
        } else if (in == "." || in == "..") {
            in.clear();
        } else {
            size_t next = in.find('/', 1);
            if (next == std::string::npos)
                next = in.size();
            out += in.substr(0, next);
            in.erase(0, next);
        }
    }
    return out;
}

bool NURI::Resolve(const std::string& base, const std::string& reference, std::string& target) {
    NURIParts b, r, t;
    if (!Decompose(base, b) || !b.hasScheme || !Decompose(reference, r))
        return false;
    if (r.hasScheme) {
        t = r;
        t.path = RemoveDotSegments(r.path);
    } else {
        t.hasScheme = true;
        t.scheme = b.scheme;
        if (r.hasAuthority) {
            CopyAuthority(r, t);
            t.path = RemoveDotSegments(r.path);
            t.hasQuery = r.hasQuery;
            t.query = r.query;
        } else {
            CopyAuthority(b, t);
            if (r.path.empty()) {
                t.path = b.path;
                t.hasQuery = r.hasQuery || b.hasQuery;
                t.query = r.hasQuery ? r.query : b.query;
            } else {
                t.path = RemoveDotSegments(r.path[0] == '/' ? r.path : MergePaths(b, r.path));
                t.hasQuery = r.hasQuery;
                t.query = r.query;
            }
        }
        t.hasFragment = r.hasFragment;
        t.fragment = r.fragment;
    }
    target = Compose(t);
    return true;
}

std::string NURI::URLEncode(const std::string& text, const std::string& keep) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (IsUnreserved(c) || (c != '\0' && keep.find(c) != std::string::npos)) {
            out += c;
        } else {
            out += '%';
            out += UBase16::Encode(&c, 1, true);
        }
    }
    return out;
}

bool NURI::URLDecode(const std::string& text, std::string& out) {
    std::string decoded;
    decoded.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        std::string octet;
        if (i + 2 >= text.size() || !UBase16::Decode(text.substr(i + 1, 2), octet))
            return false;
        decoded += octet;
        i += 2;
    }
    out.swap(decoded);
    return true;
}
