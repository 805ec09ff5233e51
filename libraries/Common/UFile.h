#ifndef COMMON_UFILE_H
#define COMMON_UFILE_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

// Thin wrappers over file system calls. Failing calls are logged through
// USysLog and give false, -1 or an empty result.
class UFile {
public:
    virtual ~UFile();

    // Create or truncate, one write of all bytes. Writing nothing counts as
    // success even when the file cannot be opened.
    static bool WriteFile(const char* path, const char* data, int length, unsigned int mode);
    static bool WriteFile(const char* path, std::string& data);
    // One read of at most length bytes, no terminating zero; -1 if not opened.
    static int ReadFile(const char* path, char* buffer, int length);
    static std::string ReadFile(const char* path);
    static bool SaveBinaryFile(const char* path, const std::vector<unsigned char>& data);
    static bool LoadBinaryFile(const char* path, std::vector<unsigned char>& data);

    static int Open(const char* path, int flags);
    static int Create(const char* path, int flags);
    static ssize_t Read(int fd, void* buffer, size_t length);
    static ssize_t Write(int fd, const void* data, size_t length);
    // Writes every byte, going on after a partial or an interrupted write;
    // false at the first failure (errno says why). A socket is written
    // without raising SIGPIPE: a peer that went away is a failure, never the
    // end of the process. Nothing is logged.
    static bool WriteAll(int fd, const void* data, size_t length);
    // Reads until length bytes have arrived or the end of the file (a
    // socket's peer closed), going on after an interrupted read: the count
    // read, or -1 at the first failure (errno says why). Nothing is logged.
    static ssize_t ReadAll(int fd, void* buffer, size_t length);
    static bool Close(int fd);
    static off_t Seek(int fd, off_t offset, int whence);
    static bool Flush(int fd);
    static bool SyncFileRange(int fd, off_t offset, off_t length, unsigned int flags);
    static bool ControlCache(int fd, off_t offset, off_t length, int advice);
    static bool ReserveSpace(int fd, off_t offset, off_t length);
    static bool ReserveSpace4(int fd, off_t offset, off_t length);

    static bool Exist(const char* path);
    static int64_t GetFileSize(const char* path);
    static int64_t GetFileSize(int fd);
    static bool GetAttrs(const char* path, struct stat& attrs);
    static bool IsDir(const char* path);
    static time_t GetLastWriteTime(const char* path);

    static bool Rename(const char* from, const char* to);
    static bool Remove(const char* path);
    static bool ChangePermission(const char* path, unsigned int mode);
    static bool CheckPermission(const char* path, int mode);
    static bool MakeSymLink(const char* target, const char* link);
    static bool ReadLink(const char* link, std::string& target);
    static bool GetAbsolutePath(const char* path, std::string& absolute);
    // Creates every missing directory of path.
    static bool CreateAbsolutePath(const char* path, unsigned int mode);

    static bool SetNonBlock(int fd, bool on);
    // Whole-file record lock of type F_RDLCK, F_WRLCK or F_UNLCK.
    static bool Lock(int fd, int type, bool wait);
    // Creates "/tmp/<prefix>XXXXXX<suffix>"; the open descriptor, or -1.
    static int CreateTempFile(const char* prefix, const char* suffix, std::string& path);
};

#endif
