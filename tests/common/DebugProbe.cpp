// Runs debug-switch steps given as arguments, in order:
//   create / remove   the switch file named after this program's path
//   expire / recent   marks the switch file as probed six / four seconds ago
//   log:<word>        one debug line carrying <word>
#include <fcntl.h>
#include <unistd.h>

#include <ctime>
#include <string>

#include "ULog.h"

int main(int argc, char** argv) {
    std::string switch_file = std::string(argv[0]) + ".log";
    for (int i = 1; i < argc; ++i) {
        std::string step = argv[i];
        if (step == "create")
            close(open(switch_file.c_str(), O_WRONLY | O_CREAT, 0644));
        else if (step == "remove")
            unlink(switch_file.c_str());
        else if (step == "expire" || step == "recent")
            USysLog::m_tLastTime = static_cast<int>(time(nullptr)) - (step == "expire" ? 6 : 4);
        else if (step.compare(0, 4, "log:") == 0)
            USysLog::debug("probe.cpp", 7, "Step", "marker %s %d", step.c_str() + 4, 42);
    }
    return 0;
}
