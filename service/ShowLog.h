#ifndef PPL_SHOW_LOG_H
#define PPL_SHOW_LOG_H

// The service's timestamped log line on standard error: "[time] message".
// Private to the service's sources; the message carries its own newline.
void ShowLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif
