#ifndef COMMON_TEST_FILES_H
#define COMMON_TEST_FILES_H

#include <string>

namespace commontest {

// A fresh directory of its own, removed with its contents at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    const std::string& Path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Collects what is written to standard error (syslog's copy included)
// between construction and Text().
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    std::string Text();

private:
    void Restore();
    TempDir dir_;
    int saved_ = -1;
};

std::string FileText(const std::string& path);
int CountOf(const std::string& text, const std::string& part);

}  // namespace commontest

#endif
