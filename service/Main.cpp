// pplcounter: the people-counting service. It takes no options; everything
// comes from the recorder's system configuration file.
#include "PPLCounter.h"

int main() {
    PPLCounter service;
    service.Start();
    service.Stop();
    return 0;
}
