#ifndef PPLCTL_CONFIG_CHECK_H
#define PPLCTL_CONFIG_CHECK_H

#include <string>
#include <utility>
#include <vector>

// A camera the service connects to while counting is on: its index (whose
// SERV_PPL_CAM_<n>_ keys it reads), the sides of group 0 it counts, and its
// address and port as the service reads them.
struct CameraUse {
    int index = 0;
    bool in = false;
    bool out = false;
    std::string address;  // "" when the key is missing
    int port = 0;         // 0 when the key is missing
    bool started = true;  // false: the service never starts its counter
};

// What the service will do with a system configuration file, told in plain
// words, and every place where the file does not say what its writer
// probably meant. The file is read with the attribute store the service
// reads it with; nothing is written and no camera or service is contacted.
struct ConfigReport {
    bool readable = false;
    std::string why_unreadable;         // when not readable
    std::vector<std::string> lines;     // what the service will do
    std::vector<std::string> problems;  // one line each: key, value, consequence
    bool counting = false;              // SERV_PPL_ENABLE reads other than 0
    std::vector<CameraUse> cameras;
    std::pair<int, int> limits;  // group 0's over and under limits
    std::string settings;        // its settings request; "" when incomplete
};

ConfigReport CheckConfig(const std::string& path);

#endif
