// Running out of memory in the value setters, a value copy and the bucket and
// case records: every allocation fails in turn; the operation reports it and
// leaves its object as it was (a value unset), leaking nothing.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "oom/Sweep.h"
#include "source/BucketCase.h"
#include "source/ValueSamples.h"
#include "zq/kel/Exception.h"
#include "zq/orvane/Bucket.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace test {
namespace {

using kel::AutoRef;
using kel::NString;
using kel::StatusChain;
using kel::WString;
using orvane::Bucket;
using orvane::BucketCase;
using orvane::BucketValue;
using orvane::IBucket;
using orvane::IBucketValue;
using orvane::test::Bytes;
using orvane::test::okStatus;
using orvane::test::recordOf;
namespace status = orvane::status;

struct Setter {
    const char* name;
    std::function<void(BucketValue&, StatusChain&)> set;
};

// The kinds that own their payload; arguments are built before any sweep.
std::vector<Setter> ownedKinds() {
    static const orvane::Digest digest = orvane::test::countingDigest();
    static const NString ansi("a narrow string that is not short");
    static const WString wide(L"a wide string, \u00e9t\u00e9");
    static const unsigned char blob[] = {1, 2, 3, 4, 5};
    static const NString ansiArray[] = {NString("one"), NString(""), NString("three")};
    static const WString wideArray[] = {WString(L"x\u00e9"), WString(L"yy")};
    static const int32_t ints[] = {1, -1, 7};
    return {
        {"digest", [](BucketValue& v, StatusChain& s) { v.setDigest(digest, s); }},
        {"ansi", [](BucketValue& v, StatusChain& s) { v.setAnsiString(ansi, s); }},
        {"string", [](BucketValue& v, StatusChain& s) { v.setString(wide, s); }},
        {"blob", [](BucketValue& v, StatusChain& s) { v.setBlob(blob, 5, s); }},
        {"ansiArray",
         [](BucketValue& v, StatusChain& s) { v.setAnsiStringArray(ansiArray, 3, s); }},
        {"stringArray", [](BucketValue& v, StatusChain& s) { v.setStringArray(wideArray, 2, s); }},
        {"int32Array", [](BucketValue& v, StatusChain& s) { v.setInt32Array(ints, 3, s); }},
    };
}

AutoRef<BucketValue> valueOf(const Setter& setter) {
    AutoRef<BucketValue> value(new BucketValue());
    StatusChain status = okStatus();
    setter.set(*value, status);
    EXPECT_EQ(status.getCode(), 0);
    return value;
}

// A failed call reports exactly out of memory; one that allocated all it
// wanted reports nothing.
void expectOutcome(bool fired, int32_t code) { EXPECT_EQ(code, fired ? status::kOutOfMemory : 0); }

TEST(ValueOomTest, ASetterThatCannotAllocateReportsItAndLeavesTheValueUnset) {
    for (const Setter& setter : ownedKinds()) {
        const AutoRef<BucketValue> expected = valueOf(setter);
        const long points = sweep(setter.name, [&](long k) {
            AutoRef<BucketValue> value(new BucketValue());
            StatusChain status = okStatus();
            value->setInt32(5, status);
            const bool fired = failingAt(k, [&] { setter.set(*value, status); });
            expectOutcome(fired, status.getCode());
            if (fired) {
                EXPECT_EQ(value->getType(), orvane::kNOTSET) << setter.name << " k=" << k;
            } else {
                EXPECT_TRUE(value->equals(*expected)) << setter.name;
            }
            return fired;
        });
        EXPECT_GT(points, 0) << setter.name;
    }
}

TEST(ValueOomTest, ACopyThatCannotAllocateLeavesTheBucketAsItWas) {
    for (const Setter& setter : ownedKinds()) {
        const AutoRef<IBucketValue> source(valueOf(setter).get());
        const WString name(L"copy");
        sweep(setter.name, [&](long k) {
            Bucket bucket(WString(L"/b"));
            StatusChain status = okStatus();
            bucket.setInt32Value(WString(L"old"), 1, status, true);
            const std::vector<unsigned char> before = recordOf(bucket);
            const bool fired = failingAt(k, [&] { bucket.setValue(name, source, status, true); });
            expectOutcome(fired, status.getCode());
            if (fired) {
                EXPECT_EQ(recordOf(bucket), before) << setter.name << " k=" << k;
            } else {
                StatusChain read = okStatus();
                AutoRef<IBucketValue> copy = bucket.getValue(name, read);
                EXPECT_TRUE(copy && static_cast<BucketValue*>(copy.get())
                                        ->equals(*static_cast<BucketValue*>(source.get())));
            }
            return fired;
        });
    }
}

// A bucket with one value of every owned kind.
AutoRef<IBucket> fullBucket(const wchar_t* name) {
    AutoRef<IBucket> bucket(new Bucket(WString(name)));
    for (const Setter& setter : ownedKinds()) {
        StatusChain status = okStatus();
        bucket->setValue(WString(setter.name), AutoRef<IBucketValue>(valueOf(setter).get()), status,
                         true);
        EXPECT_EQ(status.getCode(), 0);
    }
    return bucket;
}

// Deserialises `record` into `target` with the k-th allocation failing:
// whether the failure fired; a failed read throws DeserializationError.
template <class Target>
bool readWithFailure(long k, Target& target, const std::vector<unsigned char>& record) {
    bool threw = false;
    const bool fired = failingAt(k, [&] {
        const unsigned char* cursor = record.data();
        try {
            target.deserialize(cursor, record.data() + record.size());
        } catch (const kel::exception::DeserializationError&) {
            threw = true;
        }
    });
    EXPECT_EQ(threw, fired) << "k=" << k;
    return fired;
}

TEST(ValueOomTest, ABucketRecordThatCannotBeReadLeavesTheBucketAsItWas) {
    AutoRef<IBucket> source = fullBucket(L"/full");
    const std::vector<unsigned char> record = recordOf(*source);
    sweep("bucket record", [&](long k) {
        AutoRef<IBucket> target(new Bucket(WString(L"/other")));
        StatusChain status = okStatus();
        target->setInt32Value(WString(L"v"), 3, status, true);
        const std::vector<unsigned char> before = recordOf(*target);
        const bool fired = readWithFailure(k, *target, record);
        EXPECT_EQ(recordOf(*target), fired ? before : record) << "k=" << k;
        return fired;
    });
}

// A bucket read from a record decodes its values only when asked: running out
// of memory then is reported as such, never as damage, and a change that
// fails leaves the bucket as it was.
TEST(ValueOomTest, AStoredBucketThatCannotDecodeReportsIt) {
    const std::vector<unsigned char> record = recordOf(*fullBucket(L"/full"));
    const auto read = [&] {
        AutoRef<IBucket> bucket(new Bucket());
        const unsigned char* cursor = record.data();
        bucket->deserialize(cursor, record.data() + record.size());
        return bucket;
    };
    using Operation = std::function<void(IBucket&, StatusChain&)>;
    std::vector<std::pair<std::string, Operation>> operations;
    for (const Setter& setter : ownedKinds()) {
        const WString name(setter.name);
        operations.emplace_back(std::string("get ") + setter.name,
                                [name](IBucket& b, StatusChain& s) { b.getValue(name, s); });
        // No status: a removal that did not happen is its failure.
        operations.emplace_back(std::string("remove ") + setter.name,
                                [name](IBucket& b, StatusChain& s) {
                                    if (!b.removeValue(name)) s.setCode(status::kOutOfMemory);
                                });
    }
    const WString newName(L"new");
    const WString text(L"text");
    operations.emplace_back(
        "set", [&](IBucket& b, StatusChain& s) { b.setStringValue(newName, text, s, true); });
    const WString dataName(L"string");  // the digest stays: it counts as a child link
    operations.emplace_back("remove data values", [&](IBucket& b, StatusChain& s) {
        b.removeDataValues();
        if (b.hasValue(dataName)) s.setCode(status::kOutOfMemory);
    });
    const AutoRef<IBucket> same = read();
    operations.emplace_back("compare", [&](IBucket& b, StatusChain& s) {
        if (!b.isEqual(AutoRef<IBucket>(&b), same)) s.setCode(status::kOutOfMemory);
    });
    operations.emplace_back("walk", [](IBucket& b, StatusChain& s) {
        const uint32_t handle = b.openEnumeration();
        if (handle == 0) s.setCode(status::kOutOfMemory);
        b.closeEnumeration(handle);
    });
    for (const auto& [what, operation] : operations) {
        sweep(what.c_str(), [&](long k) {
            AutoRef<IBucket> bucket = read();
            StatusChain status = okStatus();
            const bool fired = failingAt(k, [&] { operation(*bucket, status); });
            EXPECT_TRUE(status.getCode() == 0 || status.getCode() == status::kOutOfMemory)
                << what << " k=" << k << " code " << status.getCode();
            if (status.getCode() != 0) {
                EXPECT_TRUE(fired) << what;
                EXPECT_EQ(recordOf(*bucket), record) << what << " k=" << k;
            }
            return fired;
        });
    }
}

// A record out of the stored form (names out of order) is decoded value by
// value as the store reads it: lack of memory there is not damage either.
TEST(ValueOomTest, AStoreReadOfARecordOutOfFormThatCannotAllocateThrowsItAsSuch) {
    StatusChain status = okStatus();
    BucketValue text;
    text.setString(WString(L"a text to allocate"), status);
    BucketValue number;
    number.setInt32(1, status);
    Bytes record = Bytes().u32(1).u32(1).u32(2).text("/r").u32(2);
    record.u32(1).text("b").append(Bytes{recordOf(text)});
    record.u32(1).text("a").append(Bytes{recordOf(number)});
    const WString name(L"/r");
    const orvane::Digest digest(name);
    sweep("record out of form", [&](long k) {
        AutoRef<Bucket> bucket(new Bucket());
        bool damage = false;
        bool outOfMemory = false;
        const bool fired = failingAt(k, [&] {
            const unsigned char* cursor = record.data.data();
            try {
                bucket->deserializeFound(cursor, record.data.data() + record.data.size(), name,
                                         digest);
            } catch (const std::bad_alloc&) {
                outOfMemory = true;
            } catch (const kel::exception::DeserializationError&) {
                damage = true;
            }
        });
        EXPECT_FALSE(damage) << "k=" << k;
        EXPECT_EQ(outOfMemory, fired) << "k=" << k;
        return fired;
    });
}

TEST(ValueOomTest, ACaseRecordThatCannotBeReadLeavesTheCaseAsItWas) {
    AutoRef<BucketCase> source(new BucketCase());
    for (const wchar_t* name : {L"/a", L"/b/c", L"/d"}) {
        AutoRef<IBucket> bucket = fullBucket(name);
        StatusChain status = okStatus();
        source->insertBucket(bucket, nullptr, status);
    }
    const std::vector<unsigned char> record = recordOf(*source);
    sweep("case record", [&](long k) {
        AutoRef<BucketCase> target(new BucketCase());
        AutoRef<IBucket> old = fullBucket(L"/old");
        StatusChain status = okStatus();
        target->insertBucket(old, nullptr, status);
        const std::vector<unsigned char> before = recordOf(*target);
        const uint32_t usedBefore = target->usedBytes();
        const bool fired = readWithFailure(k, *target, record);
        EXPECT_EQ(recordOf(*target), fired ? before : record) << "k=" << k;
        EXPECT_EQ(target->usedBytes(), fired ? usedBefore : source->usedBytes()) << "k=" << k;
        EXPECT_EQ(static_cast<bool>(target->findBucket(WString(L"/B/C"))), !fired) << "k=" << k;
        return fired;
    });
}

}  // namespace
}  // namespace test
}  // namespace zq
