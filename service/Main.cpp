// pplcounter: the people-counting service. It takes no options; everything
// comes from the recorder's system configuration file.
#include <stdio.h>

#include <string>

#include "InstanceLock.h"
#include "PPLCounter.h"
#include "PPLVersion.h"

// Which release this binary is, for `strings` on a recorder. The service
// takes no options, so it never prints it; "used" keeps it in the binary
// (stripping removes symbols, not this text).
__attribute__((used)) extern const char kPplcounterVersion[] = "pplcounter " PPL_VERSION;

// Only a running service stops a start. A lock that cannot be had for any
// other reason (what another user left at its place and the service may not
// move) is said in one line, and the service counts without it.
int main() {
    InstanceLock lock;
    std::string why, said;
    InstanceLock::Outcome outcome = lock.TakeForService(&why, &said);
    if (!said.empty())
        fprintf(stderr, "pplcounter: %s\n", said.c_str());
    if (outcome == InstanceLock::Outcome::Busy) {
        fprintf(stderr, "pplcounter: %s\n", why.c_str());
        return 1;
    }
    if (outcome == InstanceLock::Outcome::Refused)
        fprintf(stderr, "pplcounter: %s; running without the instance lock\n", why.c_str());
    PPLCounter service;
    service.Start();
    service.Stop();
    return 0;
}
