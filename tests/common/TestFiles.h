#ifndef COMMON_TEST_FILES_H
#define COMMON_TEST_FILES_H

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace commontest {

// A fresh directory of its own, removed with its contents at the end.
class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/common-test-XXXXXX";
        if (mkdtemp(name) != nullptr)
            path_ = name;
    }
    virtual ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& Path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline int CountOf(const std::string& text, const std::string& part) {
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

}  // namespace commontest

#endif
