#ifndef PPLCTL_DOCTOR_H
#define PPLCTL_DOCTOR_H

#include <string>

// The deployment check on the recorder: whether the service runs and is
// reachable where the recorder's modules look for it, and whether its
// cameras are. It only looks: no message is taken off a queue, no lock is
// tried, nothing is written.
struct DoctorPaths {
    std::string socket;  // command socket
    std::string status;  // status file
    std::string config;  // system configuration
};

// Prints one line per check and a summary; returns 0 only when all pass.
int RunDoctor(const DoctorPaths& paths);

#endif
