// Preloaded into the service by tests, to make happen what nothing outside
// it can: with PPL_SHIM_BIND_DELAY_MS every bind returns that many ms late;
// with PPL_SHIM_CLOCK_FILE the wall clock (time, and clock_gettime of
// CLOCK_REALTIME) is off by the seconds that file holds, read at each call.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

extern "C" int bind(int fd, const struct sockaddr* addr, socklen_t length) {
    static auto real = reinterpret_cast<decltype(&bind)>(dlsym(RTLD_NEXT, "bind"));
    int result = real(fd, addr, length), err = errno;
    if (const char* ms = getenv("PPL_SHIM_BIND_DELAY_MS"))
        usleep(static_cast<useconds_t>(atoi(ms)) * 1000);
    errno = err;
    return result;
}

extern "C" int clock_gettime(clockid_t clock, struct timespec* ts) {
    static auto real =
        reinterpret_cast<decltype(&clock_gettime)>(dlsym(RTLD_NEXT, "clock_gettime"));
    char shift[32] = {0};
    const char* path = getenv("PPL_SHIM_CLOCK_FILE");
    int fd = clock == CLOCK_REALTIME && path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (fd >= 0 && read(fd, shift, sizeof(shift) - 1) < 0)
        shift[0] = '\0';
    if (fd >= 0)
        close(fd);
    int result = real(clock, ts);
    ts->tv_sec += atol(shift);
    return result;
}

extern "C" time_t time(time_t* out) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return out != nullptr ? (*out = ts.tv_sec) : ts.tv_sec;
}
