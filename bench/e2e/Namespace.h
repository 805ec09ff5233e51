#ifndef PPLBENCH_NAMESPACE_H
#define PPLBENCH_NAMESPACE_H

#include <string>

namespace pplbench {

// Moves this still single-threaded process into private IPC, mount and
// network namespaces (with a user namespace when not root), puts fresh tmpfs
// onto /tmp and /opt, creates the recorder's configuration folder and brings
// loopback up, so that the service's fixed paths, queue keys and ports belong
// to this run alone. False with a reason when the kernel refuses.
bool EnterPrivateNamespaces(std::string* why);

// Raises the byte capacity of new System V queues in this IPC namespace, so
// that the reader of a burst never makes the service drop an event.
bool RaiseQueueCapacity(long bytes, std::string* why);

}  // namespace pplbench

#endif
