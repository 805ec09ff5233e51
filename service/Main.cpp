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

int main() {
    InstanceLock lock;
    std::string why;
    if (!lock.Take(InstanceLock::Path(), &why)) {
        fprintf(stderr, "pplcounter: %s\n", why.c_str());
        return 1;
    }
    PPLCounter service;
    service.Start();
    service.Stop();
    return 0;
}
