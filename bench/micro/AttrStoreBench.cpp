// The attribute store's load and save of a file the size of the status file.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "SAttr.h"

namespace {

class StatusFile {
public:
    StatusFile() {
        // The status file lives on a RAM file system on the recorder.
        char shm[] = "/dev/shm/pplmicro-XXXXXX";
        char tmp[] = "/tmp/pplmicro-XXXXXX";
        const char* dir = mkdtemp(shm);
        if (dir == nullptr)
            dir = mkdtemp(tmp);
        dir_ = dir != nullptr ? dir : ".";
        path_ = dir_ + "/PPLCounter.ini";
    }
    virtual ~StatusFile() {
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }
    StatusFile(const StatusFile&) = delete;
    StatusFile& operator=(const StatusFile&) = delete;
    const char* Path() const { return path_.c_str(); }

    static void Fill(SAttr& status) {
        status.SetIntValue("PPL.Enable", 1, 10);
        status.SetIntValue("PPL.In0.Count", 123456, 10);
        status.SetIntValue("PPL.Out0.Count", 123400, 10);
        status.SetIntValue("PPL.StayIn0.Count", 56, 10);
        status.SetIntValue("PPL.StayIn0.Over", 100, 10);
        status.SetIntValue("PPL.StayIn0.Under", 0, 10);
        status.SetKeyValue("PPL.StayIn0.Status", "Under");
        status.SetKeyValue("PPL.In0.Status", "connect");
        status.SetKeyValue("PPL.Out0.Status", "connect");
    }

private:
    std::string dir_;
    std::string path_;
};

void BM_StatusSave(benchmark::State& state) {
    StatusFile file;
    for (auto _ : state) {
        SAttr status('=', "\r\n", "\n", file.Path());
        StatusFile::Fill(status);
        if (!status.SaveFile(nullptr, true, true)) {
            state.SkipWithError("save failed");
            break;
        }
    }
}
BENCHMARK(BM_StatusSave);

void BM_StatusLoad(benchmark::State& state) {
    StatusFile file;
    {
        SAttr status('=', "\r\n", "\n", file.Path());
        StatusFile::Fill(status);
        status.SaveFile(nullptr, true, true);
    }
    for (auto _ : state) {
        SAttr status('=', "\r\n", "\n", nullptr);
        if (!status.LoadFile(file.Path()) || status.GetSize() != 9) {
            state.SkipWithError("load failed");
            break;
        }
    }
}
BENCHMARK(BM_StatusLoad);

}  // namespace

BENCHMARK_MAIN();
