// The C++ layer's reads: every type back as written, missing is empty and
// not an error, and each mistake a code of its own, never a crash.
#include <zq/orvane/Registry.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/RegistryRoot.h"

namespace {

using zq::orvane::AnsiString;
using zq::orvane::Blob;
using zq::orvane::make_error_code;
using zq::orvane::Parents;
using zq::orvane::Registry;
using zq::orvane::RegistryError;
using zq::orvane::Transaction;
using zq::orvane::Value;
namespace st = zq::orvane::status;

using Sample = std::pair<std::string, Value>;

// One value of every type, the awkward ones included: an ANSI string that
// is not UTF-8, a string beyond the BMP, empty blobs and arrays.
std::vector<Sample> everyType() {
    return {
        {"digest", zq::orvane::Digest(zq::kel::WString(L"/pump"))},
        {"ansi", AnsiString{"caf\xe9"}},
        {"text", std::string("Gr\xc3\xbc\xc3\x9f"
                             "e \xf0\x9f\x94\xa7")},
        {"blob", Blob{std::byte{0}, std::byte{0xff}, std::byte{7}}},
        {"bool", true},
        {"int8", int8_t{-8}},
        {"uint8", uint8_t{200}},
        {"int16", int16_t{-1600}},
        {"uint16", uint16_t{60000}},
        {"int32", int32_t{-320000}},
        {"uint32", uint32_t{4000000000u}},
        {"int64", int64_t{-(int64_t{1} << 40)}},
        {"uint64", uint64_t{1} << 63},
        {"float32", 1.5f},
        {"float64", -2.25},
        {"ansis", std::vector<AnsiString>{{"a"}, {""}, {"\xff"}}},
        {"texts", std::vector<std::string>{"\xc3\xa4", ""}},
        {"bools", std::vector<bool>{true, false, true}},
        {"int8s", std::vector<int8_t>{-1, 2}},
        {"uint8s", std::vector<uint8_t>{255, 0}},
        {"int16s", std::vector<int16_t>{-300}},
        {"uint16s", std::vector<uint16_t>{65535}},
        {"int32s", std::vector<int32_t>{}},
        {"uint32s", std::vector<uint32_t>{1, 2, 3}},
        {"int64s", std::vector<int64_t>{INT64_MIN}},
        {"uint64s", std::vector<uint64_t>{UINT64_MAX}},
        {"float32s", std::vector<float>{0.25f, -0.0f}},
        {"float64s", std::vector<double>{1e300}},
        {"emptyblob", Blob{}},
    };
}

class RegistryTest : public testing::Test {
  protected:
    void SetUp() override { registry_ = Registry::open(root_.file("reg")); }

    void store(const std::vector<Sample>& samples, const std::string& path = "/all") {
        registry_.transact([&](Transaction& tx) {
            for (const Sample& sample : samples) {
                tx.set(path, sample.first, sample.second, Parents::create);
            }
        });
    }

    zq::test::RegistryRoot root_;
    Registry registry_;
};

TEST_F(RegistryTest, EveryTypeReadsBackAsWritten) {
    const std::vector<Sample> samples = everyType();
    std::set<size_t> tags;
    for (const Sample& sample : samples)
        tags.insert(sample.second.index());
    ASSERT_EQ(tags.size() + 1, zq::orvane::kValueTypeCount);  // all but kNOTSET
    store(samples);

    for (const Sample& sample : samples) {
        EXPECT_EQ(registry_.value("/all", sample.first), sample.second) << sample.first;
        std::visit(
            [&](const auto& expected) {
                using T = std::decay_t<decltype(expected)>;
                EXPECT_TRUE(registry_.get<T>("/all", sample.first) == expected) << sample.first;
            },
            sample.second);
    }
    const zq::orvane::ValueMap map = registry_.bucket("/all").value();
    EXPECT_EQ(map, zq::orvane::ValueMap(samples.begin(), samples.end()));
    const auto byName = [](const Sample& a, const Sample& b) { return a.first < b.first; };
    std::vector<Sample> listed = registry_.values("/all");
    std::sort(listed.begin(), listed.end(), byName);
    std::vector<Sample> sorted = samples;
    std::sort(sorted.begin(), sorted.end(), byName);
    EXPECT_EQ(listed, sorted);
}

TEST_F(RegistryTest, WhatIsMissingIsEmptyAndNotAnError) {
    store({{"speed", int32_t{1450}}}, "/pump");
    std::error_code ec;
    EXPECT_EQ(registry_.get<int32_t>("/nothing", "speed", ec), std::nullopt);
    EXPECT_FALSE(ec);
    EXPECT_EQ(registry_.get<int32_t>("/pump", "nothing", ec), std::nullopt);
    EXPECT_FALSE(ec);
    EXPECT_EQ(registry_.get_or("/pump", "nothing", int32_t{7}), 7);
    EXPECT_EQ(registry_.get_or("/pump", "speed", int32_t{7}), 1450);
    EXPECT_EQ(registry_.get_or("/pump", "label", "none"), "none");
    EXPECT_FALSE(registry_.exists("/nothing"));
    EXPECT_TRUE(registry_.exists("/PUMP"));  // names fold
    EXPECT_EQ(registry_.bucket("/nothing"), std::nullopt);
    EXPECT_TRUE(registry_.values("/nothing").empty());
    EXPECT_TRUE(registry_.children("/nothing").empty());
}

TEST_F(RegistryTest, AValueOfAnotherTypeIsAnErrorNeverAConversion) {
    store({{"speed", int32_t{1450}}}, "/pump");
    std::error_code ec;
    EXPECT_EQ(registry_.get<int64_t>("/pump", "speed", ec), std::nullopt);
    EXPECT_EQ(ec, make_error_code(st::kWrongType));
    EXPECT_EQ(registry_.get_or("/pump", "speed", 1.0, ec), 1.0);
    EXPECT_EQ(ec, make_error_code(st::kWrongType));
    try {
        registry_.get<std::string>("/pump", "speed");
        ADD_FAILURE() << "no throw";
    } catch (const RegistryError& e) {
        EXPECT_EQ(e.code(), make_error_code(st::kWrongType));
        EXPECT_NE(std::string(e.what()).find("the value does not hold that type"),
                  std::string::npos);
    }
}

// Each mistake gives its own code through the std::error_code overloads,
// which never throw.
TEST_F(RegistryTest, BadTextAndBadPathsAreCodes) {
    const std::string notUtf8 = "a\xff";
    struct Case {
        std::string path;
        std::string name;
        int32_t code;
    } cases[] = {
        {"/" + notUtf8, "v", st::kKelInvalidSequence},
        {"/pump", notUtf8, st::kKelInvalidSequence},
        {"/pump", std::string("\xc3"), st::kKelInvalidSequence},  // cut short
        {"pump", "v", st::kBadBucketName},
        {"/a//b", "v", st::kBadBucketName},
        {"/a/", "v", st::kBadBucketName},
    };
    for (const Case& c : cases) {
        std::error_code ec;
        EXPECT_EQ(registry_.value(c.path, c.name, ec), std::nullopt);
        EXPECT_EQ(ec, make_error_code(c.code)) << c.path << " " << c.name;
        Transaction tx(registry_);
        EXPECT_FALSE(tx.set(c.path, c.name, int32_t{1}));
        tx.commit(ec);
        EXPECT_EQ(ec, make_error_code(c.code)) << c.path << " " << c.name;
    }
    std::error_code ec;
    registry_.transact([&](Transaction& tx) { tx.set("/pump", "label", "ok" + notUtf8); }, ec);
    EXPECT_EQ(ec, make_error_code(st::kKelInvalidSequence));
    EXPECT_FALSE(registry_.exists("/pump"));
}

TEST_F(RegistryTest, ChildrenAreNamesAndNeverValues) {
    store({{"mtu", uint16_t{1500}}}, "/net/eth0");
    store({{"mtu", uint16_t{9000}}}, "/net/eth1");
    store({{"hostname", "box"}}, "/net");
    std::vector<std::string> children = registry_.children("/net");
    std::sort(children.begin(), children.end());
    EXPECT_EQ(children, (std::vector<std::string>{"eth0", "eth1"}));
    EXPECT_EQ(registry_.children("/"), std::vector<std::string>{"net"});
    const std::vector<Sample> values = registry_.values("/net");
    ASSERT_EQ(values.size(), 1u);
    EXPECT_EQ(values[0], Sample("hostname", std::string("box")));
    EXPECT_EQ(registry_.bucket("/net")->size(), 1u);
}

TEST_F(RegistryTest, LiteralsKeepTheirObviousType) {
    registry_.transact([](Transaction& tx) {
        tx.set("/pump", "label", "Feed pump");
        tx.set("/pump", "zero", 0);
        tx.set("/pump", "none", int32_t{0});
    });
    EXPECT_EQ(registry_.get<std::string>("/pump", "label"), "Feed pump");
    EXPECT_EQ(registry_.get<int32_t>("/pump", "zero"), 0);
    EXPECT_EQ(registry_.get<int32_t>("/pump", "none"), 0);
}

TEST_F(RegistryTest, MovedRegistryKeepsWorkingAndTheOldOneIsClosed) {
    store({{"speed", int32_t{1}}}, "/pump");
    Registry moved = std::move(registry_);
    EXPECT_EQ(moved.get<int32_t>("/pump", "speed"), 1);
    EXPECT_FALSE(registry_.is_open());  // NOLINT(bugprone-use-after-move): the point
    std::error_code ec;
    EXPECT_EQ(registry_.get<int32_t>("/pump", "speed", ec), std::nullopt);
    EXPECT_EQ(ec, make_error_code(st::kStoreNotOpen));
    EXPECT_FALSE(Transaction(registry_).active());
}

TEST(RegistryErrorTest, CodesReadAsTheToolPrintsThem) {
    const std::error_code ec = make_error_code(st::kReadOnly);
    EXPECT_STREQ(ec.category().name(), "orvane");
    EXPECT_EQ(ec.message(), zq::orvane::status::describe(st::kReadOnly));
    EXPECT_EQ(make_error_code(st::kKelInvalidSequence).message(), "a text is not valid UTF-8");
    EXPECT_EQ(make_error_code(12345).message(), "unknown status code");
}

// A process has one manager; a second open says so, adopting shares it.
TEST(RegistryOpenTest, ASecondOpenIsRefusedAndAdoptingShares) {
    zq::test::RegistryRoot root;
    std::error_code ec;
    Registry first = Registry::open(root.file("reg"), zq::orvane::Access::read_write, ec);
    ASSERT_FALSE(ec);
    EXPECT_FALSE(first.read_only());
    Registry second = Registry::open(root.file("reg"), zq::orvane::Access::read_write, ec);
    EXPECT_EQ(ec, make_error_code(st::kManagerExists));
    EXPECT_FALSE(second.is_open());
    EXPECT_THROW(Registry::open(root.file("reg")), RegistryError);

    Registry shared =
        Registry::adopt(zq::kel::AutoRef<zq::orvane::IBucketManager>(first.manager()));
    shared.transact([](Transaction& tx) { tx.set("/a", "v", int32_t{3}); });
    EXPECT_EQ(first.get<int32_t>("/a", "v"), 3);
}

}  // namespace
