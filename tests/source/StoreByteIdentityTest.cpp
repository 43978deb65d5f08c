// The files a fixed series of commits leaves, compared with golden copies in
// tests/data/golden: every host (x86-64, and 32-bit ARM under qemu) must write
// exactly these bytes. Nothing in them depends on the clock, a GUID or the
// process: bucket times live in memory only and the store writes no ids.
//
// To regenerate after a deliberate format change, on x86-64:
//   ORVANE_WRITE_GOLDEN=1 build/dev/tests/orvane_unit_tests
//       --gtest_filter='StoreByteIdentityTest.*'
// then review and commit tests/data/golden.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>

#include "source/SingleFileBucketStore.h"
#include "source/StoreTestSupport.h"
#include "source/ValueSamples.h"
#include "support/TempDir.h"

namespace zq {
namespace test {
namespace {

using kel::NString;
using orvane::BucketValue;
using orvane::SingleFileBucketStore;

std::string goldenPath(const std::string& name) {
    return std::string(ORVANE_TEST_DATA) + "/golden/" + name;
}

// One value of every type, as the format tests build them.
AutoRef<IBucket> everyType(const std::wstring& name) {
    AutoRef<IBucket> bucket = makeBucket(name);
    for (const orvane::test::ValueSample& sample : orvane::test::valueSamples()) {
        if (std::string(sample.name) == "unset") {
            continue;  // unset: a bucket refuses it
        }
        StatusChain status = okStatus();
        AutoRef<BucketValue> value(new BucketValue());
        sample.set(*value, status);
        bucket->setValue(WString(sample.name), value, status, true);
        EXPECT_EQ(status.getCode(), 0) << sample.name;
    }
    return bucket;
}

// Values whose stored form a careless host could get wrong: wide text past
// the BMP, 64-bit extremes, NaN payloads, a blob with every byte.
AutoRef<IBucket> awkward(const std::wstring& name) {
    AutoRef<IBucket> bucket = makeBucket(name);
    StatusChain status = okStatus();
    bucket->setStringValue(WString(L"wide"), WString(L"Gr\u00fc\u00dfe \u65e5\u672c \U0001F600"),
                           status, true);
    const WString words[] = {WString(L"\u03b1\u03b2"), WString(L""), WString(L"\U00010348x")};
    bucket->setStringArrayValue(WString(L"words"), words, 3, status, true);
    const NString bytes[] = {NString("plain"), NString("caf\xc3\xa9")};
    bucket->setAnsiStringArrayValue(WString(L"narrow"), bytes, 2, status, true);
    bucket->setInt64Value(WString(L"min"), std::numeric_limits<int64_t>::min(), status, true);
    bucket->setUInt64Value(WString(L"max"), std::numeric_limits<uint64_t>::max(), status, true);
    const double doubles[] = {std::nan("0x5a5a"), -0.0, 1e308, 5e-324};
    bucket->setFloat64ArrayValue(WString(L"doubles"), doubles, 4, status, true);
    const float floats[] = {std::nanf("3"), -1.5f, std::numeric_limits<float>::infinity()};
    bucket->setFloat32ArrayValue(WString(L"floats"), floats, 3, status, true);
    const int64_t longs[] = {-1, 0x0123456789abcdefll, 1ll << 40};
    bucket->setInt64ArrayValue(WString(L"longs"), longs, 3, status, true);
    unsigned char blob[256];
    for (int i = 0; i < 256; ++i) {
        blob[i] = static_cast<unsigned char>(255 - i);
    }
    bucket->setBlobValue(WString(L"blob"), blob, sizeof blob, status, true);
    EXPECT_EQ(status.getCode(), 0);
    return bucket;
}

void commit(IBucketStore& store, std::initializer_list<AutoRef<IBucket>> buckets,
            std::initializer_list<const wchar_t*> deletions) {
    IBucketStore::UpdatedBuckets updated;
    for (const AutoRef<IBucket>& bucket : buckets) {
        updated[bucket->getFullName()] = bucket;
    }
    IBucketStore::DeletedNames deleted;
    for (const wchar_t* name : deletions) {
        deleted.insert(WString(name));
    }
    StatusChain status = okStatus();
    store.commit(updated, deleted, status);
    ASSERT_EQ(status.getCode(), 0);
}

class StoreByteIdentityTest : public testing::Test {
  protected:
    // Compares the store's `file` with golden/`golden`, or writes it there
    // when ORVANE_WRITE_GOLDEN is set.
    void expectGolden(const std::string& file, const std::string& golden) {
        const std::string bytes = dir_.read(file);
        if (std::getenv("ORVANE_WRITE_GOLDEN") != nullptr) {
            std::ofstream(goldenPath(golden), std::ios::binary) << bytes;
            return;
        }
        std::ifstream in(goldenPath(golden), std::ios::binary);
        ASSERT_TRUE(in) << goldenPath(golden);
        const std::string expected{std::istreambuf_iterator<char>(in),
                                   std::istreambuf_iterator<char>()};
        ASSERT_EQ(bytes.size(), expected.size()) << golden;
        for (size_t i = 0; i < bytes.size(); ++i) {
            ASSERT_EQ(bytes[i], expected[i]) << golden << " differs first at byte " << i;
        }
    }

    TempDir dir_;
};

TEST_F(StoreByteIdentityTest, CommitsDeletionAndCompactionWriteTheGoldenBytes) {
    {
        SingleFileBucketStore store(dir_.wide(), nullptr, kel::osdep::FileSystem::posix());
        StatusChain status = okStatus();
        store.open(0, status);
        ASSERT_EQ(status.getCode(), 0);
        commit(store, {makeBucket(L"/"), everyType(L"/plant"), makeBucket(L"/plant/old", 7)}, {});
        commit(store, {awkward(L"/plant/\u00e9tage"), makeBucket(L"/spare", 1)}, {L"/plant/old"});
        commit(store, {makeBucket(L"/spare", 2)}, {});
    }
    // Three segments, one with a deletion, each commit one mark further.
    expectGolden("registry.bin", "segments.bin");
    expectGolden("commitmark.3", "segments.commitmark.3");

    SingleFileBucketStore store(dir_.wide(), nullptr, kel::osdep::FileSystem::posix());
    StatusChain status = okStatus();
    store.open(0, status);  // compacts
    ASSERT_EQ(status.getCode(), 0);
    commit(store, {makeBucket(L"/after", 3)}, {L"/spare"});
    expectGolden("registry.bin", "compacted.bin");
    expectGolden("commitmark.2", "compacted.commitmark.2");
}

}  // namespace
}  // namespace test
}  // namespace zq
