#include "kel/osdep/MappedFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "kel/osdep/FaultGuard.h"
#include "kel/osdep/FileSystem.h"
#include "kel/osdep/SimulatedFileSystem.h"
#include "support/Child.h"
#include "support/TempDir.h"

namespace zq {
namespace kel {
namespace osdep {
namespace {

std::string pattern(size_t size, int seed) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>((i * 131 + static_cast<size_t>(seed)) % 251);
    }
    return bytes;
}

class MappedFileTest : public ::testing::Test {
  protected:
    void SetUp() override { dir_.write("f", pattern(40000, 1)); }
    std::unique_ptr<File> open(uint32_t flags = FileSystem::kRead) {
        return fs_.open(dir_.wide("f"), flags);
    }
    void* rawMap() {
        const int fd = ::open(dir_.file("f").c_str(), O_RDONLY);
        void* raw = ::mmap(nullptr, 40000, PROT_READ, MAP_SHARED, fd, 0);
        ::close(fd);
        return raw;
    }
    // What `file` reads at [offset, offset + count), as a string.
    static std::string read(File& file, int64_t offset, size_t count) {
        std::string out(count, '\0');
        out.resize(file.readAt(offset, &out[0], count));
        return out;
    }

    test::TempDir dir_;
    FileSystem& fs_ = FileSystem::posix();
};

// Every read agrees with a plain read of the file, inside the map, across
// its limit, past it, and past the end of the file.
TEST_F(MappedFileTest, ReadsAgreeWithTheFileOnEitherSideOfTheLimit) {
    const struct {
        int64_t limit;
        int64_t offset;
        size_t count;
    } cases[] = {
        {MappedFile::kDefaultLimit, 0, 100},
        {MappedFile::kDefaultLimit, 39990, 10},
        {MappedFile::kDefaultLimit, 39990, 50},
        {MappedFile::kDefaultLimit, 50000, 10},
        {4096, 0, 4096},
        {4096, 4000, 200},
        {4096, 10000, 300},
        {4096, 39999, 5},
        {0, 123, 456},
        {5000, 4999, 2},
    };
    std::unique_ptr<File> plain = open();
    for (const auto& c : cases) {
        MappedFile mapped(open(), c.limit);
        EXPECT_EQ(read(*plain, c.offset, c.count), read(mapped, c.offset, c.count))
            << "limit " << c.limit << " at " << c.offset << "+" << c.count;
    }
}

// Bytes another writer appends are read once they are there; a cut keeps
// reads from the bytes that went.
TEST_F(MappedFileTest, FollowsAppendsAndCutsOfTheFile) {
    MappedFile mapped(open(), MappedFile::kDefaultLimit);
    std::unique_ptr<File> writer = open(FileSystem::kReadWrite);
    const std::string more = pattern(3000, 7);
    writer->writeAt(40000, more.data(), more.size());
    EXPECT_EQ(more, read(mapped, 40000, more.size()));
    // On a page boundary: the cut tail of the last page would read as zeros.
    writer->truncate(20480);
    EXPECT_EQ(std::string(), read(mapped, 30000, 10));
    EXPECT_EQ(pattern(40000, 1).substr(20470, 10), read(mapped, 20470, 100));
    MappedFile own(open(FileSystem::kReadWrite), MappedFile::kDefaultLimit);
    own.truncate(100);
    EXPECT_EQ(100, own.mappedLength());
    EXPECT_EQ(pattern(40000, 1).substr(90, 10), read(own, 90, 20));
}

// A file cut under the map: a guarded copy from the pages that went fails
// instead of raising SIGBUS, and the File reads what is left.
TEST_F(MappedFileTest, ACopyFromPagesCutAwayFailsAndTheFileReadsShort) {
    void* raw = rawMap();
    std::unique_ptr<File> file = open();
    std::unique_ptr<MappedRegion> region = file->map(0, 40000);
    ASSERT_TRUE(region);
    MappedFile mapped(open(), MappedFile::kDefaultLimit);
    ASSERT_EQ(0, ::truncate(dir_.file("f").c_str(), 4096));
    char buffer[100];
    EXPECT_FALSE(FaultGuard::copy(buffer, static_cast<char*>(raw) + 20000, sizeof buffer));
    EXPECT_FALSE(region->copy(20000, buffer, sizeof buffer));
    EXPECT_TRUE(region->copy(100, buffer, sizeof buffer));
    EXPECT_EQ(0u, mapped.readAt(20000, buffer, sizeof buffer));
    EXPECT_EQ(96u, mapped.readAt(4000, buffer, sizeof buffer));
    ::munmap(raw, 40000);
}

// A fault outside a guarded copy is not swallowed: it goes on to the
// handler there was before, and the process ends as without the guard (a
// sanitizer's handler ends it with exit code 1, or aborts).
TEST_F(MappedFileTest, AnUnguardedFaultStillEndsTheProcess) {
    const int code = test::inChild([&] {
        const volatile char* raw = static_cast<const volatile char*>(rawMap());
        char buffer[8];
        if (!FaultGuard::copy(buffer, const_cast<const char*>(raw), sizeof buffer)) return 10;
        if (::truncate(dir_.file("f").c_str(), 0) != 0) return 11;
        return raw[20000] == 0 ? 12 : 13;
    });
    EXPECT_TRUE(code == 128 + SIGBUS || code == 128 + SIGABRT || code == 1) << code;
}

// A File that offers no map (a simulated disk) is read as it is.
TEST(MappedFileSimulatedTest, AFileWithoutMapsIsReadThrough) {
    test::SimulatedFileSystem fs;
    const std::string bytes = pattern(5000, 3);
    fs.makeDirectory(WString(L"/d"), 0777);
    fs.putFile("/d/f", bytes);
    MappedFile mapped(fs.open(WString(L"/d/f"), FileSystem::kRead), MappedFile::kDefaultLimit);
    EXPECT_EQ(0, mapped.mappedLength());
    std::string out(200, '\0');
    ASSERT_EQ(200u, mapped.readAt(4800, &out[0], 200));
    EXPECT_EQ(bytes.substr(4800), out);
}

}  // namespace
}  // namespace osdep
}  // namespace kel
}  // namespace zq
