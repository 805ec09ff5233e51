#ifndef PPL_SHOW_LOG_H
#define PPL_SHOW_LOG_H

#include <string>

// The service's timestamped log line on standard error: "[time] message".
// Private to the service's sources; the message carries its own newline.
void ShowLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Text another process sent (an event, a command), fit for one log line: a
// newline is written "\n", every other control byte "\xHH" and a backslash
// "\\", so that a sender's newline cannot start a line of its own in root's
// log. Every other byte stays as it is.
std::string Printable(const char* text);

#endif
