#ifndef PPLCTL_SERVICE_CLIENT_H
#define PPLCTL_SERVICE_CLIENT_H

#include <string>

// One command to the service over its datagram socket, sent the way the
// recorder's modules send them: from a socket bound to a path of our own,
// since the service answers the sender's path.
struct CommandResult {
    enum Outcome { kReplied, kNoService, kNoReply, kNoSocket };
    Outcome outcome = kNoSocket;
    std::string reply;  // when kReplied
    std::string error;  // one line when not kReplied
    long elapsed_ms = 0;
};

CommandResult SendCommand(const std::string& socket_path, const std::string& text, int timeout_ms);

#endif
