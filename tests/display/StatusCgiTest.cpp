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
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "SandboxGTest.h"

namespace ppltest {
namespace {

const char* const kStatus = "/tmp/PPLCounter.ini";
const char* const kLive =
    "PPL.Enable = 1\nPPL.In0.Count = 57\nPPL.In0.Status = connect\nPPL.Out0.Count = 49\n"
    "PPL.Out0.Status = disconnect\nPPL.StayIn0.Count = 8\nPPL.StayIn0.Over = 10\n"
    "PPL.StayIn0.Status = Under\nPPL.StayIn0.Under = -2";
const uid_t kOtherUser = 65534;

// Strict JSON (RFC 8259), ASCII only, no duplicate keys: one object, its
// members flattened ("cameras.in"), strings without their quotes.
class StrictJson {
public:
    bool Parse(const std::string& text) {
        text_ = text;
        at_ = 0;
        values.clear();
        return Object("") && (Space(), at_ == text_.size());
    }
    std::map<std::string, std::string> values;

private:
    void Space() { at_ = std::min(text_.find_first_not_of(" \t\r\n", at_), text_.size()); }
    bool Eat(char c) { return Space(), at_ < text_.size() && text_[at_] == c && ++at_; }
    bool Object(const std::string& prefix) {
        if (!Eat('{'))
            return false;
        if (Eat('}'))
            return true;
        do {
            std::string key;
            if (!(Space(), String(&key)) || !Eat(':') || !Value(prefix + key))
                return false;
        } while (Eat(','));
        return Eat('}');
    }
    bool Value(const std::string& name) {
        Space();
        std::string value;
        if (at_ < text_.size() && text_[at_] == '{')
            return values.emplace(name, "{}").second && Object(name + ".");
        bool ok = at_ < text_.size() && text_[at_] == '"' ? String(&value) : Literal(&value);
        return ok && values.emplace(name, value).second;
    }
    bool String(std::string* out) {
        if (at_ >= text_.size() || text_[at_++] != '"')
            return false;
        static const std::regex kEscape(R"(\\(["\\/bfnrt]|u[0-9a-fA-F]{4}))");
        while (at_ < text_.size() && text_[at_] != '"') {
            unsigned char c = static_cast<unsigned char>(text_[at_]);
            std::smatch escape;
            std::string rest = text_.substr(at_, 6);
            if (c < 0x20 || c >= 0x80 ||
                (c == '\\' &&
                 !std::regex_search(rest, escape, kEscape, std::regex_constants::match_continuous)))
                return false;
            size_t length = c == '\\' ? escape.length(0) : 1;
            out->append(text_, at_, length);
            at_ += length;
        }
        return at_++ < text_.size();
    }
    bool Literal(std::string* out) {
        static const std::regex kLiteral(
            R"(true|false|null|-?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?)");
        size_t end = text_.find_first_of(",}] \t\r\n", at_);
        *out = text_.substr(at_, end == std::string::npos ? std::string::npos : end - at_);
        at_ += out->size();
        return std::regex_match(*out, kLiteral);
    }
    std::string text_;
    size_t at_ = 0;
};

struct Answer {
    std::string head, body;
    bool json_ok = false;
    std::map<std::string, std::string> json;
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
    Answer Ask(const char* method = "GET") {
        setenv("REQUEST_METHOD", method, 1);
        Child cgi;
        Answer answer;
        EXPECT_TRUE(cgi.Start({BuiltFile("pplcounter-status")}, "/opt") && cgi.Wait(10000));
        size_t split = cgi.Stdout().find("\r\n\r\n");
        answer.head = cgi.Stdout().substr(0, split + 2);
        answer.body = split == std::string::npos ? "" : cgi.Stdout().substr(split + 4);
        StrictJson json;
        answer.json_ok = json.Parse(answer.body);
        answer.json = json.values;
        return answer;
    }
    int lock_fd_ = -1;
};

TEST_F(StatusCgiTest, LiveFiguresOnlyFromTheServicesOwnFreshFile) {
    HoldLock("/run", 0);
    WriteStatus(kLive);
    Answer got = Ask();
    EXPECT_EQ(got.head.find("Status: 200 OK\r\n"), 0u) << got.head;
    for (const std::string& line :
         std::vector<std::string>{"Content-Type: application/json", "Cache-Control: no-store",
                                  "Content-Length: " + std::to_string(got.body.size())})
        EXPECT_NE(got.head.find("\r\n" + line + "\r\n"), std::string::npos) << line;
    ASSERT_TRUE(got.json_ok) << got.body;
    EXPECT_LE(std::stod(got.json["age"]), 1.5);
    got.json.erase("age");
    std::map<std::string, std::string> want = {
        {"state", "ok"},        {"enabled", "true"},     {"in", "57"},
        {"out", "49"},          {"stayin", "8"},         {"over", "10"},
        {"under", "-2"},        {"over_alarm", "false"}, {"cameras", "{}"},
        {"cameras.in", "true"}, {"cameras.out", "false"}};
    EXPECT_EQ(got.json, want);

    Answer head = Ask("HEAD");
    EXPECT_EQ(head.head, got.head);
    EXPECT_EQ(head.body, "");
    Answer post = Ask("POST");
    EXPECT_EQ(post.head.find("Status: 405 Method Not Allowed\r\n"), 0u);
    EXPECT_NE(post.head.find("\r\nAllow: GET, HEAD\r\n"), std::string::npos);
    EXPECT_TRUE(post.json_ok && post.json["state"] == "error") << post.body;
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
        {"a word the service never writes",
         [&] { WriteStatus(std::string(kLive) + "\nPPL.In0.Status = maybe"); }, "nofigures",
         "PPL.In0.Status is neither connect nor disconnect"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        unlink(kStatus);
        c.make();
        Answer got = Ask();
        EXPECT_EQ(got.head.find("Status: 503 Service Unavailable\r\n"), 0u) << got.head;
        EXPECT_NE(got.head.find("\r\nRetry-After: 1\r\n"), std::string::npos);
        ASSERT_TRUE(got.json_ok) << got.body;
        EXPECT_EQ(got.json["state"], c.state);
        EXPECT_NE(got.json["why"].find(c.why), std::string::npos) << got.json["why"];
        EXPECT_EQ(got.json.count("stayin") + got.json.count("enabled"), 0u) << got.body;
    }
}

// A service run as another user locks in /tmp: its file is trusted, root's not.
TEST_F(StatusCgiTest, TheServicesUserIsTheOwnerOfTheLockItHolds) {
    HoldLock("/tmp", kOtherUser);
    WriteStatus(kLive, kOtherUser);
    EXPECT_EQ(Ask().json["state"], "ok");
    WriteStatus(kLive, 0);
    EXPECT_NE(Ask().json["why"].find("(owned by user 0); the service runs as user 65534"),
              std::string::npos);
    close(lock_fd_);
    lock_fd_ = -1;
    EXPECT_EQ(Ask().json["state"], "ok") << "no service runs: root's file";
}

}  // namespace
}  // namespace ppltest
