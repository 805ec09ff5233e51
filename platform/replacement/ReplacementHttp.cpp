#include "ReplacementHttp.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace pplreplacement {
namespace {

using Clock = std::chrono::steady_clock;

int Fail(int err) {
    errno = err;
    return -err;
}

int MsLeft(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Waits for the socket to become ready for events; 0, or -ETIMEDOUT / -errno.
int WaitReady(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        struct pollfd p = {fd, events, 0};
        int n = poll(&p, 1, MsLeft(deadline));
        if (n > 0)
            return 0;
        if (n == 0)
            return -ETIMEDOUT;
        if (errno != EINTR)
            return -errno;
    }
}

int ConnectWithin(int fd, const HttpTarget& target, Clock::time_point deadline) {
    struct sockaddr_in addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons(target.port);
    if (inet_pton(AF_INET, target.address.c_str(), &addr.sin_addr) != 1)
        return -EINVAL;
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0)
        return 0;
    if (errno != EINPROGRESS)
        return -errno;
    int rc = WaitReady(fd, POLLOUT, deadline);
    if (rc != 0)
        return rc;
    int err = 0;
    socklen_t len = sizeof(err);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0)
        return -errno;
    return err == 0 ? 0 : -err;
}

int SendAll(int fd, const std::string& bytes, Clock::time_point deadline) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)
            return -errno;
        int rc = WaitReady(fd, POLLOUT, deadline);
        if (rc != 0)
            return rc;
    }
    return 0;
}

// Reads until one whole answer is in or the peer closed, within the limits.
int ReceiveAnswer(int fd, Clock::time_point deadline, HttpAnswer* answer) {
    std::string bytes;
    char chunk[4096];
    for (;;) {
        int rc = WaitReady(fd, POLLIN, deadline);
        if (rc != 0)
            return rc;
        ssize_t n = recv(fd, chunk, sizeof(chunk), 0);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)
                continue;
            return -errno;
        }
        bytes.append(chunk, static_cast<size_t>(n));
        rc = ParseAnswer(bytes, n == 0, answer);
        if (rc != -EAGAIN)
            return rc;
        if (n == 0)
            return -EPROTO;
    }
}

bool EqualsNoCase(const std::string& a, const char* b) {
    size_t len = std::strlen(b);
    if (a.size() != len)
        return false;
    for (size_t i = 0; i < len; ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    }
    return true;
}

std::string Trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos)
        return "";
    size_t e = s.find_last_not_of(" \t");
    return s.substr(b, e - b + 1);
}

// Strict unsigned decimal within limit; false on anything else.
bool ParseBounded(const std::string& text, unsigned long limit, unsigned long* value) {
    if (text.empty() || text.size() > 10)
        return false;
    unsigned long v = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + static_cast<unsigned long>(c - '0');
    }
    if (v > limit)
        return false;
    *value = v;
    return true;
}

// "HTTP/1.x NNN reason"; the status, or -1.
int ParseStatusLine(const std::string& line) {
    if (line.size() < 12 || line.compare(0, 7, "HTTP/1.") != 0 ||
        !std::isdigit(static_cast<unsigned char>(line[7])) || line[8] != ' ')
        return -1;
    if (line.size() > 12 && line[12] != ' ')
        return -1;
    unsigned long status = 0;
    if (!ParseBounded(line.substr(9, 3), 999, &status) || status < 100)
        return -1;
    return static_cast<int>(status);
}

struct Head {
    int status = -1;
    bool has_length = false;
    size_t length = 0;
};

int ParseHead(const std::string& head, Head* out) {
    size_t pos = head.find("\r\n");
    out->status = ParseStatusLine(head.substr(0, pos));
    if (out->status < 0)
        return -EPROTO;
    while (pos != std::string::npos && pos + 2 < head.size()) {
        size_t start = pos + 2;
        pos = head.find("\r\n", start);
        std::string line = head.substr(start, pos == std::string::npos ? pos : pos - start);
        size_t colon = line.find(':');
        if (colon == std::string::npos || colon == 0)
            return -EPROTO;
        std::string name = line.substr(0, colon);
        std::string value = Trim(line.substr(colon + 1));
        if (EqualsNoCase(name, "Transfer-Encoding"))
            return -EPROTO;
        if (!EqualsNoCase(name, "Content-Length"))
            continue;
        unsigned long length = 0;
        if (!ParseBounded(value, 4000000000UL, &length))
            return -EPROTO;
        if (out->has_length && out->length != length)
            return -EPROTO;
        if (length > kMaxBodyBytes)
            return -EMSGSIZE;
        out->has_length = true;
        out->length = length;
    }
    return 0;
}

}  // namespace

std::string FieldText(const char* field, size_t size) {
    const void* end = std::memchr(field, '\0', size);
    size_t len = end ? static_cast<size_t>(static_cast<const char*>(end) - field) : size;
    return std::string(field, len);
}

std::string Base64Encode(const std::string& data) {
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((data.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < data.size(); i += 3) {
        unsigned v = static_cast<unsigned char>(data[i]) << 16 |
                     static_cast<unsigned char>(data[i + 1]) << 8 |
                     static_cast<unsigned char>(data[i + 2]);
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    size_t rest = data.size() - i;
    if (rest == 0)
        return out;
    unsigned v = static_cast<unsigned char>(data[i]) << 16;
    if (rest == 2)
        v |= static_cast<unsigned char>(data[i + 1]) << 8;
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
    out += '=';
    return out;
}

bool ParsePort(const std::string& text, uint16_t* port) {
    unsigned long value = 0;
    if (!ParseBounded(text, 65535, &value) || value == 0)
        return false;
    *port = static_cast<uint16_t>(value);
    return true;
}

int MakeTarget(const std::string& address, const std::string& port, const std::string& user,
               const std::string& password, HttpTarget* target) {
    struct in_addr probe;
    if (inet_pton(AF_INET, address.c_str(), &probe) != 1)
        return Fail(EINVAL);
    if (!ParsePort(port, &target->port))
        return Fail(EINVAL);
    if (user.empty() || password.empty())
        return Fail(EINVAL);
    target->address = address;
    target->user = user;
    target->password = password;
    return 0;
}

std::string ComposeRequest(const HttpTarget& target, const std::string& method,
                           const std::string& path, const std::string& content_type,
                           const std::string& body) {
    std::string req = method + " " + path + " HTTP/1.1\r\n";
    req += "Host: " + target.address + ":" + std::to_string(target.port) + "\r\n";
    req += "Authorization: Basic " + Base64Encode(target.user + ":" + target.password) + "\r\n";
    if (!content_type.empty())
        req += "Content-Type: " + content_type + "\r\n";
    req += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    req += "Connection: close\r\n\r\n";
    return req + body;
}

int ParseAnswer(const std::string& bytes, bool peer_closed, HttpAnswer* answer) {
    size_t end = bytes.find("\r\n\r\n");
    if (end == std::string::npos) {
        if (bytes.size() > kMaxHeadBytes)
            return -EMSGSIZE;
        return peer_closed ? -EPROTO : -EAGAIN;
    }
    if (end + 4 > kMaxHeadBytes)
        return -EMSGSIZE;
    Head head;
    int rc = ParseHead(bytes.substr(0, end), &head);
    if (rc != 0)
        return rc;
    size_t body_start = end + 4;
    size_t have = bytes.size() - body_start;
    if (head.has_length) {
        if (have < head.length)
            return peer_closed ? -EPROTO : -EAGAIN;
        have = head.length;  // anything after the body is not ours to read
    } else {
        if (have > kMaxBodyBytes)
            return -EMSGSIZE;
        if (!peer_closed)
            return -EAGAIN;
    }
    answer->status = head.status;
    answer->body = bytes.substr(body_start, have);
    return 0;
}

int HttpExchange(const HttpTarget& target, const std::string& method, const std::string& path,
                 const std::string& content_type, const std::string& body, HttpAnswer* answer) {
    if (body.size() > kMaxRequestBody)
        return Fail(EMSGSIZE);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -errno;
    auto deadline = Clock::now() + std::chrono::milliseconds(kConnectTimeoutMs);
    int rc = ConnectWithin(fd, target, deadline);
    if (rc == 0) {
        deadline = Clock::now() + std::chrono::milliseconds(kAnswerTimeoutMs);
        rc = SendAll(fd, ComposeRequest(target, method, path, content_type, body), deadline);
    }
    if (rc == 0)
        rc = ReceiveAnswer(fd, deadline, answer);
    close(fd);
    return rc == 0 ? 0 : Fail(-rc);
}

int RejectionCode(int status) {
    if (status >= 200 && status < 300)
        return 0;
    errno = (status == 401 || status == 403) ? EACCES : EPROTO;
    return -status;
}

}  // namespace pplreplacement
