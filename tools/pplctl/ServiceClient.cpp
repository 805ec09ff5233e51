#include "ServiceClient.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "NModuleInterface.h"
#include "ULog.h"
#include "UTime.h"

namespace {

// Keeps what the library prints on standard error (its own diagnostics of a
// failed send) off pplctl's output while it lives; pplctl reports instead.
class QuietStderr {
public:
    QuietStderr() : saved_(dup(STDERR_FILENO)) {
        fflush(stderr);
        int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null >= 0) {
            dup2(null, STDERR_FILENO);
            close(null);
        }
    }
    ~QuietStderr() {
        fflush(stderr);
        if (saved_ >= 0) {
            dup2(saved_, STDERR_FILENO);
            close(saved_);
        }
    }
    QuietStderr(const QuietStderr&) = delete;
    QuietStderr& operator=(const QuietStderr&) = delete;

private:
    int saved_;
};

}  // namespace

CommandResult SendCommand(const std::string& socket_path, const std::string& text, int timeout_ms) {
    CommandResult result;
    std::string local = "/tmp/pplctl-" + std::to_string(getpid());
    NCommandIPC client(local.c_str(), socket_path.c_str());
    if (client.GetFD() < 0) {
        result.error = "cannot create a socket at " + local;
        return result;
    }
    uint64_t start = UTime::GetMonotonicMs();
    int sent, err;
    {
        QuietStderr quiet;
        sent = client.Send(text.c_str(), static_cast<unsigned int>(text.size()));
        err = errno;
    }
    if (sent < 0) {
        result.outcome = CommandResult::kNoService;
        result.error = "no service answers on " + socket_path + " (" + UError::Text(err) + ")";
        return result;
    }
    char buffer[16384] = {0};
    if (client.Wait(timeout_ms / 1000, (timeout_ms % 1000) * 1000) <= 0 ||
        client.Recv(buffer, sizeof(buffer)) <= 0) {
        result.outcome = CommandResult::kNoReply;
        result.error =
            "no reply on " + socket_path + " within " + std::to_string(timeout_ms) + " ms";
        return result;
    }
    result.outcome = CommandResult::kReplied;
    result.reply = buffer;
    result.elapsed_ms = static_cast<long>(UTime::ElapsedMs(start));
    return result;
}
