#ifndef PPL_HTTP_PARSER_H
#define PPL_HTTP_PARSER_H

#include <sys/time.h>

#include <cstdint>
#include <map>
#include <string>

#include "UWait.h"

// Size of the head buffer the event channel gives the reader.
constexpr uint32_t HTTP_HEAD_BUFFER_SIZE = 16384;

// Context of one HTTP message head being read. The caller owns the buffer,
// zeroes it and sets its size; the reader fills the rest.
struct HTTP_CONTEXT {
    char* buffer = nullptr;
    uint32_t buffer_size = 0;
    uint32_t received = 0;  // head bytes stored so far
    uint32_t position = 0;  // next byte to scan
    int state = 0;          // scanner state, 0..11
    std::map<std::string, std::string> headers;
    std::map<std::string, std::string> params;  // query, decoded
    std::string method;
    std::string path;
    std::string query;  // raw text after "?"
    // The whole message's time limit, counted from its first byte (negative:
    // none), and the deadline the reader sets from it at that byte; the
    // caller reads the body under the same deadline.
    int limit_ms = -1;
    UDeadline deadline;
};

// The one wait for a part of a message (head bytes, body bytes, the lines of
// a subscription answer): until fd is readable, at most limit_ms (negative:
// no limit of its own) and never past the deadline of the whole message.
// 1 when readable; 0 when limit_ms ran out; -ETIMEDOUT when the deadline
// passed; -ECANCELED when wake_fd became readable; minus errno when the wait
// failed.
int http_wait_part(int fd, int limit_ms, const UDeadline& deadline, int wake_fd);

// Reads the head of one message from fd and parses it, waiting at most wait
// for each next byte and never past the message's deadline. Returns the
// head's length once complete, 0 when no byte came within wait, -1 when the
// peer closed, -EPROTO for a malformed first line, -EMSGSIZE when the head
// would not fit the buffer (its last byte is kept zero), -ETIMEDOUT when the
// message's deadline passed, minus errno when the wait or recv fails,
// -EINVAL for bad arguments. A readable wake_fd ends the wait at once as if
// nothing had arrived. Never takes a byte of the body.
int http_read_until_got_request(int fd, HTTP_CONTEXT* ctx, const timeval& wait, int wake_fd = -1);

// Decodes "%hh" escapes; a "%" not followed by two hex digits stays as it is.
std::string unescape_url(char* text);

#endif
