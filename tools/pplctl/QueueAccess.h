#ifndef PPLCTL_QUEUE_ACCESS_H
#define PPLCTL_QUEUE_ACCESS_H

#include <string>

// Gives the service's receiving queue (key 601) the mode and group the
// deployment chose. The service makes its queue 0777, as every module makes
// its own, so any local user could send it a forged del_camera; the
// start-up scripts run this before each start of the service (the queue is
// then made here, narrowed, and the service takes it as it is) and after it
// (when the service had to replace another user's queue). Needs the user
// the service runs as, and no capability.
//
// mode: octal, at most 0777, with all of the owner's bits (the service asks
// for them when it takes an existing queue); group: a name or a number.
// wait_seconds: how long a queue of another user is waited out (the service
// replaces it where it may). Prints one line; returns 0 when the queue has
// the mode and group, 1 when it is another user's, 2 for a bad argument, 4
// on a system error.
int QueueAccess(int key, const std::string& mode, const std::string& group, int wait_seconds);

#endif
