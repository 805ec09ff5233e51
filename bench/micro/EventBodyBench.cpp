// Applying one event body: the four numbers, the callback, the log line.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "UBrand_PPL_Counter.h"

namespace {

// The counter logs every event on standard error; the log line is part of
// the cost, its destination is not.
class StderrToNull {
public:
    StderrToNull() : saved_(dup(2)) {
        fflush(stderr);
        int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, 2);
        close(null);
    }
    virtual ~StderrToNull() {
        fflush(stderr);
        dup2(saved_, 2);
        close(saved_);
    }
    StderrToNull(const StderrToNull&) = delete;
    StderrToNull& operator=(const StderrToNull&) = delete;

private:
    int saved_;
};

class CountingSink : public Abstract_PPL_CB {
public:
    void count_result(Abstract_PPL_Counter* counter) override {
        benchmark::DoNotOptimize(counter->get_ppl_total_cam_stayin());
    }
};

void BM_EventBody(benchmark::State& state) {
    const std::string body =
        "{\"ObjectIn\":1,\"ObjectOut\":0,\"TotalIn\":123456,\"TotalOut\":98765}";
    UBrand_PPL_Counter counter(0);
    CountingSink sink;
    counter.set_ppl_count_callback(&sink);
    StderrToNull quiet;
    for (auto _ : state)
        counter.CountingResult(body);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EventBody);

}  // namespace
