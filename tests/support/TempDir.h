#ifndef ZQ_TESTS_SUPPORT_TEMPDIR_H
#define ZQ_TESTS_SUPPORT_TEMPDIR_H

#include <ftw.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "zq/kel/StringBase.h"

namespace zq {
namespace test {

// A fresh directory under `base`, removed with everything in it at the end.
class TempDir {
  public:
    explicit TempDir(const std::string& base = "/tmp") {
        std::string pattern = base + "/orvane_test_XXXXXX";
        if (mkdtemp(&pattern[0]) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        path_ = pattern;
    }
    ~TempDir() {
        nftw(
            path_.c_str(),
            [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
            FTW_DEPTH | FTW_PHYS);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    kel::WString wide(const std::string& name = "") const {
        return kel::WString((name.empty() ? path_ : file(name)).c_str());
    }

    void write(const std::string& name, const std::string& bytes) const {
        std::FILE* f = std::fopen(file(name).c_str(), "wb");
        if (f == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size() ||
            std::fclose(f) != 0) {
            throw std::runtime_error("cannot write " + name);
        }
    }
    std::string read(const std::string& name) const {
        std::string bytes;
        std::FILE* f = std::fopen(file(name).c_str(), "rb");
        if (f == nullptr) {
            throw std::runtime_error("cannot read " + name);
        }
        char buffer[4096];
        size_t got;
        while ((got = std::fread(buffer, 1, sizeof buffer, f)) > 0) {
            bytes.append(buffer, got);
        }
        std::fclose(f);
        return bytes;
    }

    bool exists(const std::string& name) const { return ::access(file(name).c_str(), F_OK) == 0; }
    void remove(const std::string& name) const {
        if (::unlink(file(name).c_str()) != 0) {
            throw std::runtime_error("cannot remove " + name);
        }
    }

  private:
    std::string path_;
};

}  // namespace test
}  // namespace zq

#endif  // ZQ_TESTS_SUPPORT_TEMPDIR_H
