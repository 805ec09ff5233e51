// The files the service keeps where other users can write: the instance lock
// and the status file are taken only from a regular file of the service's
// own user, and the status file is replaced whole.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "InstanceLock.h"
#include "OwnedFile.h"
#include "Sandbox.h"

namespace ppltest {
namespace {

class OwnFiles : public ::testing::Test {
protected:
    TempDir tmp_{"pplown-"};
    const std::string dir_ = tmp_.Path();
};

TEST_F(OwnFiles, WhatIsAtThePathDecidesWhetherItIsUsed) {
    const std::string path = dir_ + "/PPLCounter.lock";
    const std::string target = dir_ + "/target";
    const std::string other = dir_ + "/other";
    struct Case {
        const char* what;
        std::function<int()> make;
        const char* lock_refusal;  // "" when the lock is taken
        const char* load_refusal;  // what the status file's reader says
    };
    const std::vector<Case> cases = {
        {"a file of this user left 0644", [&] { return WriteWholeFile(path, "") ? 0 : -1; }, "",
         ""},
        {"a link", [&] { return symlink(target.c_str(), path.c_str()); },
         "cannot open the instance lock", "a symbolic link"},
        {"a directory", [&] { return mkdir(path.c_str(), 0755); }, "cannot open the instance lock",
         "a directory"},
        {"a FIFO", [&] { return mkfifo(path.c_str(), 0666); }, "refusing the instance lock",
         "a FIFO"},
        {"a second link to a file",
         [&] { return WriteWholeFile(other, "") ? link(other.c_str(), path.c_str()) : -1; },
         "refusing the instance lock", "2 links to one file"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::filesystem::remove_all(path);
        std::filesystem::remove(other);
        ASSERT_EQ(c.make(), 0);
        std::string text, why;
        OwnedFile::Read read = OwnedFile::Load(path, 65536, &text, &why);
        EXPECT_EQ(read, *c.load_refusal ? OwnedFile::Read::Refused : OwnedFile::Read::Ok);
        EXPECT_EQ(why, c.load_refusal);
        InstanceLock lock;
        EXPECT_EQ(lock.Take(path, &why) == InstanceLock::Outcome::Held, *c.lock_refusal == '\0');
        EXPECT_EQ(why.rfind(c.lock_refusal, 0), 0u) << why;
        EXPECT_FALSE(std::filesystem::exists(target)) << "a link's target was created";
        if (*c.lock_refusal != '\0')
            continue;
        struct stat st;
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0600u) << "only its user may open it";
        InstanceLock second;
        EXPECT_EQ(second.Take(path, &why), InstanceLock::Outcome::Busy);
        EXPECT_EQ(why, "another pplcounter is already running (" + path + " is locked)");
    }
}

TEST_F(OwnFiles, TheLockGoesToTheFirstDirectoryOnlyItsUserMayWriteAndIsHeldWhileItsObjectLives) {
    ASSERT_TRUE(WriteWholeFile(dir_ + "/file", ""));
    EXPECT_EQ(InstanceLock::DirIn({dir_ + "/missing", dir_ + "/file", "/tmp", dir_}), dir_);
    EXPECT_EQ(InstanceLock::DirIn({dir_ + "/missing", "/tmp"}), "") << "others may write /tmp";
    const std::string path = dir_ + "/PPLCounter.lock";
    {
        InstanceLock lock;
        std::string why;
        ASSERT_EQ(lock.Take(path, &why), InstanceLock::Outcome::Held) << why;
        EXPECT_TRUE(LockIsHeld(path));
    }
    EXPECT_FALSE(LockIsHeld(path));
}

TEST_F(OwnFiles, TheStatusFileIsReplacedWholeWithItsModeAndReadBelowTheLimitOnly) {
    const std::string path = dir_ + "/PPLCounter.ini";
    const std::string target = dir_ + "/target";
    ASSERT_TRUE(WriteWholeFile(target, "kept"));
    ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0);
    mode_t old_mask = umask(077);
    EXPECT_TRUE(OwnedFile::Replace(path, "A = 1", 0644));
    umask(old_mask);
    struct stat st;
    ASSERT_EQ(lstat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0644u) << "whatever the umask";
    EXPECT_EQ(ReadWholeFile(target), "kept") << "the link was replaced, not written through";
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_), {}), 2)
        << "no temporary file is left";
    EXPECT_FALSE(OwnedFile::Replace(dir_ + "/missing/PPLCounter.ini", "A = 1", 0644));

    std::string text, why;
    EXPECT_EQ(OwnedFile::Load(path, 6, &text, &why), OwnedFile::Read::Ok);
    EXPECT_EQ(text, "A = 1");
    EXPECT_EQ(OwnedFile::Load(path, 5, &text, &why), OwnedFile::Read::Refused);
    EXPECT_EQ(why, "5 bytes, over the limit of 5");
    EXPECT_EQ(text, "");
    EXPECT_EQ(OwnedFile::Load(dir_ + "/missing", 5, &text, &why), OwnedFile::Read::Missing);
}

}  // namespace
}  // namespace ppltest
