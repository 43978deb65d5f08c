// The bytes "registry.bin" must hold after known commits and a compaction.
#include <gtest/gtest.h>

#include <string>

#include "source/Sha256.h"
#include "source/SingleFileBucketStore.h"
#include "source/StoreTestSupport.h"
#include "support/TempDir.h"

namespace zq {
namespace test {
namespace {

using orvane::Digest;
using orvane::SingleFileBucketStore;

// An image of the file, built field by field.
class Image {
  public:
    Image& i64(int64_t v) {
        for (int i = 0; i < 8; ++i) {
            bytes_ += static_cast<char>((static_cast<uint64_t>(v) >> (8 * i)) & 0xFF);
        }
        return *this;
    }
    Image& u32(uint32_t v) {
        for (int i = 0; i < 4; ++i) {
            bytes_ += static_cast<char>((v >> (8 * i)) & 0xFF);
        }
        return *this;
    }
    Image& raw(const std::string& s) {
        bytes_ += s;
        return *this;
    }
    Image& digestOf(const wchar_t* name) {
        const Digest d{WString(name)};
        bytes_.append(reinterpret_cast<const char*>(d.bytes()), Digest::kSize);
        return *this;
    }
    // An empty bucket's record: format 1, version 0, the name, no values.
    Image& emptyBucketRecord(const std::string& name) {
        const uint32_t length = 4 + 4 + 4 + static_cast<uint32_t>(name.size()) + 4;
        i64(length).u32(1).u32(0).u32(static_cast<uint32_t>(name.size())).raw(name).u32(0);
        return *this;
    }
    // The repeated index position, the checksum of [start, here + 7), the
    // start, the mark.
    Image& trailer(int64_t start, int64_t index) {
        const size_t x = bytes_.size();
        i64(index);
        unsigned char hash[32];
        orvane::Sha256::hash(bytes_.data() + start, x + 7 - static_cast<size_t>(start), hash);
        bytes_.append(reinterpret_cast<const char*>(hash), 32);
        i64(start).raw("@@@@SFBSMARK@@@@");
        return *this;
    }
    size_t size() const { return bytes_.size(); }
    const std::string& bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

// Two commits, the second with a deletion.
class StoreFormatTest : public testing::Test {
  protected:
    void SetUp() override {
        commitInTurn(dir_.wide(), {{{L"/", -1}, {L"/a", -1}}, {{L"/b", -1}, {L"/a", -2}}},
                     kel::osdep::FileSystem::posix());
    }

    TempDir dir_;
};

// The trailer's checksum covers [start, repeated index + 7): one byte short.
TEST_F(StoreFormatTest, TwoCommitsOneWithADeletion) {
    Image image;
    // First segment: records at 16 and 41, index at 67, trailer at 163.
    image.i64(163 + 40).i64(67);
    image.emptyBucketRecord("/").emptyBucketRecord("/a");
    ASSERT_EQ(image.size(), 67u);
    image.i64(0).u32(2).u32(0);
    image.digestOf(L"/").i64(16).digestOf(L"/a").i64(41);
    image.trailer(0, 67);
    ASSERT_EQ(image.size(), 227u);
    // Second segment links back to the first one's index.
    image.i64(357 + 40).i64(269);
    image.emptyBucketRecord("/b");
    image.i64(67).u32(1).u32(1);
    image.digestOf(L"/b").i64(243);
    image.digestOf(L"/a");
    image.trailer(227, 269);
    ASSERT_EQ(image.size(), 421u);

    EXPECT_EQ(dir_.read("registry.bin"), image.bytes());
    // The empty store's mark was generation 1; each commit moves one up.
    EXPECT_EQ(dir_.read("commitmark.2"), "421");
    EXPECT_FALSE(dir_.exists("commitmark.1"));
}

TEST_F(StoreFormatTest, CompactionWritesOneSegmentInDigestOrder) {
    SingleFileBucketStore store(dir_.wide(), nullptr, kel::osdep::FileSystem::posix());
    StatusChain status = okStatus();
    store.open(0, status);  // compacts
    ASSERT_EQ(status.getCode(), 0);

    // Records in the order met (newest segment first); "/a" is gone.
    Image image;
    image.i64(163 + 40).i64(67);
    image.emptyBucketRecord("/b").emptyBucketRecord("/");
    image.i64(0).u32(2).u32(0);
    const bool rootFirst = Digest(WString(L"/")) < Digest(WString(L"/b"));
    if (rootFirst) {
        image.digestOf(L"/").i64(42).digestOf(L"/b").i64(16);
    } else {
        image.digestOf(L"/b").i64(16).digestOf(L"/").i64(42);
    }
    image.trailer(0, 67);
    EXPECT_EQ(dir_.read("registry.bin"), image.bytes());
    EXPECT_EQ(dir_.read("commitmark.1"), "227");
    for (const char* gone :
         {"commitmark.2", "registry.bin.1", "registry.bin.2", "newCommitmark", "oldCommitmark"}) {
        EXPECT_FALSE(dir_.exists(gone)) << gone;
    }
    EXPECT_FALSE(store.wasRepairedOnOpen());
    EXPECT_TRUE(store.exists(WString(L"/b"), status));
    EXPECT_FALSE(store.exists(WString(L"/a"), status));

    // The next commit writes generation 2; as the first commit since the
    // open it links back to nothing.
    commitChanges(store, {{L"/c", -1}}, nullptr, status);
    ASSERT_EQ(status.getCode(), 0);
    EXPECT_EQ(dir_.read("commitmark.2"), "389");
    EXPECT_FALSE(dir_.exists("commitmark.1"));
    const std::string bytes = dir_.read("registry.bin");
    Image unlinked;
    unlinked.i64(0);
    EXPECT_EQ(bytes.substr(227 + 16 + 26, 8), unlinked.bytes());
}

}  // namespace
}  // namespace test
}  // namespace zq
