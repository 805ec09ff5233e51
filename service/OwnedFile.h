#ifndef PPL_OWNED_FILE_H
#define PPL_OWNED_FILE_H

#include <sys/stat.h>

#include <string>

// Files the service keeps in directories every user can write (/tmp). Any
// user may have put something at the path first: a link to a file of root's,
// a FIFO that blocks an open, a huge file, a file of their own with keys of
// their choosing. So such a file is never opened through a link, is trusted
// only when it is a regular file of this process's user with one link, and
// is replaced whole by a rename rather than rewritten in place, which also
// means a reader never sees it half written.
class OwnedFile {
public:
    enum class Read { Ok, Missing, Refused };

    virtual ~OwnedFile() = default;

    // What kind of file a mode describes: "a directory", "a FIFO" and so on.
    static const char* Kind(mode_t mode);
    // Why a file with these attributes is not this process's own (a regular
    // file of its user with one link): "" when it is.
    static std::string WhyNotOwn(const struct stat& st);
    // The same for a file that must be another user's own (the service's,
    // looked at by a tool that runs as someone else).
    static std::string WhyNotOwnedBy(const struct stat& st, uid_t owner);
    // What a file is, for a log line: "a directory of user 65534", "a regular
    // file of user 0 with 2 links".
    static std::string Describe(const struct stat& st);

    // Moves whatever is at path to a new name beside it, path + ".aside-"
    // and six random characters, so that the path is free and nothing of
    // another user's is deleted, emptied or written: a directory keeps what
    // it holds. The new name never replaces anything but an empty name made
    // for it. True with the name in *moved_to; false with errno set.
    static bool MoveAside(const std::string& path, std::string* moved_to);

    // Reads the whole file at path into *text when it is this process's own
    // and smaller than max_bytes. Missing: there is nothing at path.
    // Refused: *why says in a few words what is there instead (or why it
    // could not be opened); *text is then empty.
    static Read Load(const std::string& path, long max_bytes, std::string* text, std::string* why);
    // Load for a file that must be owner's own.
    static Read LoadOwnedBy(uid_t owner, const std::string& path, long max_bytes, std::string* text,
                            std::string* why);

    // Writes text to a new file beside path (created exclusively, with mode)
    // and renames it over path. False when any step fails; path is then as
    // it was and the new file is gone.
    static bool Replace(const std::string& path, const std::string& text, mode_t mode);
};

#endif
