// The status CGI program run as a web server runs it, in a private sandbox
// (its fixed paths are the sandbox's): every kind of thing at the status
// path, its JSON read by a strict parser, and its HTTP headers.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <regex>
#include <string>

#include "SandboxGTest.h"

namespace ppltest {
namespace {

const char* const kStatus = "/tmp/PPLCounter.ini";
const char* const kLive =
    "PPL.Enable = 1\nPPL.In0.Count = 57\nPPL.In0.Status = connect\nPPL.Out0.Count = 49\n"
    "PPL.Out0.Status = disconnect\nPPL.StayIn0.Count = 8\nPPL.StayIn0.Over = 10\n"
    "PPL.StayIn0.Status = Under\nPPL.StayIn0.Under = -2";
const uid_t kOtherUser = 65534;

// Strict JSON (RFC 8259) in ASCII, for one object with objects of scalars
// in it at most, as the answer is.
bool StrictJson(const std::string& text) {
    const std::string ws = "[ \\t\\r\\n]*";
    const std::string string = R"("(?:[^"\\\x00-\x1f]|\\["\\/bfnrt]|\\u[0-9a-fA-F]{4})*")";
    const std::string scalar =
        "(?:" + string +
        R"(|-?(?:0|[1-9][0-9]*)(?:\.[0-9]+)?(?:[eE][+-]?[0-9]+)?|true|false|null))";
    auto object = [&](const std::string& value) {
        std::string member = string + ws + ":" + ws + value + ws;
        return "\\{" + ws + "(?:" + member + "(?:," + ws + member + ")*)?\\}";
    };
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; }) &&
           std::regex_match(
               text, std::regex(ws + object("(?:" + scalar + "|" + object(scalar) + ")") + ws));
}

struct Answer {
    std::string head, body;
    bool Has(const std::string& line) const {
        return head.find(line + "\r\n") != std::string::npos;
    }
};

class StatusCgiTest : public ::testing::Test {
protected:
    void SetUp() override { PPL_ENTER_SANDBOX_OR_SKIP(); }
    void TearDown() override {
        if (lock_fd_ >= 0)
            close(lock_fd_);
    }

    // Holds the instance lock in dir as a service of user owner would.
    void HoldLock(const std::string& dir, uid_t owner) {
        lock_fd_ = open((dir + "/PPLCounter.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_EQ(fchown(lock_fd_, owner, owner), 0)
            << "making a file of user " << owner << " needs root outside a user namespace";
        ASSERT_EQ(flock(lock_fd_, LOCK_EX | LOCK_NB), 0);
    }
    // The status file, written age_s seconds ago by owner.
    void WriteStatus(const std::string& text, uid_t owner = 0, int age_s = 0) {
        ASSERT_TRUE(WriteWholeFile(kStatus, text));
        ASSERT_EQ(chown(kStatus, owner, owner), 0);
        struct timespec times[2] = {{time(nullptr) - age_s, 0}, {time(nullptr) - age_s, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, kStatus, times, 0), 0);
    }
    // The answer to a request, its body a strict JSON object.
    Answer Ask(const char* method = "GET") {
        setenv("REQUEST_METHOD", method, 1);
        Child cgi;
        EXPECT_TRUE(cgi.Start({BuiltFile("pplcounter-status")}, "/opt") && cgi.Wait(10000));
        size_t split = cgi.Stdout().find("\r\n\r\n");
        Answer answer{cgi.Stdout().substr(0, split + 2), cgi.Stdout().substr(split + 4)};
        EXPECT_TRUE(split != std::string::npos && (answer.body.empty() || StrictJson(answer.body)))
            << cgi.Stdout();
        return answer;
    }
    int lock_fd_ = -1;
};

TEST_F(StatusCgiTest, LiveFiguresOnlyFromTheServicesOwnFreshFile) {
    HoldLock("/run", 0);
    WriteStatus(kLive);
    Answer got = Ask();
    EXPECT_EQ(got.head.find("Status: 200 OK\r\n"), 0u) << got.head;
    EXPECT_TRUE(got.Has("Content-Type: application/json") && got.Has("Cache-Control: no-store") &&
                got.Has("Content-Length: " + std::to_string(got.body.size())))
        << got.head;
    EXPECT_EQ(std::regex_replace(got.body, std::regex("\"age\":(0|1)\\.[0-9],"), ""),
              "{\"state\":\"ok\",\"enabled\":true,\"in\":57,\"out\":49,\"stayin\":8,\"over\":10,"
              "\"under\":-2,\"over_alarm\":false,\"cameras\":{\"in\":true,\"out\":false}}\n");
    Answer head = Ask("HEAD");
    EXPECT_EQ(head.head, got.head);
    EXPECT_EQ(head.body, "");
    Answer post = Ask("POST");
    EXPECT_EQ(post.head.find("Status: 405 Method Not Allowed\r\n"), 0u);
    EXPECT_TRUE(post.Has("Allow: GET, HEAD")) << post.head;
}

TEST_F(StatusCgiTest, AnythingElseIsAnsweredAsWhatItIsWithoutFigures) {
    HoldLock("/run", 0);
    struct Case {
        const char* name;
        std::function<void()> make;
        const char* state;
        const char* why;
    } cases[] = {
        {"nothing", [] {}, "missing", "does not exist"},
        {"an old file", [&] { WriteStatus(kLive, 0, 10); }, "stale", "written 10."},
        {"a file from the future", [&] { WriteStatus(kLive, 0, -3); }, "stale", "in the future"},
        {"a link to the service's file",
         [&] {
             WriteStatus(kLive);
             rename(kStatus, "/tmp/s");
             symlink("/tmp/s", kStatus);
         },
         "untrusted", "(a symbolic link)"},
        {"a FIFO", [] { mkfifo(kStatus, 0644); }, "untrusted", "(a FIFO)"},
        {"a huge file", [&] { WriteStatus(std::string(kLive) + std::string(70000, '\n')); },
         "untrusted", "bytes, over the limit"},
        {"another user's", [&] { WriteStatus(kLive, kOtherUser); }, "untrusted",
         "(owned by user 65534); the service runs as user 0"},
        {"no group", [&] { WriteStatus("PPL.Enable = 1"); }, "nofigures", "no PPL.StayIn0.Count"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        unlink(kStatus);
        c.make();
        Answer got = Ask();
        EXPECT_EQ(got.head.find("Status: 503 Service Unavailable\r\n"), 0u) << got.head;
        EXPECT_TRUE(got.Has("Retry-After: 1")) << got.head;
        EXPECT_EQ(got.body.find(std::string("{\"state\":\"") + c.state + "\",\"why\":\""), 0u);
        EXPECT_NE(got.body.find(c.why), std::string::npos) << got.body;
        EXPECT_EQ(got.body.find("\"stayin\""), std::string::npos) << got.body;
    }
}

// A service run as another user locks in a directory of its own in /tmp: its
// file is trusted, root's not.
TEST_F(StatusCgiTest, TheServicesUserIsTheOwnerOfTheLockItHolds) {
    const std::string dir = "/tmp/PPLCounter.lock.d";
    ASSERT_TRUE(mkdir(dir.c_str(), 0700) == 0 && chown(dir.c_str(), kOtherUser, kOtherUser) == 0);
    HoldLock(dir, kOtherUser);
    WriteStatus(kLive, kOtherUser);
    EXPECT_EQ(Ask().head.find("Status: 200 OK"), 0u);
    WriteStatus(kLive, 0);
    EXPECT_NE(Ask().body.find("(owned by user 0); the service runs as user 65534"),
              std::string::npos);
    close(lock_fd_);
    lock_fd_ = -1;
    EXPECT_EQ(Ask().head.find("Status: 200 OK"), 0u) << "no service runs: root's file";
}

}  // namespace
}  // namespace ppltest
