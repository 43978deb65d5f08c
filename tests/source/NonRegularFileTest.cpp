// A mark or a data file that is not a regular file - a FIFO, a directory, a
// link to a device - fails the store's open and the manager's construction
// with the file-system code, at once and with every file as it was.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>

#include "kel/osdep/FileSystem.h"
#include "source/ManagerTestSupport.h"
#include "source/SingleFileBucketStore.h"
#include "source/StoreTestSupport.h"
#include "support/Child.h"
#include "zq/orvane/BucketManager.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace test {
namespace {

// Each name in the directory with its kind and its bytes' hash or link target,
// links not followed.
std::map<std::string, std::string> snapshot(const std::string& dir) {
    std::map<std::string, std::string> seen;
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) return seen;
    while (const dirent* entry = ::readdir(d)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        const std::string path = dir + "/" + name;
        struct stat info;
        if (::lstat(path.c_str(), &info) != 0) continue;
        if (S_ISREG(info.st_mode)) {
            std::string bytes;
            if (FILE* f = std::fopen(path.c_str(), "rb")) {
                char buffer[4096];
                size_t got;
                while ((got = std::fread(buffer, 1, sizeof buffer, f)) > 0)
                    bytes.append(buffer, got);
                std::fclose(f);
            }
            seen[name] = "file of " + std::to_string(bytes.size()) + " bytes, hash " +
                         std::to_string(std::hash<std::string>()(bytes));
        } else if (S_ISLNK(info.st_mode)) {
            char target[256] = {};
            seen[name] = "link " + std::string(target, ::readlink(path.c_str(), target, 255));
        } else {
            seen[name] = S_ISDIR(info.st_mode) ? "dir" : S_ISFIFO(info.st_mode) ? "fifo" : "other";
        }
    }
    ::closedir(d);
    return seen;
}

// The newest "commitmark.N" in `dir`.
std::string newestMark(const std::string& dir) {
    std::string newest;
    long generation = 0;
    for (const auto& entry : snapshot(dir)) {
        if (entry.first.rfind("commitmark.", 0) == 0) {
            const long n = std::stol(entry.first.substr(11));
            if (n > generation) {
                generation = n;
                newest = entry.first;
            }
        }
    }
    return newest;
}

bool replaceWithFifo(const std::string& path) {
    return ::unlink(path.c_str()) == 0 && ::mkfifo(path.c_str(), 0600) == 0;
}

class NonRegularFileTest : public ManagerFixture {};

TEST_F(NonRegularFileTest, AMarkOrDataFileThatIsNotAFileIsRefusedAndNothingChanges) {
    const struct {
        const char* what;
        std::function<bool(const std::string& dir)> make;
    } cases[] = {
        {"a FIFO as a newer mark",
         [](const std::string& dir) {
             return ::mkfifo((dir + "/commitmark.99").c_str(), 0600) == 0;
         }},
        {"a FIFO as the mark in use",
         [](const std::string& dir) { return replaceWithFifo(dir + "/" + newestMark(dir)); }},
        {"a directory as a newer mark",
         [](const std::string& dir) {
             return ::mkdir((dir + "/commitmark.99").c_str(), 0700) == 0;
         }},
        {"a link to /dev/zero as a newer mark",
         [](const std::string& dir) {
             return ::symlink("/dev/zero", (dir + "/commitmark.99").c_str()) == 0;
         }},
        {"a FIFO as the data file",
         [](const std::string& dir) { return replaceWithFifo(dir + "/registry.bin"); }},
        {"a link to /dev/zero as the data file",
         [](const std::string& dir) {
             const std::string path = dir + "/registry.bin";
             return ::unlink(path.c_str()) == 0 && ::symlink("/dev/zero", path.c_str()) == 0;
         }},
    };
    int round = 0;
    for (const auto& c : cases) {
        const std::string dir = dir_.file("reg" + std::to_string(++round));
        const WString wide(dir.c_str());
        ASSERT_EQ(::mkdir(dir.c_str(), 0700), 0);
        commitInTurn(wide, {{{L"/", -1}, {L"/a", 1}}, {{L"/b", 2}}},
                     kel::osdep::FileSystem::posix());
        ASSERT_TRUE(c.make(dir)) << c.what;
        const auto before = snapshot(dir);

        // 1: the wrong code; 128 + SIGALRM: the open waited.
        EXPECT_EQ(inChild([&] {
                      ::alarm(10);
                      StatusChain status = fresh();
                      orvane::SingleFileBucketStore store(wide, nullptr,
                                                          kel::osdep::FileSystem::posix());
                      store.open(0, status);
                      return status.getCode() == orvane::status::kFileSystem ? 0 : 1;
                  }),
                  0)
            << c.what;
        EXPECT_EQ(snapshot(dir), before) << c.what;

        EXPECT_EQ(inChild([&] {
                      ::alarm(10);
                      StatusChain status = fresh();
                      AutoRef<orvane::BucketManager> manager(
                          new orvane::BucketManager(wide, WString(), status));
                      return status.getCode() == orvane::status::kFileSystem ? 0 : 1;
                  }),
                  0)
            << c.what;
        // A manager clears temporary files whenever it starts.
        auto kept = before;
        kept.erase("spareCommitmark.tmp");
        EXPECT_EQ(snapshot(dir), kept) << c.what;
    }
}

}  // namespace
}  // namespace test
}  // namespace zq
