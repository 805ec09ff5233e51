#include "OwnedFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "UFile.h"
#include "ULog.h"

namespace {

// Closes a descriptor on every way out.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0)
            close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// At most max_bytes + 1 bytes, so that a file that grew past the limit
// since it was looked at is noticed.
bool ReadUpTo(int fd, long max_bytes, std::string* text) {
    std::vector<char> buffer(static_cast<size_t>(max_bytes) + 1);
    ssize_t got = UFile::ReadAll(fd, buffer.data(), buffer.size());
    if (got < 0)
        return false;
    text->assign(buffer.data(), static_cast<size_t>(got));
    return true;
}

// Closes a file just made; false when none was.
bool CloseMade(int fd) {
    if (fd < 0)
        return false;
    close(fd);
    return true;
}

}  // namespace

const char* OwnedFile::Kind(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return "a regular file";
        case S_IFDIR:
            return "a directory";
        case S_IFLNK:
            return "a symbolic link";
        case S_IFIFO:
            return "a FIFO";
        case S_IFSOCK:
            return "a socket";
        default:
            return "a device";
    }
}

std::string OwnedFile::WhyNotOwn(const struct stat& st) {
    return WhyNotOwnedBy(st, geteuid());
}

std::string OwnedFile::WhyNotOwnedBy(const struct stat& st, uid_t owner) {
    if (!S_ISREG(st.st_mode))
        return Kind(st.st_mode);
    if (st.st_uid != owner)
        return "owned by user " + std::to_string(st.st_uid);
    if (st.st_nlink != 1)
        return std::to_string(st.st_nlink) + " links to one file";
    return "";
}

std::string OwnedFile::Describe(const struct stat& st) {
    std::string text = std::string(Kind(st.st_mode)) + " of user " + std::to_string(st.st_uid);
    if (S_ISREG(st.st_mode) && st.st_nlink != 1)
        text += " with " + std::to_string(st.st_nlink) + " links";
    return text;
}

bool OwnedFile::MoveAside(const std::string& path, std::string* moved_to) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return false;
    // The new name is made first, exclusively and of the same kind (an empty
    // directory for a directory, an empty file for anything else), so that
    // the rename can only replace what was made for it.
    std::string name = path + ".aside-XXXXXX";
    std::vector<char> temp(name.begin(), name.end());
    temp.push_back('\0');
    const bool dir = S_ISDIR(st.st_mode);
    if (dir ? mkdtemp(temp.data()) == nullptr : !CloseMade(mkostemp(temp.data(), O_CLOEXEC)))
        return false;
    if (rename(path.c_str(), temp.data()) != 0) {
        int err = errno;
        if (dir)
            rmdir(temp.data());
        else
            unlink(temp.data());
        errno = err;
        return false;
    }
    *moved_to = temp.data();
    return true;
}

OwnedFile::Read OwnedFile::Load(const std::string& path, long max_bytes, std::string* text,
                                std::string* why) {
    return LoadOwnedBy(geteuid(), path, max_bytes, text, why);
}

OwnedFile::Read OwnedFile::LoadOwnedBy(uid_t owner, const std::string& path, long max_bytes,
                                       std::string* text, std::string* why) {
    text->clear();
    // Non-blocking: opening a FIFO for reading must not wait for a writer.
    Descriptor fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.get() < 0) {
        int err = errno;
        if (err == ENOENT)
            return Read::Missing;
        *why = err == ELOOP ? "a symbolic link" : "cannot be opened: " + UError::Text(err);
        return Read::Refused;
    }
    struct stat st;
    if (fstat(fd.get(), &st) != 0) {
        *why = "cannot be examined: " + UError::Text(errno);
        return Read::Refused;
    }
    *why = WhyNotOwnedBy(st, owner);
    if (why->empty() && st.st_size >= max_bytes)
        *why = std::to_string(static_cast<long long>(st.st_size)) + " bytes, over the limit of " +
               std::to_string(max_bytes);
    if (!why->empty())
        return Read::Refused;
    if (!ReadUpTo(fd.get(), max_bytes, text)) {
        *why = "cannot be read: " + UError::Text(errno);
        return Read::Refused;
    }
    if (static_cast<long>(text->size()) >= max_bytes) {
        text->clear();
        *why = "grew over the limit of " + std::to_string(max_bytes) + " bytes";
        return Read::Refused;
    }
    return Read::Ok;
}

bool OwnedFile::Replace(const std::string& path, const std::string& text, mode_t mode) {
    // Beside path, so that the rename stays within one file system.
    std::vector<char> temp(path.begin(), path.end());
    const std::string suffix = ".XXXXXX";
    temp.insert(temp.end(), suffix.begin(), suffix.end());
    temp.push_back('\0');
    // mkostemp creates exclusively: whatever another user put at that name
    // makes it pick another, never open theirs.
    Descriptor fd(mkostemp(temp.data(), O_CLOEXEC));
    if (fd.get() < 0)
        return false;
    // The mode is set on the descriptor, not left to the umask.
    bool ok = fchmod(fd.get(), mode) == 0 && UFile::WriteAll(fd.get(), text.data(), text.size()) &&
              rename(temp.data(), path.c_str()) == 0;
    if (!ok)
        unlink(temp.data());
    return ok;
}
