#include "http_parser.h"

#include <poll.h>
#include <sys/socket.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "UFile.h"
#include "UWait.h"

namespace {

const int kStateMalformed = 11;
const int kHeadComplete = -1;

bool is_blank(unsigned char c) {
    return c == ' ' || c == '\t';
}
bool is_line_end(unsigned char c) {
    return c == '\r' || c == '\n';
}

// Where a line end leads from the states that expect one (4 to 7).
int after_line_end(unsigned char c) {
    return c == '\n' ? 7 : 8;
}

// One step of the head scanner: the next state or kHeadComplete. The first
// line must have two or three words; the head ends at an empty line however
// its line ends are written.
int next_state(int state, unsigned char c) {
    bool blank = is_blank(c);
    bool eol = is_line_end(c);
    switch (state) {
        case 0:
            return blank ? 1 : eol ? kStateMalformed : 0;
        case 1:
            return blank ? 1 : eol ? kStateMalformed : 2;
        case 2:
            return blank ? 3 : eol ? kHeadComplete : 2;
        case 3:
            return blank ? 3 : eol ? kStateMalformed : 4;
        case 4:
            return blank ? 5 : eol ? after_line_end(c) : 4;
        case 5:
            return blank ? 5 : eol ? after_line_end(c) : kStateMalformed;
        case 6:
            return eol ? after_line_end(c) : 6;
        case 7:
            return c == '\n' ? kHeadComplete : c == '\r' ? 8 : 6;
        case 8:
            return c == '\n' ? 9 : c == '\r' ? kHeadComplete : 6;
        case 9:
            return c == '\n' ? kHeadComplete : c == '\r' ? 10 : 6;
        case 10:
            return eol ? kHeadComplete : 6;
        default:
            return state;  // 11 stays malformed; unknown states skip the byte
    }
}

// Takes the next line from the position: its end (CR, LF or CR LF) is
// zeroed and the position moves past it. Never reads past the received bytes.
std::string next_line(HTTP_CONTEXT* ctx) {
    char* buf = ctx->buffer;
    uint32_t start = ctx->position;
    uint32_t i = start;
    while (i < ctx->received && !is_line_end(static_cast<unsigned char>(buf[i])))
        ++i;
    std::string line(buf + start, strnlen(buf + start, i - start));
    if (i < ctx->received) {
        bool was_cr = buf[i] == '\r';
        buf[i++] = '\0';
        if (was_cr && i < ctx->received && buf[i] == '\n')
            buf[i++] = '\0';
    }
    ctx->position = i;
    return line;
}

size_t skip_blanks(const std::string& s, size_t from) {
    while (from < s.size() && is_blank(static_cast<unsigned char>(s[from])))
        ++from;
    return from;
}

std::string unescape(std::string text) {
    return unescape_url(&text[0]);
}

void parse_request_line(HTTP_CONTEXT* ctx, const std::string& line) {
    size_t method_end = line.find_first_of(" \t");
    ctx->method = line.substr(0, method_end);
    std::string rest =
        method_end == std::string::npos ? "" : line.substr(skip_blanks(line, method_end));
    size_t q = rest.find('?');
    if (q != std::string::npos) {
        ctx->path = rest.substr(0, q);
        std::string after = rest.substr(q + 1);
        ctx->query = after.substr(0, after.find_first_of(" \t"));
    } else {
        ctx->path = rest.substr(0, rest.find_first_of(" \t"));
        ctx->query.clear();
    }
}

void parse_query(HTTP_CONTEXT* ctx) {
    std::string text = ctx->query;
    for (char& c : text) {
        if (c == '+')
            c = ' ';
    }
    size_t from = 0;
    while (from <= text.size()) {
        size_t to = text.find_first_of("&;", from);
        if (to == std::string::npos)
            to = text.size();
        std::string piece = text.substr(from, to - from);
        from = to + 1;
        if (piece.empty())
            continue;
        size_t eq = piece.find('=');
        std::string value = eq == std::string::npos ? "" : unescape(piece.substr(eq + 1));
        ctx->params[unescape(piece.substr(0, eq))] = value;
    }
}

void parse_header_line(HTTP_CONTEXT* ctx, const std::string& line) {
    size_t colon = line.find(':');
    if (colon == std::string::npos)
        return;
    ctx->headers[line.substr(0, colon)] = line.substr(skip_blanks(line, colon + 1));
}

int parse_head(HTTP_CONTEXT* ctx) {
    ctx->position = 0;
    parse_request_line(ctx, next_line(ctx));
    parse_query(ctx);
    while (ctx->position < ctx->received)
        parse_header_line(ctx, next_line(ctx));
    return static_cast<int>(ctx->received);
}

// Scans the stored bytes not yet seen: 1 when the head is complete, 0 when
// more is needed, -EPROTO for a malformed first line.
int scan(HTTP_CONTEXT* ctx) {
    while (ctx->position < ctx->received) {
        if (ctx->state == kStateMalformed)
            return -EPROTO;
        int next = next_state(ctx->state, static_cast<unsigned char>(ctx->buffer[ctx->position++]));
        if (next == kHeadComplete)
            return 1;
        ctx->state = next;
        if (next == kStateMalformed)
            return -EPROTO;
    }
    return 0;
}

// Most a single look at the socket takes: an event head is about a hundred
// bytes, so one look usually holds the whole head and the body after it.
const uint32_t kLookSize = 512;

// Scans the looked-at bytes after the received ones and stops where a
// byte-by-byte reader would have stopped reading. Returns the scan result;
// *taken is the number of bytes that reader would have read.
int scan_looked_at(HTTP_CONTEXT* ctx, uint32_t looked, uint32_t* taken) {
    uint32_t first = ctx->received;
    if (ctx->state == kStateMalformed) {
        // That reader reads one more byte before it gives up again.
        *taken = 1;
        return -EPROTO;
    }
    ctx->received = first + looked;
    int scanned = scan(ctx);
    *taken = ctx->position - first;
    ctx->received = first;
    return scanned;
}

}  // namespace

int http_wait_part(int fd, int limit_ms, const UDeadline& deadline, int wake_fd) {
    switch (UWait::Until(fd, POLLIN, {wake_fd}, deadline.Cut(limit_ms))) {
        case UWaitResult::Ready:
            return 1;
        case UWaitResult::Woken:
            return -ECANCELED;
        case UWaitResult::TimedOut:
            return deadline.Passed() ? -ETIMEDOUT : 0;
        default:
            return -errno;
    }
}

// The head is read without ever taking a byte of the body: each look at the
// socket (MSG_PEEK) is scanned as if read byte by byte, and then exactly the
// bytes a byte-by-byte reader would have read are taken off the socket. A
// few system calls per message instead of two per byte, same results.
int http_read_until_got_request(int fd, HTTP_CONTEXT* ctx, const timeval& wait, int wake_fd) {
    if (fd == -1 || ctx == nullptr || wait.tv_sec < 0 || ctx->buffer == nullptr)
        return -EINVAL;
    while (true) {
        // The last byte of the buffer always stays zero.
        if (ctx->received + 1 >= ctx->buffer_size)
            return -EMSGSIZE;
        char* at = ctx->buffer + ctx->received;
        uint32_t room = ctx->buffer_size - 1 - ctx->received;
        size_t look = room < kLookSize ? room : kLookSize;
        // Bytes already there need no wait (in a burst, the next message
        // usually is); only an empty socket is waited on.
        ssize_t looked = recv(fd, at, look, MSG_PEEK | MSG_DONTWAIT);
        if (looked < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            int ready = http_wait_part(fd, UWait::Ms(wait), ctx->deadline, wake_fd);
            if (ready <= 0)
                return ready == -ECANCELED ? 0 : ready;
            looked = recv(fd, at, look, MSG_PEEK);
        }
        if (looked < 0)
            return -errno;
        if (looked == 0) {
            fprintf(stderr, "%s(): Server closed\n", "http_read_until_got_request");
            return -1;
        }
        if (ctx->received == 0)
            ctx->deadline = UDeadline::In(ctx->limit_ms);  // the message has begun
        const int state = ctx->state;
        const uint32_t position = ctx->position;
        uint32_t taken = 0;
        int scanned = scan_looked_at(ctx, static_cast<uint32_t>(looked), &taken);
        // Exactly the bytes the look showed are there.
        ssize_t got = UFile::ReadAll(fd, at, taken);
        if (got != static_cast<ssize_t>(taken)) {
            // Nothing counts as read: the context stays as it was.
            int result = got < 0 ? -errno : -1;
            ctx->state = state;
            ctx->position = position;
            memset(at, 0, static_cast<size_t>(looked));
            return result;
        }
        // What was looked at but not taken belongs to the body: the buffer
        // keeps zeros there, as if it had never been seen.
        memset(at + taken, 0, static_cast<size_t>(looked) - taken);
        ctx->received += taken;
        if (scanned < 0)
            return scanned;
        if (scanned > 0)
            return parse_head(ctx);
    }
}

namespace {

int hex_value(unsigned char c) {
    return c < 'A' ? c - '0' : (c & ~0x20) - 55;
}

}  // namespace

std::string unescape_url(char* text) {
    std::string out;
    if (text == nullptr)
        return out;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
    while (*p != '\0') {
        if (*p == '%' && std::isxdigit(p[1]) && std::isxdigit(p[2])) {
            out += static_cast<char>((hex_value(p[1]) * 16 + hex_value(p[2])) & 0xff);
            p += 3;
        } else {
            out += static_cast<char>(*p++);
        }
    }
    return out;
}
