// The head reader and the whole event read over a local stream socket pair,
// one camera event message per iteration.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "http_parser.h"
#include "ipc_va.h"

namespace {

const char kBody[] = "{\"ObjectIn\":1,\"ObjectOut\":0,\"TotalIn\":1234,\"TotalOut\":987}";

std::string EventMessage() {
    return "POST /LAPI/V1.0/System/Event/Notification HTTP/1.1\r\n"
           "Content-Type: application/json\r\nContent-Length: " +
           std::to_string(strlen(kBody)) + "\r\n\r\n" + kBody;
}

class SocketPair {
public:
    SocketPair() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_); }
    virtual ~SocketPair() {
        close(fds_[0]);
        close(fds_[1]);
    }
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;
    bool Write(const std::string& bytes) {
        return write(fds_[0], bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    }
    int ReaderFd() const { return fds_[1]; }

private:
    int fds_[2];
};

void BM_HttpHeadReader(benchmark::State& state) {
    SocketPair pair;
    const std::string message = EventMessage();
    std::unique_ptr<char[]> buffer(new char[HTTP_HEAD_BUFFER_SIZE]());
    char body[sizeof(kBody)];
    timeval wait = {0, 200000};
    for (auto _ : state) {
        pair.Write(message);
        memset(buffer.get(), 0, HTTP_HEAD_BUFFER_SIZE);
        HTTP_CONTEXT ctx;
        ctx.buffer = buffer.get();
        ctx.buffer_size = HTTP_HEAD_BUFFER_SIZE;
        int got = http_read_until_got_request(pair.ReaderFd(), &ctx, wait);
        if (got <= 0 || recv(pair.ReaderFd(), body, strlen(kBody), 0) <= 0) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(ctx.headers);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_HttpHeadReader);

void BM_EventMessageRead(benchmark::State& state) {
    SocketPair pair;
    const std::string message = EventMessage();
    timeval wait = {0, 200000};
    for (auto _ : state) {
        pair.Write(message);
        std::string msg;
        if (ipcva_recv_msg(pair.ReaderFd(), msg, wait) <= 0) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(msg);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EventMessageRead);

}  // namespace
