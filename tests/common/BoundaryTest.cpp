// The limits of the common library, each from both sides: the guards before
// copies into fixed buffers, and where a conversion begins to refuse.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>

#include "NMQueue.h"
#include "NModuleInterface.h"
#include "SandboxGTest.h"
#include "USignal.h"
#include "UTime.h"

namespace {

bool Ntp(time_t sec, long nsec, uint64_t expected) {
    uint64_t ntp = ~expected;
    struct timespec unix_time = {};
    unix_time.tv_sec = sec;
    unix_time.tv_nsec = nsec;
    return UTime::UnixToNtp(unix_time, ntp) && ntp == expected;
}

bool QueueNamed(size_t length) {
    NPosixMsgQ queue;
    bool made = queue.create(("/" + std::string(length - 1, 'q')).c_str(), 1, 8);
    if (made)
        queue.destroy();
    return made;
}

std::string RemoteTaken(size_t length) {
    NCommandIPC endpoint(nullptr, std::string(length, 'p').c_str());
    return endpoint.GetRemotePath();
}

TEST(Boundaries, EachLimitFromBothSides) {
    PPL_ENTER_IPC_NAMESPACE_OR_SKIP();  // the queue names are this test's alone
    const bool wide_time = sizeof(time_t) == 8;
    const struct {
        const char* what;
        std::function<bool()> holds;
    } cases[] = {
        {"a queue name one byte short of its buffer is used", [] { return QueueNamed(255); }},
        {"one as long as the buffer is refused before any copy",
         [] { return !QueueNamed(256) && errno == ENAMETOOLONG; }},
        {"a remote path one byte short of sun_path is taken",
         [] { return RemoteTaken(107) == std::string(107, 'p'); }},
        {"one as long as sun_path is not", [] { return RemoteTaken(108).empty(); }},
        {"Unix time 1900-01-01 00:00:00 is NTP 0",
         [&] { return !wide_time || Ntp(-2208988800, 0, 0); }},
        {"a second earlier is refused", [&] { return !wide_time || !Ntp(-2208988801, 0, 0); }},
        {"nanoseconds of a whole second are refused", [] { return !Ntp(0, 1000000000, 0); }},
        {"negative nanoseconds are refused", [] { return !Ntp(0, -1, 0); }},
        {"signal 0 is named ZERO",
         [] { return std::string(USignal::GetSignalString(0)) == "ZERO"; }},
        {"so is every negative number",
         [] { return std::string(USignal::GetSignalString(-1)) == "ZERO"; }},
        {"31 is the last named signal",
         [] { return std::string(USignal::GetSignalString(31)) == "SIGSYS"; }},
        {"32 and above are RT_SIGNAL",
         [] { return std::string(USignal::GetSignalString(32)) == "RT_SIGNAL"; }},
    };
    testing::internal::CaptureStderr();  // the refusals are logged
    for (const auto& c : cases)
        EXPECT_TRUE(c.holds()) << c.what;
    testing::internal::GetCapturedStderr();
}

}  // namespace
