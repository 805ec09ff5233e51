// The file helpers: whole files, descriptors and paths, on missing paths,
// directories, permissions, a file-size limit and descriptors not open.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "Sandbox.h"
#include "UFile.h"
#include "USignal.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Room enough for the captured log, which the limit holds too.
const int kLimit = 1 << 20;

// While this lives, files cannot grow beyond `bytes`: a write goes short at
// the limit and fails past it (SIGXFSZ ignored, so the call itself fails).
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &old_);
        struct rlimit lower = old_;
        lower.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &lower);
        USignal::IgnoreSignal(SIGXFSZ);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &old_);
        USignal::UnregisterHandler(SIGXFSZ);
    }

private:
    struct rlimit old_;
};

// Each operation named failed with this errno in the library's log.
void ExpectReported(const std::string& log, const std::vector<const char*>& operations,
                    const std::string& error) {
    for (const char* operation : operations)
        EXPECT_NE(log.find(std::string(":") + operation + "()\t[" + error + "]"), std::string::npos)
            << operation << " " << error << " in:\n"
            << log;
}

}  // namespace

TEST(FileHelpers, WholeFilesOnMissingPathsDirectoriesShortWritesAndPreallocation) {
    ppltest::TempDir dir;
    std::string inside = dir.File("absent/file"), missing = dir.File("none");
    std::string path = dir.File("ten"), folder = dir.Path();
    char buffer[16];
    Bytes loaded{9};
    testing::internal::CaptureStderr();
    EXPECT_TRUE(UFile::WriteFile(inside.c_str(), "", 0, 0644)) << "writing nothing never fails";
    EXPECT_FALSE(UFile::WriteFile(inside.c_str(), "abc", 3, 0644));
    EXPECT_FALSE(UFile::Exist(dir.File("absent").c_str()));
    EXPECT_FALSE(UFile::WriteFile(folder.c_str(), "abc", 3, 0644));
    EXPECT_EQ(UFile::ReadFile(missing.c_str(), buffer, sizeof(buffer)), -1);
    EXPECT_EQ(UFile::ReadFile(folder.c_str(), buffer, sizeof(buffer)), -1);
    EXPECT_EQ(UFile::ReadFile(missing.c_str()), "");
    EXPECT_FALSE(UFile::SaveBinaryFile(inside.c_str(), Bytes{1}));
    EXPECT_FALSE(UFile::LoadBinaryFile(missing.c_str(), loaded));
    EXPECT_FALSE(UFile::LoadBinaryFile(folder.c_str(), loaded));
    EXPECT_EQ(loaded, Bytes{9}) << "a failed load leaves the data alone";
    testing::internal::GetCapturedStderr();

    testing::internal::CaptureStderr();
    EXPECT_EQ(UFile::GetFileSize(missing.c_str()), -1);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(ppltest::CountOf(log, "\t[ENOENT(2)] GetFileSize('" + missing + "') error.\n"), 1)
        << log;
    EXPECT_EQ(ppltest::CountOf(log, "error."), 1) << log;

    ASSERT_TRUE(UFile::WriteFile(path.c_str(), "0123456789", 10, 0600));
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(UFile::ReadFile(path.c_str(), buffer, 4), 4);
    EXPECT_EQ(std::string(buffer, 5), "0123#");
    EXPECT_EQ(UFile::GetFileSize(path.c_str()), 10);
    EXPECT_EQ(UFile::ReadFile(path.c_str()), "0123456789");
    std::string shorter = "xy";
    ASSERT_TRUE(UFile::WriteFile(path.c_str(), shorter));
    EXPECT_EQ(ppltest::ReadWholeFile(path), "xy") << "rewriting truncates";

    for (const Bytes& bytes : {Bytes{}, Bytes{0, 255, 0, '\n'}, Bytes(70000, 7)}) {
        ASSERT_TRUE(UFile::SaveBinaryFile(path.c_str(), bytes));
        EXPECT_TRUE(UFile::LoadBinaryFile(path.c_str(), loaded));
        EXPECT_EQ(loaded, bytes);
    }
    EXPECT_TRUE(UFile::LoadBinaryFile("/proc/self/cmdline", loaded));
    EXPECT_FALSE(loaded.empty()) << "a file that reports no size is read to its end";

    int fd = UFile::Create(dir.File("space").c_str(), O_TRUNC);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(UFile::ReserveSpace(fd, 0, 4096));
    EXPECT_TRUE(UFile::ReserveSpace4(fd, 4096, 4096));
    EXPECT_EQ(UFile::GetFileSize(fd), 8192);
    EXPECT_FALSE(UFile::ReserveSpace4(fd, 0, 0)) << "nothing to reserve";

    FileSizeLimit limit(kLimit);
    std::string beyond(kLimit + 10, 'x');
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    EXPECT_FALSE(UFile::WriteFile(path.c_str(), beyond.data(), beyond.size(), 0644))
        << "a short write";
    EXPECT_EQ(UFile::GetFileSize(path.c_str()), kLimit);
    EXPECT_FALSE(UFile::SaveBinaryFile(path.c_str(), Bytes(beyond.begin(), beyond.end())));
    EXPECT_FALSE(UFile::ReserveSpace(fd, 0, kLimit + 1));
    EXPECT_FALSE(UFile::ReserveSpace4(fd, 0, kLimit + 1));
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "fallocate errno:27\n");
    ExpectReported(testing::internal::GetCapturedStderr(),
                   {"Write", "ReserveSpace", "ReserveSpace4"}, "EFBIG(27)");
    EXPECT_EQ(UFile::GetFileSize(fd), 8192) << "a refused reservation adds nothing";
    UFile::Close(fd);
}

// The descriptor and path helpers are one system call each: what they add is
// a lock refusal that is not logged, the walk of CreateAbsolutePath, the
// pattern of CreateTempFile, and a failure report naming each of them.
TEST(FileHelpers, DescriptorsOpenAndNot) {
    ppltest::TempDir dir;
    std::string path = dir.File("data");
    int fd = UFile::Create(path.c_str(), O_TRUNC);
    ASSERT_GE(fd, 0);
    char buffer[8] = {0};

    // A lock that another process holds is refused at once, unlogged.
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t holder = fork();
    if (holder == 0) {
        char locked = UFile::Lock(UFile::Open(path.c_str(), O_RDWR), F_WRLCK, false) ? 'y' : 'n';
        ssize_t told = write(ready[1], &locked, 1);
        (void)told;
        pause();
        _exit(0);
    }
    char locked = 0;
    ASSERT_EQ(read(ready[0], &locked, 1), 1);
    ASSERT_EQ(locked, 'y');
    testing::internal::CaptureStderr();
    EXPECT_FALSE(UFile::Lock(fd, F_WRLCK, false));
    EXPECT_FALSE(UFile::Lock(fd, F_RDLCK, false));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    EXPECT_TRUE(UFile::Lock(fd, F_WRLCK, true));
    EXPECT_TRUE(UFile::Lock(fd, F_UNLCK, false));
    EXPECT_TRUE(UFile::Close(fd));
    close(ready[0]);
    close(ready[1]);

    const int kNotOpen = -1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(UFile::Read(kNotOpen, buffer, 1), -1);
    EXPECT_EQ(UFile::Write(kNotOpen, "x", 1), -1);
    EXPECT_EQ(UFile::Seek(kNotOpen, 0, SEEK_SET), -1);
    EXPECT_EQ(UFile::GetFileSize(kNotOpen), -1);
    EXPECT_FALSE(UFile::Flush(kNotOpen));
    EXPECT_FALSE(UFile::SyncFileRange(kNotOpen, 0, 0, 0));
    EXPECT_FALSE(UFile::ControlCache(kNotOpen, 0, 0, POSIX_FADV_NORMAL));
    EXPECT_FALSE(UFile::ReserveSpace(kNotOpen, 0, 1));
    EXPECT_FALSE(UFile::SetNonBlock(kNotOpen, true));
    EXPECT_FALSE(UFile::Lock(kNotOpen, F_WRLCK, true));
    EXPECT_FALSE(UFile::Close(kNotOpen));
    EXPECT_EQ(UFile::Open(dir.File("missing").c_str(), O_RDONLY), -1);
    std::string log = testing::internal::GetCapturedStderr();
    ExpectReported(log,
                   {"Read", "Write", "Seek", "GetFileSize", "SyncFileRange", "ControlCache",
                    "ReserveSpace", "SetNonBlock", "Lock"},
                   "EBADF(9)");
    ExpectReported(log, {"Open"}, "ENOENT(2)");
}

TEST(FileHelpers, PathsLinksPermissionsAndDirectories) {
    ppltest::TempDir dir;
    std::string file = dir.File("f"), moved = dir.File("g"), link = dir.File("l");
    std::string missing = dir.File("none");
    struct stat attrs;
    std::string target, absolute;
    ASSERT_TRUE(UFile::WriteFile(moved.c_str(), "x", 1, 0600));
    ASSERT_TRUE(UFile::MakeSymLink("g", link.c_str()));
    EXPECT_TRUE(UFile::ReadLink(link.c_str(), target));
    EXPECT_EQ(target, "g");
    EXPECT_TRUE(UFile::Remove(moved.c_str()));

    std::string deep = dir.File("a/b/c");
    EXPECT_TRUE(UFile::CreateAbsolutePath((deep + "/").c_str(), 0755));
    EXPECT_TRUE(UFile::IsDir(deep.c_str()));
    EXPECT_TRUE(UFile::CreateAbsolutePath(deep.c_str(), 0755)) << "what exists is kept";

    std::string temp;
    int fd = UFile::CreateTempFile("ppl-test-", ".tmp", temp);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(temp.rfind("/tmp/ppl-test-", 0), 0u) << temp;
    EXPECT_EQ(temp.size(), strlen("/tmp/ppl-test-XXXXXX.tmp")) << temp;
    EXPECT_EQ(temp.substr(temp.size() - 4), ".tmp");
    EXPECT_TRUE(UFile::Exist(temp.c_str()));
    UFile::Close(fd);
    UFile::Remove(temp.c_str());

    ASSERT_TRUE(UFile::WriteFile(file.c_str(), "x", 1, 0600));
    testing::internal::CaptureStderr();
    EXPECT_FALSE(UFile::GetAttrs(missing.c_str(), attrs));
    EXPECT_EQ(UFile::GetLastWriteTime(missing.c_str()), -1);
    EXPECT_FALSE(UFile::ChangePermission(missing.c_str(), 0600));
    EXPECT_FALSE(UFile::CheckPermission(missing.c_str(), F_OK));
    EXPECT_FALSE(UFile::Rename(missing.c_str(), moved.c_str()));
    EXPECT_FALSE(UFile::Remove(missing.c_str()));
    EXPECT_FALSE(UFile::MakeSymLink("g", link.c_str())) << "the link exists";
    EXPECT_FALSE(UFile::ReadLink(file.c_str(), target)) << "not a link";
    EXPECT_FALSE(UFile::GetAbsolutePath(link.c_str(), absolute)) << "its target is gone";
    EXPECT_FALSE(UFile::CreateAbsolutePath(file.c_str(), 0755)) << "a file is in the way";
    EXPECT_FALSE(UFile::CreateAbsolutePath((file + "/sub").c_str(), 0755));
    EXPECT_EQ(UFile::CreateTempFile("no-such-dir/x", "", temp), -1);
    std::string log = testing::internal::GetCapturedStderr();
    ExpectReported(log, {"GetAttrs", "GetLastWriteTime", "GetAbsolutePath", "CreateTempFile"},
                   "ENOENT(2)");
    ExpectReported(log, {"MakeSymLink"}, "EEXIST(17)");
    ExpectReported(log, {"ReadLink"}, "EINVAL(22)");
    ExpectReported(log, {"CreateAbsolutePath"}, "ENOTDIR(20)");
}
