// The offline check and the store's own load agree about the same bytes:
// the check names damage where the load stops, and finds none where the
// load finds none.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "source/StoreCheck.h"
#include "source/StoreTestSupport.h"
#include "support/TempDir.h"

namespace zq {
namespace test {
namespace {

using kel::osdep::FileSystem;
using orvane::StoreCheck;

int64_t startOfSegmentEndingAt(const std::string& image, size_t end) {
    int64_t start;
    std::memcpy(&start, &image[end - 24], sizeof start);  // the target is little-endian
    return start;
}

// Where the store's own load stops, reading the file as it stands.
int64_t damagedEndByLoad(const TempDir& dir, int64_t committed) {
    std::unique_ptr<kel::osdep::File> file =
        FileSystem::posix().open(dir.wide("registry.bin"), FileSystem::kRead);
    orvane::StoreIndex index;
    index.load(*file, committed, 0);
    return index.damagedEnd();
}

int64_t damagedEndByCheck(const StoreCheck& check) {
    for (const StoreCheck::Segment& segment : check.segments()) {
        if (segment.checksumFails) return segment.end;
    }
    return check.problems().empty() ? 0 : -1;
}

TEST(StoreCheckTest, NamesDamageWhereTheStoresLoadStops) {
    TempDir dir;
    commitInTurn(dir.wide(), {{{L"/a", 1}}, {{L"/b", 2}}, {{L"/a", 3}}}, FileSystem::posix());
    const std::string good = dir.read("registry.bin");
    const size_t third = static_cast<size_t>(startOfSegmentEndingAt(good, good.size()));
    const size_t second = static_cast<size_t>(startOfSegmentEndingAt(good, third));
    const struct {
        const char* what;
        size_t flip;        // the byte changed; past the end: none
        size_t damagedEnd;  // of the newest damaged segment, 0: none
    } cases[] = {
        {"clean", good.size(), 0},
        {"first segment's record", 40, second},
        {"middle segment's record", second + 40, third},
        {"newest segment's record", third + 40, good.size()},
        {"newest segment's checksum", good.size() - 50, good.size()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::string image = good;
        if (c.flip < image.size()) image[c.flip] ^= 0x20;
        dir.write("registry.bin", image);
        const StoreCheck check(FileSystem::posix(), dir.wide());
        ASSERT_TRUE(check.found());
        EXPECT_EQ(check.committedLength(), static_cast<int64_t>(good.size()));
        EXPECT_EQ(damagedEndByLoad(dir, check.committedLength()),
                  static_cast<int64_t>(c.damagedEnd));
        EXPECT_EQ(damagedEndByCheck(check), static_cast<int64_t>(c.damagedEnd));
        if (c.damagedEnd != 0) {
            const StoreCheck::Problem& first = check.problems().front();
            EXPECT_EQ(first.offset, static_cast<int64_t>(c.damagedEnd) - 56) << first.message;
        }
        EXPECT_EQ(dir.read("registry.bin"), image) << "the check changed the file";
    }
}

// A segment whose start word points outside it stops the load and the walk
// alike, and the check names the word.
TEST(StoreCheckTest, AStartOutsideItsSegmentStopsBoth) {
    TempDir dir;
    commitInTurn(dir.wide(), {{{L"/a", 1}}, {{L"/b", 2}}}, FileSystem::posix());
    std::string image = dir.read("registry.bin");
    const int64_t end = static_cast<int64_t>(image.size());
    std::memcpy(&image[image.size() - 24], &end, sizeof end);
    dir.write("registry.bin", image);
    const StoreCheck check(FileSystem::posix(), dir.wide());
    EXPECT_EQ(damagedEndByLoad(dir, end), end);
    ASSERT_EQ(check.problems().size(), 1u);
    EXPECT_EQ(check.problems()[0].offset, end - 24);
    EXPECT_TRUE(check.segments().empty());
}

}  // namespace
}  // namespace test
}  // namespace zq
