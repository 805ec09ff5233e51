#include "NModuleSocket.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "UWait.h"

namespace nmodule {

int PollReadable(int fd, unsigned int seconds, unsigned int microseconds) {
    if (fd < 0)
        return -1;
    timeval limit;
    limit.tv_sec = static_cast<time_t>(seconds) + microseconds / 1000000u;
    limit.tv_usec = static_cast<suseconds_t>(microseconds % 1000000u);
    switch (UWait::Until(fd, POLLIN, {}, UWait::Ms(limit))) {
        case UWaitResult::Ready:
            return 1;
        case UWaitResult::TimedOut:
            return 0;
        default:
            return -1;
    }
}

bool MakeAddress(const char* path, struct sockaddr_un* addr, socklen_t* length) {
    size_t n = std::strlen(path);
    if (n >= sizeof(addr->sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    std::memcpy(addr->sun_path, path, n);
    *length = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + n);
    return true;
}

void CloseDescriptor(int* fd) {
    if (*fd > 0)
        ::close(*fd);
    *fd = -1;
}

}  // namespace nmodule
