#ifndef COMMON_NMODULESOCKET_H
#define COMMON_NMODULESOCKET_H

// Inside the library only: the pieces the datagram and the stream endpoints
// of NModuleInterface.h share.
#include <sys/socket.h>
#include <sys/un.h>

namespace nmodule {

// Waits until fd is readable: positive when it is, 0 on time-out, -1 on
// error (or when there is no descriptor).
int PollReadable(int fd, unsigned int seconds, unsigned int microseconds);

// Fills a Unix address with path; false (errno ENAMETOOLONG) when it does
// not fit with its terminating zero.
bool MakeAddress(const char* path, struct sockaddr_un* addr, socklen_t* length);

// Closes a descriptor above 0 (0 counts as none, deliberately) and marks it
// closed.
void CloseDescriptor(int* fd);

}  // namespace nmodule

#endif
