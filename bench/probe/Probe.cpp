#include "Probe.h"

#include <dirent.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

namespace pplbench {
namespace {

// Value of a "Name:   value" line of a status file, or -1.
long StatusField(const std::string& path, const char* name) {
    std::ifstream in(path);
    std::string line;
    size_t len = strlen(name);
    while (std::getline(in, line)) {
        if (line.compare(0, len, name) == 0 && line.size() > len && line[len] == ':')
            return std::stol(line.substr(len + 1));
    }
    return -1;
}

int CountDescriptors(const std::string& base) {
    DIR* dir = opendir((base + "/fd").c_str());
    if (dir == nullptr)
        return -1;
    int count = 0;
    while (dirent* entry = readdir(dir))
        count += entry->d_name[0] != '.';
    closedir(dir);
    return count;
}

bool AddThread(const std::string& task, ProcessSample* s) {
    uint64_t run_ns = 0;
    FILE* f = fopen((task + "/schedstat").c_str(), "re");
    if (f == nullptr)
        return false;
    bool ok = fscanf(f, "%lu", &run_ns) == 1;
    fclose(f);
    long vol = StatusField(task + "/status", "voluntary_ctxt_switches");
    long invol = StatusField(task + "/status", "nonvoluntary_ctxt_switches");
    if (!ok || vol < 0 || invol < 0)
        return false;
    s->cpu_ns += run_ns;
    s->voluntary += static_cast<uint64_t>(vol);
    s->involuntary += static_cast<uint64_t>(invol);
    return true;
}

}  // namespace

uint64_t NowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

bool SampleProcess(pid_t pid, ProcessSample* sample) {
    ProcessSample s;
    s.at_ns = NowNs();
    std::string base = "/proc/" + std::to_string(pid);
    DIR* tasks = opendir((base + "/task").c_str());
    if (tasks == nullptr)
        return false;
    bool ok = true;
    while (dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] != '.')
            ok = AddThread(base + "/task/" + entry->d_name, &s) && ok;
    }
    closedir(tasks);
    s.rss_kib = StatusField(base + "/status", "VmRSS");
    s.peak_rss_kib = StatusField(base + "/status", "VmHWM");
    s.threads = static_cast<int>(StatusField(base + "/status", "Threads"));
    s.fds = CountDescriptors(base);
    s.pss_kib = StatusField(base + "/smaps_rollup", "Pss");
    s.private_kib = StatusField(base + "/smaps_rollup", "Private_Clean") +
                    StatusField(base + "/smaps_rollup", "Private_Dirty");
    *sample = s;
    return ok && s.rss_kib >= 0 && s.fds >= 0;
}

}  // namespace pplbench
