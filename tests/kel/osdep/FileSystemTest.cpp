#include "kel/osdep/FileSystem.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>

#include "kel/osdep/BinaryFile.h"
#include "kel/osdep/Path.h"
#include "kel/osdep/SimulatedFileSystem.h"
#include "kel/osdep/TextFile.h"
#include "support/Child.h"
#include "support/TempDir.h"
#include "zq/kel/Exception.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace osdep {
namespace {

using test::SimulatedFileSystem;

// The errno of the PosixError that `call` throws, or 0.
int errnoOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const PosixError& error) {
        return error.osErrorCode();
    }
    return 0;
}

bool throwsInvalidArgument(const std::function<void()>& call) {
    try {
        call();
    } catch (const exception::InvalidArgument&) {
        return true;
    }
    return false;
}

class PosixFileSystemTest : public ::testing::Test {
  protected:
    WString path(const char* name) const { return dir_.wide(name); }

    test::TempDir dir_;
    FileSystem& fs_ = FileSystem::posix();
};

TEST_F(PosixFileSystemTest, QueriesAndTheirErrors) {
    dir_.write("file", "12345");
    mkdir(dir_.file("sub").c_str(), 0700);
    EXPECT_TRUE(fs_.fileExists(path("file")));
    EXPECT_FALSE(fs_.fileExists(path("sub")));
    EXPECT_FALSE(fs_.fileExists(path("missing")));
    EXPECT_FALSE(fs_.fileExists(path("file/below")));  // ENOTDIR reads as missing
    EXPECT_TRUE(fs_.isDirectory(path("sub")));
    EXPECT_FALSE(fs_.isDirectory(path("file")));
    EXPECT_EQ(fs_.getFileSize(path("file")), 5);
    EXPECT_EQ(errnoOf([&] { fs_.getFileSize(path("missing")); }), ENOENT);
    EXPECT_TRUE(throwsInvalidArgument([&] { fs_.fileExists(WString(L"relative")); }));
}

TEST_F(PosixFileSystemTest, RemoveModes) {
    EXPECT_EQ(errnoOf([&] { fs_.removeFile(path("missing"), FileSystem::kRemoveMustExist); }),
              ENOENT);
    EXPECT_EQ(errnoOf([&] { fs_.removeFile(path("missing"), FileSystem::kRemoveIfPresent); }), 0);
    mkdir(dir_.file("sub").c_str(), 0700);
    // Only a missing file is quiet: anything else would hide a failure.
    EXPECT_EQ(errnoOf([&] { fs_.removeFile(path("sub"), FileSystem::kRemoveIfPresent); }), EISDIR);
    dir_.write("file", "x");
    fs_.removeFile(path("file"), FileSystem::kRemoveMustExist);
    EXPECT_FALSE(fs_.fileExists(path("file")));
    for (int mode : {0, 1}) {
        EXPECT_TRUE(throwsInvalidArgument(
            [&] { fs_.removeFile(WString(L"file"), static_cast<FileSystem::RemoveMode>(mode)); }));
    }
}

TEST_F(PosixFileSystemTest, RenameAndFind) {
    dir_.write("a", "A");
    dir_.write("b", "B");
    fs_.renameFile(path("a"), path("a"));
    EXPECT_EQ(dir_.read("a"), "A");
    fs_.renameFile(path("a"), path("b"));
    EXPECT_FALSE(fs_.fileExists(path("a")));
    EXPECT_EQ(dir_.read("b"), "A");
    EXPECT_EQ(errnoOf([&] { fs_.renameFile(path("a"), path("c")); }), ENOENT);
    EXPECT_TRUE(throwsInvalidArgument([&] { fs_.renameFile(WString(L"b"), path("c")); }));

    for (const char* name :
         {"commitmark.12", "commitmark.1", "commitmark", ".commitmark.3", "x.tmp"}) {
        dir_.write(name, "");
    }
    const std::vector<WString> marks = fs_.findFiles(path("commitmark.*"));
    ASSERT_EQ(marks.size(), 2u);
    EXPECT_TRUE(marks[0] == path("commitmark.1"));
    EXPECT_TRUE(marks[1] == path("commitmark.12"));
    EXPECT_EQ(fs_.findFiles(path("*")).size(), 5u);  // the hidden file only by name
    EXPECT_TRUE(fs_.findFiles(path("*.bin")).empty());
    EXPECT_TRUE(fs_.findFiles(path("nodir/*")).empty());
    EXPECT_TRUE(throwsInvalidArgument([&] { fs_.findFiles(path("*/x")); }));
}

TEST_F(PosixFileSystemTest, CreateDirectories) {
    fs_.createDirectories(path("a/b/c"));
    EXPECT_TRUE(fs_.isDirectory(path("a/b/c")));
    fs_.createDirectories(path("a/b/c"));  // already there
    dir_.write("file", "");
    EXPECT_EQ(errnoOf([&] { fs_.createDirectories(path("file/d")); }), ENOTDIR);
}

TEST_F(PosixFileSystemTest, BinaryFileReadsAndWritesWholeBlocks) {
    BinaryFile file(fs_);
    EXPECT_EQ(errnoOf([&] { file.open(path("data"), BinaryFile::kReadWrite); }), ENOENT);
    file.open(path("data"), BinaryFile::kReadWrite | BinaryFile::kTruncate | BinaryFile::kCreate);
    file.write("0123456789", 10);
    file.seek(2);
    char buffer[8] = {};
    file.read(buffer, 3);
    EXPECT_EQ(std::string(buffer, 3), "234");
    EXPECT_EQ(file.position(), 5);
    file.seek(8);
    try {
        file.read(buffer, 3);  // only two bytes left
        ADD_FAILURE() << "a short read went unnoticed";
    } catch (const exception::FileReadFailed&) {
    }
    file.truncate(4);
    file.flush();
    EXPECT_EQ(file.size(), 4);
    file.close();
    EXPECT_EQ(errnoOf([&] { file.write("x", 1); }), EBADF);
    EXPECT_EQ(errnoOf([&] { file.read(buffer, 1); }), EBADF);
    EXPECT_EQ(errnoOf([&] { file.flush(); }), EBADF);
    EXPECT_TRUE(throwsInvalidArgument([&] { file.seek(-1); }));

    BinaryFile readOnly(fs_);
    readOnly.open(path("data"), 0);
    EXPECT_EQ(errnoOf([&] { readOnly.write("x", 1); }), EBADF);
}

TEST_F(PosixFileSystemTest, BinaryFileRefusesToPassTwoGibibytes) {
    BinaryFile file(fs_);
    file.open(path("data"), BinaryFile::kReadWrite | BinaryFile::kCreate);
    file.seek(INT32_MAX - 4);
    try {
        file.write("12345678", 8);
        ADD_FAILURE() << "write past 2 GiB accepted";
    } catch (const exception::BoundExceeded&) {
    }
    EXPECT_EQ(file.size(), 0);  // refused before anything was written
    file.write("1234", 4);      // ends exactly at the limit
    EXPECT_EQ(file.size(), INT32_MAX);
}

TEST_F(PosixFileSystemTest, FullDeviceReportsNoSpace) {
    std::unique_ptr<File> full =
        fs_.open(WString(L"/dev/full"), FileSystem::kWrite | FileSystem::kAnyFileType);
    EXPECT_EQ(errnoOf([&] { full->writeAt(0, "x", 1); }), ENOSPC);
}

// What is not a regular file is refused at once, in a child so that an open
// that waits fails the test by the alarm instead of hanging it; the message
// names the path.
TEST_F(PosixFileSystemTest, OnlyRegularFilesOpenAndNothingWaits) {
    ASSERT_EQ(mkfifo(dir_.file("fifo").c_str(), 0600), 0);
    ASSERT_EQ(mkdir(dir_.file("dir").c_str(), 0700), 0);
    ASSERT_EQ(symlink("/dev/zero", dir_.file("zero").c_str()), 0);
    dir_.write("file", "x");
    constexpr uint32_t kNew = FileSystem::kReadWrite | FileSystem::kCreate | FileSystem::kTruncate;
    const struct {
        const char* name;
        uint32_t flags;
        int error;
    } cases[] = {
        {"fifo", FileSystem::kRead, ENXIO},
        {"fifo", FileSystem::kWrite, ENXIO},
        {"fifo", FileSystem::kReadWrite, ENXIO},
        {"fifo", kNew, ENXIO},
        {"dir", FileSystem::kRead, EISDIR},
        {"dir", FileSystem::kReadWrite, EISDIR},
        {"dir", FileSystem::kRead | FileSystem::kAnyFileType, EISDIR},
        {"zero", FileSystem::kRead, ENXIO},
        {"zero", kNew, ENXIO},
        {"fifo", FileSystem::kReadWrite | FileSystem::kAnyFileType, 0},
        {"zero", FileSystem::kRead | FileSystem::kAnyFileType, 0},
        {"file", FileSystem::kReadWrite, 0},
    };
    for (const auto& c : cases) {
        const WString target = path(c.name);
        const int code = test::inChild([&] {
            ::alarm(10);
            try {
                fs_.open(target, c.flags);
            } catch (const PosixError& error) {
                const bool named =
                    std::string(error.what()).find(dir_.file(c.name)) != std::string::npos;
                return error.osErrorCode() == c.error && !named ? 100 : error.osErrorCode();
            }
            return 0;
        });
        EXPECT_EQ(code, c.error) << c.name << " flags " << c.flags;
    }
    EXPECT_EQ(dir_.read("file"), "x");
    EXPECT_TRUE(fs_.isDirectory(path("dir")));
}

TEST_F(PosixFileSystemTest, TextFileLinesAndModes) {
    TextFile text(fs_);
    EXPECT_FALSE(text.open(path("mark"), TextFile::kRead, true));
    EXPECT_EQ(errnoOf([&] { text.open(path("mark"), TextFile::kRead, false); }), ENOENT);
    EXPECT_EQ(text.flush(), -1);
    EXPECT_EQ(errno, EBADF);
    ASSERT_TRUE(text.open(path("mark"), TextFile::kWrite, false));
    EXPECT_EQ(text.write(NString("1025\r\nsecond\n")), 13);
    EXPECT_EQ(dir_.read("mark"), "");  // gathered until flushed
    EXPECT_EQ(text.sync(), 0);
    ASSERT_TRUE(text.open(path("mark"), TextFile::kAppend, false));
    EXPECT_EQ(text.write(NString("last")), 4);
    EXPECT_EQ(text.close(), 0);
    EXPECT_EQ(dir_.read("mark"), "1025\r\nsecond\nlast");

    ASSERT_TRUE(text.open(path("mark"), TextFile::kRead, false));
    NString line;
    std::vector<std::string> lines;
    while (text.readLine(line)) {
        lines.emplace_back(line.c_str());
    }
    EXPECT_EQ(lines, (std::vector<std::string>{"1025", "second", "last"}));
    EXPECT_TRUE(throwsInvalidArgument([&] { text.open(path("mark"), 6, true); }));
}

// Faults that a real disk produces rarely, through the simulated one.
class SimulatedFaultTest : public ::testing::Test {
  protected:
    void SetUp() override { fs_.makeDirectory(WString(L"/d"), 0777); }

    SimulatedFileSystem fs_;
};

TEST_F(SimulatedFaultTest, IoErrorsReachTheCaller) {
    BinaryFile file(fs_);
    file.open(WString(L"/d/f"), BinaryFile::kReadWrite | BinaryFile::kCreate);
    fs_.failCall(SimulatedFileSystem::kWriteCall, 1, ENOSPC, 3);
    EXPECT_EQ(errnoOf([&] { file.write("abcdef", 6); }), ENOSPC);
    EXPECT_EQ(fs_.contents("/d/f"), "abc");  // torn, and reported
    fs_.failCall(SimulatedFileSystem::kSyncCall, 1, EIO);
    EXPECT_EQ(errnoOf([&] { file.flush(); }), EIO);
    fs_.failCall(SimulatedFileSystem::kReadCall, 1, EIO);
    char byte;
    file.seek(0);
    EXPECT_EQ(errnoOf([&] { file.read(&byte, 1); }), EIO);

    TextFile text(fs_);
    ASSERT_TRUE(text.open(WString(L"/d/mark"), TextFile::kWrite, false));
    text.write(NString("17"));
    fs_.failCall(SimulatedFileSystem::kWriteCall, 1, EIO);
    EXPECT_EQ(text.flush(), -1);
    EXPECT_EQ(errno, EIO);
    fs_.failCall(SimulatedFileSystem::kSyncCall, 1, EIO);
    EXPECT_EQ(text.sync(), -1);
    EXPECT_EQ(errno, EIO);
    fs_.failCall(SimulatedFileSystem::kCloseCall, 1, EIO);
    EXPECT_EQ(text.close(), -1);
}

TEST_F(SimulatedFaultTest, RenameAcrossFileSystemsLeavesOneCopy) {
    fs_.putFile("/d/from", "payload");
    fs_.putFile("/d/to", "old");
    fs_.failCall(SimulatedFileSystem::kRenameCall, 1, EXDEV);
    fs_.renameFile(WString(L"/d/from"), WString(L"/d/to"));
    EXPECT_FALSE(fs_.exists("/d/from"));
    EXPECT_EQ(fs_.contents("/d/to"), "payload");
    EXPECT_EQ(fs_.listDirectory(WString(L"/d")).size(), 1u);

    // The source cannot be removed: the copy goes, the source stays whole.
    fs_.putFile("/d/from", "again");
    fs_.failCall(SimulatedFileSystem::kRenameCall, 1, EXDEV);
    fs_.failCall(SimulatedFileSystem::kUnlinkCall, 1, EACCES);
    EXPECT_EQ(errnoOf([&] { fs_.renameFile(WString(L"/d/from"), WString(L"/d/to")); }), EACCES);
    EXPECT_EQ(fs_.contents("/d/from"), "again");
    EXPECT_FALSE(fs_.exists("/d/to"));

    // A copy that fails part way leaves the target as it was.
    fs_.putFile("/d/to", "kept");
    fs_.failCall(SimulatedFileSystem::kRenameCall, 1, EXDEV);
    fs_.failCall(SimulatedFileSystem::kWriteCall, 1, ENOSPC);
    EXPECT_EQ(errnoOf([&] { fs_.renameFile(WString(L"/d/from"), WString(L"/d/to")); }), ENOSPC);
    EXPECT_EQ(fs_.contents("/d/to"), "kept");
    EXPECT_EQ(fs_.listDirectory(WString(L"/d")).size(), 2u);
}

TEST_F(SimulatedFaultTest, CrashKeepsOnlyWhatWasSynced) {
    fs_.putFile("/d/old", "durable");
    std::unique_ptr<File> file = fs_.open(WString(L"/d/old"), FileSystem::kReadWrite);
    file->writeAt(7, "+unsynced", 9);
    std::unique_ptr<File> fresh =
        fs_.open(WString(L"/d/new"), FileSystem::kWrite | FileSystem::kCreate);
    fresh->writeAt(0, "n", 1);
    fresh->sync();  // data synced, but its name is not
    fs_.rename(WString(L"/d/old"), WString(L"/d/renamed"));
    fs_.crash();
    EXPECT_EQ(fs_.contents("/d/old"), "durable");
    EXPECT_FALSE(fs_.exists("/d/new"));
    EXPECT_FALSE(fs_.exists("/d/renamed"));
    EXPECT_EQ(errnoOf([&] { file->sync(); }), EIO);

    fresh = fs_.open(WString(L"/d/new"), FileSystem::kWrite | FileSystem::kCreate);
    fresh->writeAt(0, "n", 1);
    fresh->sync();
    fs_.unlink(WString(L"/d/old"));
    fs_.syncDirectory(WString(L"/d"));
    fs_.crash();
    EXPECT_EQ(fs_.contents("/d/new"), "n");
    EXPECT_FALSE(fs_.exists("/d/old"));
}

TEST_F(SimulatedFaultTest, StopFreezesEveryLaterCall) {
    fs_.putFile("/d/f", "x");
    fs_.clearJournal();
    fs_.stopAfter(2);
    std::unique_ptr<File> file = fs_.open(WString(L"/d/f"), FileSystem::kReadWrite);
    EXPECT_EQ(errnoOf([&] { file->writeAt(0, "y", 1); }), EIO);
    EXPECT_EQ(errnoOf([&] { fs_.stat(WString(L"/d/f")); }), EIO);
    EXPECT_TRUE(fs_.stopped());
    EXPECT_EQ(fs_.journal(),
              (std::vector<std::string>{"open /d/f", "write /d/f 0+1", "stat /d/f"}));
    fs_.crash();
    EXPECT_FALSE(fs_.stopped());
    EXPECT_EQ(fs_.contents("/d/f"), "x");
}

}  // namespace
}  // namespace osdep
}  // namespace kel
}  // namespace zq
