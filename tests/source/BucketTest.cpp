#include "zq/orvane/Bucket.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>
#include <vector>

#include "source/BucketName.h"
#include "tests/source/ValueSamples.h"
#include "zq/kel/Exception.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {
namespace {

using kel::AutoRef;
using kel::NString;
using kel::StatusChain;
using kel::WString;
using test::Bytes;
using test::okStatus;
using test::recordOf;

AutoRef<Bucket> makeBucket(const wchar_t* name) {
    return AutoRef<Bucket>(new Bucket(WString(name)));
}

std::string narrow(const WString& text) { return NString(text).c_str(); }

// Names in enumeration order, with each value's text.
std::vector<std::string> entries(IBucket& bucket) {
    std::vector<std::string> out;
    const uint32_t handle = bucket.openEnumeration();
    WString name;
    AutoRef<IBucketValue> value;
    StatusChain status = okStatus();
    for (bool more = bucket.getFirstValue(handle, name, value); more;
         more = bucket.getNextValue(handle, name, value, status)) {
        out.push_back(narrow(name) + "=" + narrow(value->toString()));
    }
    bucket.closeEnumeration(handle);
    EXPECT_EQ(status.getCode(), 0);
    return out;
}

// "/x" holding a=1 and b=2, with a walk open and standing on "a".
struct Walk {
    AutoRef<Bucket> bucket = makeBucket(L"/x");
    uint32_t handle = 0;
    WString name;
    AutoRef<IBucketValue> value;

    Walk() {
        StatusChain status = okStatus();
        bucket->setInt32Value(WString(L"a"), 1, status, false);
        bucket->setInt32Value(WString(L"b"), 2, status, false);
        handle = bucket->openEnumeration();
        EXPECT_TRUE(bucket->getFirstValue(handle, name, value));
        EXPECT_EQ(narrow(name), "a");
    }
    bool next(StatusChain& status) { return bucket->getNextValue(handle, name, value, status); }
};

std::string hex(const Digest& digest) {
    WString text;
    return narrow(digest.getString(text));
}

TEST(BucketNameTest, ShortParentAndChildNames) {
    struct Case {
        const wchar_t* full;
        const char* shortName;
        const char* parent;
    };
    const Case cases[] = {
        {L"/a/b/c", "c", "/a/b"}, {L"/a", "a", "/"},   {L"/", "", "/"},
        {L"//a//b/", "b", "/a"},  {L"a/b", "b", "/a"}, {L"", "", "/"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(narrow(BucketName::shortName(WString(c.full))), c.shortName)
            << narrow(WString(c.full));
        EXPECT_EQ(narrow(BucketName::parentName(WString(c.full))), c.parent)
            << narrow(WString(c.full));
    }
    EXPECT_EQ(narrow(BucketName::childName(WString(L"/"), WString(L"x"))), "/x");
    EXPECT_EQ(narrow(BucketName::childName(WString(L"/a"), WString(L"x"))), "/a/x");

    AutoRef<Bucket> bucket = makeBucket(L"/Net/Eth0");
    EXPECT_EQ(narrow(bucket->getShortName()), "Eth0");
    EXPECT_EQ(bucket->getDigest(), Digest(WString(L"/net/eth0")));
    EXPECT_EQ(bucket->getParentDigest(), Digest(WString(L"/Net")));
    EXPECT_EQ(narrow(bucket->getFileName()), hex(Digest(WString(L"/net/eth0"))) + ".bucket");
}

TEST(BucketTest, RecordLayout) {
    AutoRef<Bucket> root = makeBucket(L"/");
    root->setVersion(5);
    EXPECT_EQ(recordOf(*root), Bytes().u32(1).u32(5).u32(1).text("/").u32(0).data);
    EXPECT_EQ(root->serializationSize(), 17u);

    AutoRef<Bucket> bucket = makeBucket(L"/a");
    bucket->setVersion(2);
    StatusChain status = okStatus();
    bucket->setInt8Value(WString(L"v"), -1, status, false);
    bucket->setBoolValue(WString(L"B"), true, status, false);
    const Bytes expected = Bytes()
                               .u32(1)
                               .u32(2)
                               .u32(2)
                               .text("/a")
                               .u32(2)
                               .u32(1)
                               .text("B")
                               .append(test::valueHeader(kBOOL).raw({1}))
                               .u32(1)
                               .text("v")
                               .append(test::valueHeader(kINT8).raw({0xFF}));
    EXPECT_EQ(recordOf(*bucket), expected.data);
    EXPECT_EQ(bucket->serializationSize(), expected.data.size());
}

TEST(BucketTest, ReadBackFromItsRecordUnmodifiedWithTheSameValuesInOrder) {
    AutoRef<Bucket> bucket = makeBucket(L"/Settings");
    bucket->setVersion(7);
    for (const auto& sample : test::valueSamples()) {
        AutoRef<BucketValue> value(new BucketValue());
        StatusChain status = okStatus();
        sample.set(*value, status);
        const bool stored = bucket->setValue(WString(NString(sample.name)),
                                             AutoRef<IBucketValue>(value), status, false);
        // An unset value is never stored.
        EXPECT_EQ(stored, value->getType() != kNOTSET) << sample.name;
    }
    StatusChain childStatus = okStatus();
    EXPECT_TRUE(bucket->addChild(WString(L"Display"), childStatus, false));
    ASSERT_EQ(bucket->getNumKeys(), 29u);

    const std::vector<unsigned char> record = recordOf(*bucket);
    AutoRef<Bucket> back = test::readRecord<Bucket>(record);
    EXPECT_FALSE(back->isModified());
    EXPECT_EQ(back->getVersion(), 7u);
    EXPECT_EQ(narrow(back->getFullName()), "/Settings");
    EXPECT_EQ(back->getDigest(), bucket->getDigest());
    EXPECT_EQ(entries(*back), entries(*bucket));
    EXPECT_TRUE(bucket->isEqual(AutoRef<IBucket>(bucket.get()), AutoRef<IBucket>(back.get())));
    EXPECT_EQ(recordOf(*back), record);
}

TEST(BucketTest, NamesAreCaseInsensitiveAndKeepTheirSpelling) {
    AutoRef<Bucket> bucket = makeBucket(L"/car");
    StatusChain status = okStatus();
    EXPECT_TRUE(bucket->setInt32Value(WString(L"Speed"), 1, status, false));

    // Different value, no replace: refused.
    EXPECT_FALSE(bucket->setInt32Value(WString(L"SPEED"), 2, status, false));
    EXPECT_EQ(status.getCode(), status::kValueDiffers);
    EXPECT_EQ(entries(*bucket), std::vector<std::string>{"Speed=1"});

    // Identical value under another spelling: nothing changes, spelling included.
    status.clear();
    EXPECT_FALSE(bucket->setInt32Value(WString(L"speed"), 1, status, true));
    EXPECT_EQ(status.getCode(), 0);
    EXPECT_EQ(entries(*bucket), std::vector<std::string>{"Speed=1"});

    // Replace: one entry, the new value under the new spelling, and a warning.
    EXPECT_TRUE(bucket->setInt32Value(WString(L"SPEED"), 2, status, true));
    EXPECT_EQ(status.getCode(), status::kValueReplaced);
    EXPECT_EQ(entries(*bucket), std::vector<std::string>{"SPEED=2"});
    EXPECT_TRUE(bucket->hasValue(WString(L"sPeEd")));

    // Another type is a different value too.
    status.clear();
    EXPECT_FALSE(bucket->setInt16Value(WString(L"speed"), 2, status, false));
    EXPECT_EQ(status.getCode(), status::kValueDiffers);
}

TEST(BucketTest, StoringAnIdenticalValueDoesNotMarkTheBucketModified) {
    AutoRef<Bucket> source = makeBucket(L"/x");
    StatusChain status = okStatus();
    source->setStringValue(WString(L"name"), WString(L"v"), status, false);
    AutoRef<Bucket> bucket = test::readRecord<Bucket>(recordOf(*source));
    ASSERT_FALSE(bucket->isModified());
    const kel::AbsoluteTime stamp = bucket->getModifiedTime();

    EXPECT_FALSE(bucket->setStringValue(WString(L"NAME"), WString(L"v"), status, false));
    EXPECT_FALSE(bucket->isModified());
    EXPECT_EQ(bucket->getModifiedTime(), stamp);

    EXPECT_TRUE(bucket->setStringValue(WString(L"other"), WString(L"v"), status, false));
    EXPECT_TRUE(bucket->isModified());
    EXPECT_FALSE(bucket->getModifiedTime() < stamp);
}

TEST(BucketTest, ValuesThatAreNeverStored) {
    AutoRef<Bucket> bucket = makeBucket(L"/x");
    struct Case {
        const char* what;
        WString name;
        AutoRef<IBucketValue> value;
        int32_t code;
    };
    AutoRef<IBucketValue> number(new BucketValue());
    StatusChain ok = okStatus();
    number->setInt32(1, ok);
    const Case cases[] = {
        {"empty name", WString(), number, status::kEmptyName},
        {"null value", WString(L"a"), AutoRef<IBucketValue>(), status::kNullValue},
        {"unset value", WString(L"a"), AutoRef<IBucketValue>(new BucketValue()),
         status::kWrongType},
    };
    for (const Case& c : cases) {
        StatusChain status = okStatus();
        EXPECT_FALSE(bucket->setValue(c.name, c.value, status, true)) << c.what;
        EXPECT_EQ(status.getCode(), c.code) << c.what;
    }
    StatusChain status = okStatus();
    EXPECT_FALSE(bucket->setInt32Value(WString(), 1, status, true));
    EXPECT_EQ(status.getCode(), status::kEmptyName);
    EXPECT_EQ(bucket->getNumKeys(), 0u);

    // setValue stores a copy: changing the caller's value changes nothing here.
    status.clear();
    EXPECT_TRUE(bucket->setValue(WString(L"n"), number, status, false));
    number->setInt32(2, status);
    EXPECT_EQ(bucket->getValue(WString(L"N"), status)->getInt32(status), 1);
    EXPECT_FALSE(bucket->getValue(WString(L"missing"), status));
    EXPECT_EQ(status.getCode(), 0);
}

TEST(BucketTest, AChangeInvalidatesOpenCursors) {
    Walk walk;
    AutoRef<Bucket>& bucket = walk.bucket;
    StatusChain status = okStatus();
    bucket->setInt32Value(WString(L"c"), 3, status, false);
    EXPECT_FALSE(walk.next(status));
    EXPECT_EQ(status.getCode(), status::kCursorInvalidated);
    // Reported once; the cursor is then at the end.
    StatusChain again = okStatus();
    EXPECT_FALSE(walk.next(again));
    EXPECT_EQ(again.getCode(), 0);

    // A change that stores nothing invalidates nothing.
    ASSERT_TRUE(bucket->getFirstValue(walk.handle, walk.name, walk.value));
    bucket->setInt32Value(WString(L"a"), 1, again, false);
    EXPECT_TRUE(walk.next(again));
    EXPECT_EQ(narrow(walk.name), "b");
    bucket->removeValue(WString(L"b"));
    EXPECT_FALSE(walk.next(again));
    EXPECT_EQ(again.getCode(), status::kCursorInvalidated);
    EXPECT_TRUE(bucket->closeEnumeration(walk.handle));
    EXPECT_FALSE(bucket->closeEnumeration(walk.handle));
}

TEST(BucketTest, UnknownAndZeroHandles) {
    AutoRef<Bucket> bucket = makeBucket(L"/x");
    StatusChain status = okStatus();
    bucket->setInt32Value(WString(L"a"), 1, status, false);
    WString name;
    AutoRef<IBucketValue> value;
    Digest child;
    EXPECT_FALSE(bucket->getNextValue(4711, name, value, status));
    EXPECT_EQ(status.getCode(), status::kUnknownHandle);
    StatusChain childStatus = okStatus();
    EXPECT_FALSE(bucket->getNextChild(4711, child, childStatus));
    EXPECT_EQ(childStatus.getCode(), status::kUnknownHandle);
    StatusChain zero = okStatus();
    EXPECT_FALSE(bucket->getFirstValue(0, name, value));
    EXPECT_FALSE(bucket->getNextValue(0, name, value, zero));
    EXPECT_EQ(zero.getCode(), 0);

    const uint32_t first = bucket->openEnumeration();
    const uint32_t second = bucket->openEnumeration();
    EXPECT_NE(first, 0u);
    EXPECT_NE(first, second);
}

TEST(BucketTest, ChildrenAreDigestValuesThatSurviveDataRemoval) {
    AutoRef<Bucket> root = makeBucket(L"/");
    AutoRef<Bucket> net = makeBucket(L"/Net");
    StatusChain status = okStatus();
    EXPECT_TRUE(root->addChild(WString(L"Net"), status, false));
    EXPECT_TRUE(net->addChild(WString(L"Eth0"), status, false));
    net->setInt32Value(WString(L"mtu"), 1500, status, false);
    net->setInt32Value(WString(L"zz"), 1, status, false);
    EXPECT_EQ(root->getValue(WString(L"/net"), status)->getDigest(status),
              Digest(WString(L"/Net")));

    const uint32_t handle = net->openEnumeration();
    Digest child;
    ASSERT_TRUE(net->getFirstChild(handle, child));
    EXPECT_EQ(child, Digest(WString(L"/Net/Eth0")));
    EXPECT_FALSE(net->getNextChild(handle, child, status));
    EXPECT_EQ(status.getCode(), 0);

    net->removeDataValues();
    EXPECT_EQ(entries(*net).size(), 1u);
    EXPECT_TRUE(net->hasValue(WString(L"/Net/Eth0")));
    EXPECT_TRUE(net->removeValue(WString(L"/NET/ETH0")));
    EXPECT_FALSE(net->removeValue(WString(L"/Net/Eth0")));

    StatusChain empty = okStatus();
    EXPECT_FALSE(net->addChild(WString(), empty, false));
    EXPECT_EQ(empty.getCode(), status::kEmptyName);
}

TEST(BucketTest, UpdateModes) {
    struct Case {
        int32_t mode;
        std::vector<std::string> result;
        int32_t code;
    };
    const Case cases[] = {
        {IBucket::kReplaceAll, {"B=20", "C=30"}, 0},
        {IBucket::kMergeOverwriting, {"A=1", "B=20", "C=30"}, status::kValueReplaced},
        {IBucket::kMergeKeeping, {"A=1", "B=2", "C=30"}, 0},
    };
    for (const Case& c : cases) {
        AutoRef<Bucket> mine = makeBucket(L"/X");
        AutoRef<Bucket> other = makeBucket(L"/x");
        StatusChain status = okStatus();
        mine->setInt32Value(WString(L"A"), 1, status, false);
        mine->setInt32Value(WString(L"B"), 2, status, false);
        other->setInt32Value(WString(L"b"), 20, status, false);
        other->setInt32Value(WString(L"C"), 30, status, false);
        other->setVersion(9);
        status.clear();
        EXPECT_TRUE(mine->update(AutoRef<IBucket>(other.get()), c.mode, status)) << c.mode;
        EXPECT_EQ(status.getCode(), c.code) << c.mode;
        std::vector<std::string> got = entries(*mine);
        for (std::string& entry : got) {
            entry[0] = static_cast<char>(std::toupper(entry[0]));
        }
        EXPECT_EQ(got, c.result) << c.mode;
        EXPECT_EQ(mine->getVersion(), 9u) << c.mode;
        EXPECT_EQ(entries(*other).size(), 2u);
    }
}

// A merge shares the given bucket's values: changing either bucket later
// leaves the other as it was, and a walk open on the given bucket goes on.
TEST(BucketTest, UpdateLeavesTheGivenBucketAlone) {
    AutoRef<Bucket> mine = makeBucket(L"/x");
    Walk walk;
    AutoRef<Bucket>& given = walk.bucket;
    StatusChain status = okStatus();
    EXPECT_TRUE(mine->update(AutoRef<IBucket>(given.get()), IBucket::kMergeOverwriting, status));
    EXPECT_TRUE(walk.next(status));
    EXPECT_EQ(narrow(walk.name), "b");
    EXPECT_EQ(status.getCode(), 0);

    // Into a bucket without values, as a put that replaces a bucket makes.
    AutoRef<Bucket> empty = makeBucket(L"/X");
    EXPECT_TRUE(empty->update(AutoRef<IBucket>(given.get()), IBucket::kMergeOverwriting, status));
    EXPECT_EQ(empty->getVersion(), given->getVersion());

    given->setInt32Value(WString(L"a"), 10, status, true);
    mine->setInt32Value(WString(L"b"), 20, status, true);
    empty->removeValue(WString(L"B"));
    EXPECT_EQ(entries(*mine), (std::vector<std::string>{"a=1", "b=20"}));
    EXPECT_EQ(entries(*given), (std::vector<std::string>{"a=10", "b=2"}));
    EXPECT_EQ(entries(*empty), std::vector<std::string>{"a=1"});
}

TEST(BucketTest, UpdateRefusals) {
    AutoRef<Bucket> mine = makeBucket(L"/x");
    AutoRef<Bucket> stranger = makeBucket(L"/y");
    AutoRef<Bucket> twin = makeBucket(L"/X");
    StatusChain status = okStatus();
    mine->setInt32Value(WString(L"a"), 1, status, false);
    stranger->setInt32Value(WString(L"b"), 1, status, false);
    twin->setInt32Value(WString(L"a"), 5, status, false);
    twin->setVersion(3);

    EXPECT_FALSE(mine->update(AutoRef<IBucket>(stranger.get()), IBucket::kMergeKeeping, status));
    EXPECT_FALSE(mine->update(AutoRef<IBucket>(), IBucket::kMergeKeeping, status));
    EXPECT_FALSE(mine->update(AutoRef<IBucket>(mine.get()), IBucket::kReplaceAll, status));
    EXPECT_EQ(status.getCode(), 0);
    EXPECT_FALSE(mine->update(AutoRef<IBucket>(twin.get()), 4, status));
    EXPECT_EQ(status.getCode(), status::kBadMode);

    // Keeping every conflict stores nothing: no error, version unchanged.
    status.clear();
    EXPECT_FALSE(mine->update(AutoRef<IBucket>(twin.get()), IBucket::kMergeKeeping, status));
    EXPECT_EQ(status.getCode(), 0);
    EXPECT_EQ(mine->getVersion(), 0u);
    EXPECT_EQ(entries(*mine), std::vector<std::string>{"a=1"});
}

TEST(BucketTest, ComparisonIgnoresVersionAndNameCase) {
    AutoRef<Bucket> a = makeBucket(L"/Net");
    AutoRef<Bucket> b = makeBucket(L"/NET");
    StatusChain status = okStatus();
    a->setInt32Value(WString(L"x"), 1, status, false);
    b->setInt32Value(WString(L"X"), 1, status, false);
    b->setVersion(4);
    EXPECT_TRUE(a->isEqual(AutoRef<IBucket>(a.get()), AutoRef<IBucket>(b.get())));
    b->setInt32Value(WString(L"x"), 2, status, true);
    EXPECT_FALSE(a->isEqual(AutoRef<IBucket>(a.get()), AutoRef<IBucket>(b.get())));
    EXPECT_TRUE(a->isEqual(AutoRef<IBucket>(), AutoRef<IBucket>()));
}

TEST(BucketTest, MemoryUse) {
    EXPECT_EQ(Bucket().getMemUsage(), 228u);
    AutoRef<Bucket> bucket = makeBucket(L"/ab");
    const uint32_t named = 228 + 4 * 3 + 4 * 2;
    EXPECT_EQ(bucket->getMemUsage(), named);
    StatusChain status = okStatus();
    bucket->setInt32Value(WString(L"xyz"), 1, status, false);
    EXPECT_EQ(bucket->getMemUsage(), named + 12 + 4 * 3 + 32);
    bucket->getFileName();  // the third name string
    EXPECT_GE(bucket->getMemUsage(), named + 12 + 4 * 3 + 32 + 4 * 71);

    // The weight is kept as the values change, not walked again: after
    // replacements, removals and a child link it is what a bucket built
    // with the end result weighs.
    bucket->setStringValue(WString(L"XYZ"), WString(L"longer text"), status, true);
    bucket->setInt32Value(WString(L"gone"), 2, status, false);
    bucket->addChild(WString(L"c"), status, true);
    bucket->removeValue(WString(L"gone"));
    AutoRef<Bucket> built = makeBucket(L"/ab");
    built->getFileName();
    built->setStringValue(WString(L"XYZ"), WString(L"longer text"), status, false);
    built->addChild(WString(L"c"), status, true);
    EXPECT_EQ(bucket->getMemUsage(), built->getMemUsage());
    bucket->removeDataValues();
    built->removeValue(WString(L"XYZ"));
    EXPECT_EQ(bucket->getMemUsage(), built->getMemUsage());
    EXPECT_TRUE(status.isNotFatal());
}

TEST(BucketTest, Dumps) {
    AutoRef<Bucket> bucket = makeBucket(L"/Net");
    StatusChain status = okStatus();
    bucket->setInt32Value(WString(L"Speed"), 5, status, false);
    bucket->setAnsiStringValue(WString(L"mode"), NString("auto"), status, false);
    const std::string digest = hex(Digest(WString(L"/Net")));
    EXPECT_EQ(narrow(bucket->toString()),
              "\r\n===================================================\r\n"
              "fullName_       /Net\r\n"
              "shortName_      Net\r\n"
              "digest_         " +
                  digest +
                  "\r\n"
                  "persistentFlag_ true\r\n"
                  "version_        0\r\n"
                  "modified_       true\r\n"
                  "numKeys         2\r\n"
                  "[0] mode = auto\r\n"
                  "[1] Speed = 5\r\n");

    testing::internal::CaptureStdout();
    bucket->print();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\r\n"
              "fullName_       /Net\r\n"
              "shorName_       Net\r\n"
              "digest_         " +
                  digest +
                  "\r\n"
                  "parent_         " +
                  hex(Digest(WString(L"/"))) +
                  "\r\n"
                  "fileName_       \r\n"
                  "persistentFlag_ true\r\n"
                  "version_        0\r\n"
                  "modified_       true\r\n"
                  "numKeys         2\r\n"
                  "[0] mode = auto\r\n"
                  "[1] Speed = 5\r\n");
}

TEST(BucketTest, DamagedRecordLeavesTheBucketAsItWas) {
    AutoRef<Bucket> bucket = makeBucket(L"/keep");
    StatusChain status = okStatus();
    bucket->setInt32Value(WString(L"a"), 1, status, false);
    const Bytes damaged = Bytes().u32(1).u32(0).u32(2).text("/z").u32(0x10000000);
    const unsigned char* cursor = damaged.data.data();
    EXPECT_THROW(bucket->deserialize(cursor, cursor + damaged.data.size()),
                 kel::exception::DeserializationError);
    EXPECT_EQ(narrow(bucket->getFullName()), "/keep");
    EXPECT_EQ(entries(*bucket), std::vector<std::string>{"a=1"});
}

// Writers, readers and enumerators on one bucket at once: nothing is lost and
// the sanitizer build sees no bad access.
TEST(BucketTest, ConcurrentUseOfOneBucket) {
    AutoRef<Bucket> bucket = makeBucket(L"/shared");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&bucket, t] {
            StatusChain status = okStatus();
            for (int i = 0; i < 200; ++i) {
                WString name(L"v");
                name += WString::fromInt(t * 1000 + i);
                bucket->setInt32Value(name, i, status, false);
                EXPECT_EQ(bucket->getValue(name, status)->getInt32(status), i);
                if (i % 50 == 0) {
                    // Other threads' changes may end the walk with a warning.
                    const uint32_t handle = bucket->openEnumeration();
                    WString seen;
                    AutoRef<IBucketValue> value;
                    StatusChain walk = okStatus();
                    for (bool more = bucket->getFirstValue(handle, seen, value); more;
                         more = bucket->getNextValue(handle, seen, value, walk)) {
                    }
                    EXPECT_TRUE(walk.getCode() == 0 ||
                                walk.getCode() == status::kCursorInvalidated);
                    bucket->closeEnumeration(handle);
                    bucket->getMemUsage();
                    try {
                        test::recordOf(*bucket);
                    } catch (const kel::exception::BufferOverflow&) {
                        // It grew between sizing and writing: refused, not overrun.
                    }
                }
            }
            EXPECT_EQ(status.getCode(), 0);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(bucket->getNumKeys(), 800u);
}

// Copies share their values until one side changes: a change on either side
// is never seen by the other, and leaves the other's cursors alone.
TEST(BucketTest, CopiesChangeIndependently) {
    AutoRef<Bucket> original = makeBucket(L"/x");
    StatusChain status = okStatus();
    original->setInt32Value(WString(L"a"), 1, status, false);
    original->setInt32Value(WString(L"b"), 2, status, false);
    EXPECT_TRUE(original->addChild(WString(L"c"), status, false));
    const uint32_t handle = original->openEnumeration();
    WString name;
    AutoRef<IBucketValue> value;
    ASSERT_TRUE(original->getFirstValue(handle, name, value));

    AutoRef<Bucket> copy(new Bucket(*original));
    copy->setInt32Value(WString(L"a"), 10, status, true);
    copy->removeValue(WString(L"b"));
    EXPECT_TRUE(original->getNextValue(handle, name, value, status));
    EXPECT_EQ(narrow(name), "a");
    EXPECT_TRUE(status.isNotFatal());
    EXPECT_EQ(entries(*original).size(), 3u);
    EXPECT_EQ(original->getValue(WString(L"a"), status)->getInt32(status), 1);
    EXPECT_EQ(entries(*copy).size(), 2u);

    AutoRef<Bucket> second(new Bucket(*original));
    AutoRef<Bucket> third(new Bucket(*original));
    second->removeDataValues();
    third->removeAllValues();
    original->setInt32Value(WString(L"b"), 20, status, true);
    EXPECT_EQ(entries(*second).size(), 1u);
    EXPECT_EQ(entries(*third).size(), 0u);
    EXPECT_EQ(second->getNumKeys(), 1u);
    EXPECT_EQ(copy->getValue(WString(L"a"), status)->getInt32(status), 10);
    EXPECT_FALSE(copy->hasValue(WString(L"b")));
    EXPECT_EQ(original->getValue(WString(L"b"), status)->getInt32(status), 20);
    EXPECT_TRUE(status.isNotFatal());
}

// Copies of one bucket changed on several threads at once, while the source
// is copied again: the sanitizer build sees no shared write.
TEST(BucketTest, ConcurrentChangesOfCopies) {
    AutoRef<Bucket> source = makeBucket(L"/shared");
    StatusChain status = okStatus();
    for (int i = 0; i < 20; ++i) {
        WString name(L"v");
        name += WString::fromInt(i);
        source->setInt32Value(name, i, status, false);
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&source, t] {
            StatusChain local = okStatus();
            for (int i = 0; i < 100; ++i) {
                AutoRef<Bucket> copy(new Bucket(*source));
                AutoRef<Bucket> again(new Bucket(*copy));
                copy->setInt32Value(WString(L"v1"), t * 1000 + i, local, true);
                again->removeValue(WString(L"v2"));
                EXPECT_EQ(again->getValue(WString(L"v1"), local)->getInt32(local), 1);
                EXPECT_EQ(copy->getNumKeys(), 20u);
            }
            EXPECT_TRUE(local.isNotFatal());
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(source->getNumKeys(), 20u);
}

}  // namespace
}  // namespace orvane
}  // namespace zq
