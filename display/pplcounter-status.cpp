// pplcounter-status: the door display's CGI program. Answers GET and HEAD
// with the service's live figures as one JSON object (docs/display.md gives
// the schema). Of the request it reads the method alone: nothing a client
// sends reaches a path.
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "StatusReport.h"
#include "UFile.h"
#include "UTime.h"

int main() {
    // Run by hand, without a web server, it answers as to a GET.
    const char* given = getenv("REQUEST_METHOD");
    const std::string method = given != nullptr ? given : "GET";
    std::string status, extra, body;
    if (method == "GET" || method == "HEAD") {
        StatusReport report = StatusReport::Read(StatusReport::Places::Fixed(),
                                                 static_cast<int64_t>(UTime::GetRealTimeMs()));
        body = report.Json();
        // Without figures the live state is unavailable for now; the
        // service rewrites its file every second.
        bool ok = report.state() == StatusReport::State::kOk;
        status = ok ? "200 OK" : "503 Service Unavailable";
        extra = ok ? "" : "Retry-After: 1\r\n";
    } else {
        status = "405 Method Not Allowed";
        extra = "Allow: GET, HEAD\r\n";
        body = "{\"state\":\"error\",\"why\":\"only GET and HEAD are answered\"}";
    }
    body += "\n";
    // Status first: BusyBox httpd takes it as the status line only there.
    // The figures change every second, so no cache may keep an answer.
    std::string head = "Status: " + status +
                       "\r\n"
                       "Content-Type: application/json\r\n"
                       "Content-Length: " +
                       std::to_string(body.size()) +
                       "\r\n"
                       "Cache-Control: no-store\r\n"
                       "X-Content-Type-Options: nosniff\r\n" +
                       extra + "\r\n";
    const std::string answer = method == "HEAD" ? head : head + body;
    return UFile::WriteAll(STDOUT_FILENO, answer.data(), answer.size()) ? 0 : 1;
}
