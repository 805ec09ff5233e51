#ifndef PPL_REPLACEMENT_HTTP_H
#define PPL_REPLACEMENT_HTTP_H

// The small HTTP/1.1 client both open camera clients share. Everything here is
// internal to each shared library: hidden so the two copies never meet.

#include <cstddef>
#include <cstdint>
#include <string>

#pragma GCC visibility push(hidden)

namespace pplreplacement {

// Time limits that keep a dead or stalled camera from holding the caller.
constexpr int kConnectTimeoutMs = 3000;
constexpr int kAnswerTimeoutMs = 3000;
// What a camera may send back before we give up on it.
constexpr size_t kMaxHeadBytes = 8192;
constexpr size_t kMaxBodyBytes = 65536;
// Largest request body we hand to a camera.
constexpr size_t kMaxRequestBody = 8192;

struct HttpTarget {
    std::string address;  // dotted IPv4
    uint16_t port = 0;
    std::string user;
    std::string password;
};

struct HttpAnswer {
    int status = 0;
    std::string body;
};

// The text of a fixed char field, up to its first zero or its full size, so an
// unterminated field is never read past its end.
std::string FieldText(const char* field, size_t size);

// Standard base64 with padding.
std::string Base64Encode(const std::string& data);

// Decimal port 1..65535, nothing else; false otherwise.
bool ParsePort(const std::string& text, uint16_t* port);

// Builds the target from the four connection texts; 0 or -EINVAL when the
// address is not dotted IPv4, the port is not a port, or the account is
// incomplete.
int MakeTarget(const std::string& address, const std::string& port, const std::string& user,
               const std::string& password, HttpTarget* target);

// The request bytes exactly as they go on the wire (exposed for the tests).
std::string ComposeRequest(const HttpTarget& target, const std::string& method,
                           const std::string& path, const std::string& content_type,
                           const std::string& body);

// Parses one complete answer (head and body). 0, -EPROTO for a malformed or
// unsupported answer, -EMSGSIZE for one beyond the limits, -EAGAIN when more
// bytes are needed (complete is false then: the peer may still be sending).
int ParseAnswer(const std::string& bytes, bool peer_closed, HttpAnswer* answer);

// One request on a fresh connection, closed afterwards. Returns 0 with the
// answer, or -errno (errno set too): ECONNREFUSED, ETIMEDOUT, EPROTO,
// EMSGSIZE, ... Any HTTP status counts as an answer here.
int HttpExchange(const HttpTarget& target, const std::string& method, const std::string& path,
                 const std::string& content_type, const std::string& body, HttpAnswer* answer);

// Result code for an answer the camera gave: 0 for 2xx, else -(status) with
// errno EACCES for 401/403 and EPROTO for the rest.
int RejectionCode(int status);

}  // namespace pplreplacement

#pragma GCC visibility pop

#endif
