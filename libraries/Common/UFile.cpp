#include "UFile.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "ULog.h"

#define REPORT(operation) USysLog::error(__FILE__, __LINE__, operation, errno)

namespace {

const int kMaxTextFile = 1048576;

}  // namespace

UFile::~UFile() {}

bool UFile::WriteFile(const char* path, const char* data, int length, unsigned int mode) {
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd <= 0) {
        if (fd < 0)
            REPORT("WriteFile");
        if (fd == 0)
            close(fd);
        // Nothing to write is not a failure, even without a file.
        return length == 0;
    }
    ssize_t written = length > 0 ? write(fd, data, static_cast<size_t>(length)) : 0;
    if (written < 0)
        REPORT("Write");
    close(fd);
    return written == length;
}

bool UFile::WriteFile(const char* path, std::string& data) {
    if (data.size() > static_cast<size_t>(INT_MAX))
        return false;
    return WriteFile(path, data.data(), static_cast<int>(data.size()), 0644);
}

int UFile::ReadFile(const char* path, char* buffer, int length) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd <= 0) {
        if (fd < 0)
            REPORT("ReadFile");
        if (fd == 0)
            close(fd);
        return -1;
    }
    ssize_t got = read(fd, buffer, length > 0 ? static_cast<size_t>(length) : 0);
    if (got < 0)
        REPORT("Read");
    close(fd);
    return static_cast<int>(got);
}

std::string UFile::ReadFile(const char* path) {
    std::string text(kMaxTextFile, '\0');
    int got = ReadFile(path, &text[0], kMaxTextFile);
    text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return text;
}

bool UFile::SaveBinaryFile(const char* path, const std::vector<unsigned char>& data) {
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        REPORT("SaveBinaryFile");
        return false;
    }
    bool ok = WriteAll(fd, data.data(), data.size());
    if (!ok)
        REPORT("Write");
    close(fd);
    return ok;
}

// Reads to the end of the file: the size stat reports is only a first guess
// (files of /proc report 0, and a file may grow while it is read). data is
// replaced only when the whole file was read.
bool UFile::LoadBinaryFile(const char* path, std::vector<unsigned char>& data) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        REPORT("LoadBinaryFile");
        return false;
    }
    int64_t size = GetFileSize(fd);
    std::vector<unsigned char> bytes(size > 0 ? static_cast<size_t>(size) + 1 : 4096);
    size_t done = 0;
    for (ssize_t got = 1; got != 0;) {
        if (done == bytes.size())
            bytes.resize(bytes.size() * 2);
        got = read(fd, bytes.data() + done, bytes.size() - done);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            REPORT("Read");
            close(fd);
            return false;
        }
        done += static_cast<size_t>(got);
    }
    close(fd);
    bytes.resize(done);
    data.swap(bytes);
    return true;
}

int UFile::Open(const char* path, int flags) {
    int fd = open(path, flags, 0777);
    if (fd < 0)
        REPORT("Open");
    return fd;
}

int UFile::Create(const char* path, int flags) {
    return Open(path, flags | O_CREAT | O_RDWR);
}

ssize_t UFile::Read(int fd, void* buffer, size_t length) {
    ssize_t got = read(fd, buffer, length);
    if (got < 0)
        REPORT("Read");
    return got;
}

ssize_t UFile::Write(int fd, const void* data, size_t length) {
    ssize_t done = write(fd, data, length);
    if (done < 0)
        REPORT("Write");
    return done;
}

// send() first: on anything but a socket it fails with ENOTSOCK before doing
// anything, and write() takes over.
bool UFile::WriteAll(int fd, const void* data, size_t length) {
    const char* at = static_cast<const char*>(data);
    bool socket = true;
    while (length > 0) {
        ssize_t done = socket ? send(fd, at, length, MSG_NOSIGNAL) : write(fd, at, length);
        if (done < 0 && socket && errno == ENOTSOCK) {
            socket = false;
            continue;
        }
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        at += done;
        length -= static_cast<size_t>(done);
    }
    return true;
}

ssize_t UFile::ReadAll(int fd, void* buffer, size_t length) {
    char* at = static_cast<char*>(buffer);
    size_t got = 0;
    while (got < length) {
        ssize_t n = read(fd, at + got, length - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        got += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

bool UFile::Close(int fd) {
    return close(fd) == 0;
}

off_t UFile::Seek(int fd, off_t offset, int whence) {
    off_t at = lseek(fd, offset, whence);
    if (at < 0)
        REPORT("Seek");
    return at;
}

bool UFile::Flush(int fd) {
    return fsync(fd) == 0;
}

bool UFile::SyncFileRange(int fd, off_t offset, off_t length, unsigned int flags) {
    if (sync_file_range(fd, offset, length, flags) == 0)
        return true;
    REPORT("SyncFileRange");
    return false;
}

bool UFile::ControlCache(int fd, off_t offset, off_t length, int advice) {
    int result = posix_fadvise(fd, offset, length, advice);
    if (result == 0)
        return true;
    USysLog::error(__FILE__, __LINE__, "ControlCache", result);
    return false;
}

bool UFile::ReserveSpace(int fd, off_t offset, off_t length) {
    int result = posix_fallocate(fd, offset, length);
    if (result == 0)
        return true;
    USysLog::error(__FILE__, __LINE__, "ReserveSpace", result);
    return false;
}

bool UFile::ReserveSpace4(int fd, off_t offset, off_t length) {
    if (length < 1)
        return false;
    if (fallocate(fd, 0, offset, length) == 0)
        return true;
    int err = errno;
    printf("fallocate errno:%d\n", err);
    USysLog::error(__FILE__, __LINE__, "ReserveSpace4", err);
    return false;
}

bool UFile::Exist(const char* path) {
    struct stat attrs;
    return stat(path, &attrs) == 0;
}

int64_t UFile::GetFileSize(const char* path) {
    struct stat attrs;
    if (stat(path, &attrs) == 0)
        return attrs.st_size;
    USysLog::error(__FILE__, __LINE__, "GetFileSize", errno, "GetFileSize('%s') error.", path);
    return -1;
}

int64_t UFile::GetFileSize(int fd) {
    struct stat attrs;
    if (fstat(fd, &attrs) == 0)
        return attrs.st_size;
    REPORT("GetFileSize");
    return -1;
}

bool UFile::GetAttrs(const char* path, struct stat& attrs) {
    if (stat(path, &attrs) == 0)
        return true;
    REPORT("GetAttrs");
    return false;
}

bool UFile::IsDir(const char* path) {
    struct stat attrs;
    return stat(path, &attrs) == 0 && S_ISDIR(attrs.st_mode);
}

time_t UFile::GetLastWriteTime(const char* path) {
    struct stat attrs;
    if (stat(path, &attrs) == 0)
        return attrs.st_mtime;
    REPORT("GetLastWriteTime");
    return -1;
}

bool UFile::Rename(const char* from, const char* to) {
    return rename(from, to) == 0;
}

bool UFile::Remove(const char* path) {
    return remove(path) == 0;
}

bool UFile::ChangePermission(const char* path, unsigned int mode) {
    return chmod(path, mode) == 0;
}

bool UFile::CheckPermission(const char* path, int mode) {
    return access(path, mode) == 0;
}

bool UFile::MakeSymLink(const char* target, const char* link) {
    if (symlink(target, link) == 0)
        return true;
    REPORT("MakeSymLink");
    return false;
}

bool UFile::ReadLink(const char* link, std::string& target) {
    char buffer[PATH_MAX];
    ssize_t length = readlink(link, buffer, sizeof(buffer));
    if (length < 0 || length == static_cast<ssize_t>(sizeof(buffer))) {
        if (length < 0)
            REPORT("ReadLink");
        return false;
    }
    target.assign(buffer, static_cast<size_t>(length));
    return true;
}

bool UFile::GetAbsolutePath(const char* path, std::string& absolute) {
    char* resolved = realpath(path, nullptr);
    if (resolved == nullptr) {
        REPORT("GetAbsolutePath");
        return false;
    }
    absolute = resolved;
    free(resolved);
    return true;
}

bool UFile::CreateAbsolutePath(const char* path, unsigned int mode) {
    std::string sofar;
    const char* part = path;
    while (*part != '\0') {
        const char* slash = strchr(part + 1, '/');
        size_t length = slash == nullptr ? strlen(part) : static_cast<size_t>(slash - part);
        sofar.append(part, length);
        part += length;
        if (sofar == "/" || IsDir(sofar.c_str()))
            continue;
        // Something else in the way (a file, a dangling link) is a failure,
        // not a directory that already exists.
        if (mkdir(sofar.c_str(), mode) != 0 && (errno != EEXIST || !IsDir(sofar.c_str()))) {
            if (errno == EEXIST)
                errno = ENOTDIR;
            REPORT("CreateAbsolutePath");
            return false;
        }
    }
    return true;
}

bool UFile::SetNonBlock(int fd, bool on) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        REPORT("SetNonBlock");
        return false;
    }
    flags = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
    if (fcntl(fd, F_SETFL, flags) == 0)
        return true;
    REPORT("SetNonBlock");
    return false;
}

bool UFile::Lock(int fd, int type, bool wait) {
    struct flock region;
    memset(&region, 0, sizeof(region));
    region.l_type = static_cast<short>(type);
    region.l_whence = SEEK_SET;
    if (fcntl(fd, wait ? F_SETLKW : F_SETLK, &region) == 0)
        return true;
    // A lock held elsewhere is an expected answer when not waiting.
    if (wait || (errno != EACCES && errno != EAGAIN))
        REPORT("Lock");
    return false;
}

int UFile::CreateTempFile(const char* prefix, const char* suffix, std::string& path) {
    std::string pattern = std::string("/tmp/") + prefix + "XXXXXX" + suffix;
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = mkstemps(name.data(), static_cast<int>(strlen(suffix)));
    if (fd < 0) {
        REPORT("CreateTempFile");
        return -1;
    }
    path = name.data();
    return fd;
}
