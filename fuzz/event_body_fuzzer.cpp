// Event bodies of a LAPI camera: whatever JSON-like text arrives is applied
// as the camera's new totals. It must never fail, and the callback must see
// exactly the snapshot the body gave.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "UBrand_PPL_Counter.h"

namespace {

void Check(bool ok) {
    if (!ok)
        abort();
}

class Recorder : public Abstract_PPL_CB {
public:
    void count_result(Abstract_PPL_Counter* counter) override {
        ++calls;
        in = counter->get_ppl_total_cam_in();
        out = counter->get_ppl_total_cam_out();
        stayin = counter->get_ppl_total_cam_stayin();
    }
    int calls = 0;
    int in = 0, out = 0, stayin = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Never started: no worker, no connection; only the body is applied.
    static UBrand_PPL_Counter* counter = new UBrand_PPL_Counter(0);
    Recorder recorder;
    counter->set_ppl_count_callback(&recorder);
    counter->CountingResult(std::string(reinterpret_cast<const char*>(data), size));
    Check(recorder.calls == 1);
    Check(recorder.in == counter->get_ppl_total_cam_in());
    Check(recorder.out == counter->get_ppl_total_cam_out());
    Check(recorder.stayin == static_cast<int>(static_cast<unsigned int>(recorder.in) -
                                              static_cast<unsigned int>(recorder.out)));
    counter->set_ppl_count_callback(nullptr);
    return 0;
}
