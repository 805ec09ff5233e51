// Event messages on a LAPI camera connection, as anyone on the camera network
// could send them. Mode byte even: the whole stream is read message after
// message exactly as the counter's worker reads it (head, then body by
// Content-Length). Mode byte odd: the head reader alone, with a head buffer
// of a size the input chooses, allocated to the byte so that any write or
// read past it is caught.
#include <sys/ioctl.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "FuzzFeed.h"
#include "http_parser.h"
#include "ipc_va.h"

namespace {

void Check(bool ok) {
    if (!ok)
        abort();
}

void ReadEventStream(const uint8_t* data, size_t size) {
    pplfuzz::Feed feed(data, size);
    if (feed.fd() < 0)
        return;
    const timeval wait = {0, 0};
    // Every call consumes at least one byte, and the peer's end ends it.
    for (size_t calls = 0; calls <= size + 1; ++calls) {
        std::string body;
        int result = ipcva_recv_msg(feed.fd(), body, wait);
        if (result < 0)
            return;
        Check(static_cast<size_t>(result) == body.size());
        Check(result <= IPCVA_MAX_BODY);
    }
    abort();  // the reader stopped consuming the stream
}

// The reader must take the head and nothing after it: the body stays on
// the socket for the caller.
void CheckLeftOnSocket(const pplfuzz::Feed& feed, size_t consumed) {
    int left = -1;
    Check(ioctl(feed.fd(), FIONREAD, &left) == 0);
    Check(static_cast<size_t>(left) == feed.queued() - consumed);
}

void ReadHeads(uint32_t buffer_size, const uint8_t* data, size_t size) {
    pplfuzz::Feed feed(data, size);
    if (feed.fd() < 0)
        return;
    const timeval wait = {0, 0};
    size_t consumed = 0;
    for (size_t calls = 0; calls <= size + 1; ++calls) {
        std::unique_ptr<char[]> buffer(new char[buffer_size]());
        HTTP_CONTEXT ctx;
        ctx.buffer = buffer.get();
        ctx.buffer_size = buffer_size;
        int result = http_read_until_got_request(feed.fd(), &ctx, wait);
        if (result <= 0)
            return;
        Check(static_cast<uint32_t>(result) == ctx.received);
        Check(ctx.received < buffer_size);
        consumed += ctx.received;
        CheckLeftOnSocket(feed, consumed);
        Check(buffer[buffer_size - 1] == '\0');
        for (const auto& header : ctx.headers)
            Check(header.first.find(':') == std::string::npos);
    }
    abort();
}

void Unescape(const uint8_t* data, size_t size) {
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    std::string out = unescape_url(text.data());
    Check(out.size() <= strlen(text.data()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    if ((data[0] & 1) == 0) {
        ReadEventStream(data + 1, size - 1);
    } else {
        // Small heads reach the buffer's end; 0 picks the worker's own size.
        uint32_t buffer_size = data[1] == 0 ? HTTP_HEAD_BUFFER_SIZE : 1u + data[1] % 96;
        ReadHeads(buffer_size, data + 2, size - 2);
    }
    Unescape(data + 1, size - 1);
    return 0;
}
