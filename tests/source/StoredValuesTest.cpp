// A bucket read from a record keeps its values in their stored form until it
// must decode them. Whatever a client does, such a bucket must behave exactly
// as one built value by value: same results, same status codes, same bytes
// written and the same weight in the caches.

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/source/ValueSamples.h"
#include "zq/orvane/Bucket.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {
namespace {

using kel::AutoRef;
using kel::StatusChain;
using kel::WString;
using test::okStatus;
using test::recordOf;

AutoRef<Bucket> readBack(const Bucket& bucket) {
    return test::readRecord<Bucket>(recordOf(bucket));
}

// Names in several spellings of the same fold, a non-ASCII one, one that
// sorts between others, and one whose character the stored form cannot keep.
std::vector<WString> names() {
    return {WString(L"speed"),
            WString(L"Speed"),
            WString(L"SPEED"),
            WString(L"port"),
            WString(L"\u00e9t\u00e9"),
            WString(L"\u00c9T\u00c9"),
            WString(L"m"),
            WString(L"zz"),
            WString(L"a"),
            WString(std::wstring(1, wchar_t(0x200000)).c_str())};
}

AutoRef<IBucketValue> sampleValue(size_t index) {
    const auto samples = test::valueSamples();
    AutoRef<BucketValue> value(new BucketValue());
    StatusChain status = okStatus();
    samples[index % samples.size()].set(*value, status);
    return AutoRef<IBucketValue>(value);
}

void expectSame(const Bucket& stored, const Bucket& built, int step) {
    SCOPED_TRACE(step);
    EXPECT_EQ(recordOf(stored), recordOf(built));
    EXPECT_EQ(stored.getMemUsage(), built.getMemUsage());
    EXPECT_EQ(stored.getNumKeys(), built.getNumKeys());
}

// One random change or lookup, applied to both buckets.
void applyBoth(std::mt19937& random, Bucket& stored, Bucket& built) {
    const std::vector<WString> pool = names();
    const WString& name = pool[random() % pool.size()];
    StatusChain a = okStatus();
    StatusChain b = okStatus();
    switch (random() % 8) {
        case 0:
        case 1:
        case 2: {
            const AutoRef<IBucketValue> value = sampleValue(random());
            const bool replace = random() % 3 != 0;
            EXPECT_EQ(stored.setValue(name, value, a, replace),
                      built.setValue(name, value, b, replace));
            break;
        }
        case 3:
            EXPECT_EQ(stored.removeValue(name), built.removeValue(name));
            break;
        case 4: {
            EXPECT_EQ(stored.hasValue(name), built.hasValue(name));
            const AutoRef<IBucketValue> x = stored.getValue(name, a);
            const AutoRef<IBucketValue> y = built.getValue(name, b);
            ASSERT_EQ(static_cast<bool>(x), static_cast<bool>(y));
            if (x) {
                EXPECT_TRUE(x->isEqual(x, y));
            }
            break;
        }
        case 5: {
            const WString& child = pool[random() % (pool.size() - 1)];  // one that reads back
            EXPECT_EQ(stored.addChild(child, a, true), built.addChild(child, b, true));
            break;
        }
        case 6:
            if (random() % 4 == 0) {
                stored.removeDataValues();
                built.removeDataValues();
            }
            break;
        case 7: {
            // A value large enough that a change decodes instead of splicing.
            const std::vector<unsigned char> blob(5000, static_cast<unsigned char>(random()));
            EXPECT_EQ(stored.setBlobValue(name, blob.data(), 5000, a, true),
                      built.setBlobValue(name, blob.data(), 5000, b, true));
            break;
        }
    }
    EXPECT_EQ(a.getCode(), b.getCode());
}

TEST(StoredValuesTest, ReadBucketBehavesAsBuiltOne) {
    std::mt19937 random(7);
    for (int round = 0; round < 40; ++round) {
        AutoRef<Bucket> built(new Bucket(WString(L"/Net/Eth0"), true));
        StatusChain status = okStatus();
        for (size_t i = 0; i < 6; ++i) {
            built->setValue(names()[random() % 8], sampleValue(random()), status, true);
        }
        AutoRef<Bucket> stored = readBack(*built);
        expectSame(*stored, *built, -1);
        for (int step = 0; step < 30; ++step) {
            applyBoth(random, *stored, *built);
            expectSame(*stored, *built, step);
            if (step % 7 == 6) {
                // Back to the stored form, without the name that cannot be read back.
                stored->removeValue(names().back());
                built->removeValue(names().back());
                stored = readBack(*stored);
                built = readBack(*built);
                const uint32_t handle = built->openEnumeration();  // decodes it
                built->closeEnumeration(handle);
            }
        }
    }
}

// The values of a record in stored form walk, compare and print as decoded
// ones, and a walk still sees a change made under it.
TEST(StoredValuesTest, WalkAndCompareDecodeOnDemand) {
    AutoRef<Bucket> built(new Bucket(WString(L"/w"), true));
    StatusChain status = okStatus();
    built->setInt32Value(WString(L"b"), 2, status, true);
    built->setInt32Value(WString(L"a"), 1, status, true);
    built->addChild(WString(L"kid"), status, true);
    AutoRef<Bucket> stored = readBack(*built);
    EXPECT_TRUE(stored->isEqual(AutoRef<IBucket>(stored), AutoRef<IBucket>(built)));
    AutoRef<Bucket> decoded = readBack(*built);
    decoded->closeEnumeration(decoded->openEnumeration());
    EXPECT_EQ(stored->toString(), decoded->toString());

    stored = readBack(*built);
    const uint32_t handle = stored->openEnumeration();
    WString name;
    AutoRef<IBucketValue> value;
    ASSERT_TRUE(stored->getFirstValue(handle, name, value));
    EXPECT_EQ(name, WString(L"/w/kid"));
    stored->setInt32Value(WString(L"c"), 3, status, true);
    StatusChain walk = okStatus();
    EXPECT_FALSE(stored->getNextValue(handle, name, value, walk));
    EXPECT_EQ(walk.getCode(), status::kCursorInvalidated);

    stored = readBack(*built);
    Digest child;
    const uint32_t children = stored->openEnumeration();
    ASSERT_TRUE(stored->getFirstChild(children, child));
    EXPECT_EQ(child, Digest(WString(L"/w/kid")));
}

// Records not in the stored form (out of order, the same name twice in two
// spellings, an unset value) still read as they always did: the later entry
// wins and the unset value is dropped. Written back, they come out sorted.
TEST(StoredValuesTest, RecordsOutOfFormReadAsBefore) {
    using test::Bytes;
    auto entry = [](const char* name, int32_t number) {
        return Bytes()
            .u32(static_cast<uint32_t>(std::string(name).size()))
            .text(name)
            .append(test::valueHeader(kINT32))
            .u32(static_cast<uint32_t>(number));
    };
    Bytes record = Bytes().u32(1).u32(4).u32(2).text("/r").u32(4);
    record.append(entry("b", 1)).append(entry("a", 2)).append(entry("B", 3));
    record.u32(1).text("c").append(test::valueHeader(kNOTSET));
    AutoRef<Bucket> bucket = test::readRecord<Bucket>(record.data);
    StatusChain status = okStatus();
    EXPECT_EQ(bucket->getNumKeys(), 2u);
    EXPECT_EQ(bucket->getValue(WString(L"b"), status)->getInt32(status), 3);
    EXPECT_FALSE(bucket->hasValue(WString(L"c")));

    AutoRef<Bucket> sorted(new Bucket(WString(L"/r"), true));
    sorted->setInt32Value(WString(L"a"), 2, status, true);
    sorted->setInt32Value(WString(L"B"), 3, status, true);
    sorted->setVersion(4);
    EXPECT_EQ(recordOf(*bucket), recordOf(*sorted));
}

}  // namespace
}  // namespace orvane
}  // namespace zq
