#include "TestFiles.h"

#include <fcntl.h>
#include <ftw.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

namespace commontest {

namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

}  // namespace

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/common-test-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) != nullptr)
        path_ = name.data();
}

TempDir::~TempDir() {
    if (!path_.empty())
        nftw(path_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

StderrCapture::StderrCapture() {
    fflush(stderr);
    int file = open(dir_.File("stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (file < 0)
        return;
    saved_ = dup(2);
    dup2(file, 2);
    close(file);
}

StderrCapture::~StderrCapture() {
    Restore();
}

void StderrCapture::Restore() {
    if (saved_ < 0)
        return;
    fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
    saved_ = -1;
}

std::string StderrCapture::Text() {
    Restore();
    return FileText(dir_.File("stderr"));
}

std::string FileText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

int CountOf(const std::string& text, const std::string& part) {
    int count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

}  // namespace commontest
