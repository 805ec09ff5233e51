// pplcounter: the people-counting service. It takes no options; everything
// comes from the recorder's system configuration file.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "PPLConstants.h"
#include "PPLCounter.h"

namespace {

// One service per recorder: a second one would take over the command socket,
// subscribe to the cameras again and, when it ends, remove the socket and
// queue 601 from under the first. The lock goes with the process, so one
// left by a killed service never blocks a restart; the file is never
// removed, because removing it would let two processes lock two files.
bool TakeInstanceLock() {
    int fd = open(ppl::kInstanceLockPath, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        fprintf(stderr, "pplcounter: cannot open the instance lock %s: %s\n",
                ppl::kInstanceLockPath, strerror(errno));
        return false;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK)
            fprintf(stderr, "pplcounter: another pplcounter is already running (%s is locked)\n",
                    ppl::kInstanceLockPath);
        else
            fprintf(stderr, "pplcounter: cannot lock %s: %s\n", ppl::kInstanceLockPath,
                    strerror(errno));
        close(fd);
        return false;
    }
    return true;  // held, through the open descriptor, until the process ends
}

}  // namespace

int main() {
    if (!TakeInstanceLock())
        return 1;
    PPLCounter service;
    service.Start();
    service.Stop();
    return 0;
}
