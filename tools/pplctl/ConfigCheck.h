#ifndef PPLCTL_CONFIG_CHECK_H
#define PPLCTL_CONFIG_CHECK_H

#include <string>
#include <vector>

// What the service will do with a system configuration file, told in plain
// words, and every place where the file does not say what its writer
// probably meant. The file is read with the attribute store the service
// reads it with; nothing is written and no camera or service is contacted.
struct ConfigReport {
    bool readable = false;
    std::string why_unreadable;         // when not readable
    std::vector<std::string> lines;     // what the service will do
    std::vector<std::string> problems;  // one line each: key, value, consequence
};

ConfigReport CheckConfig(const std::string& path);

#endif
