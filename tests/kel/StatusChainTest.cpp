#include "zq/kel/StatusChain.h"

#include <gtest/gtest.h>

#include <vector>

#include "zq/kel/Exception.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace kel {
namespace {

namespace st = orvane::status;
constexpr int32_t kUnset = StatusChain::kNotCompleted;

StatusChain withCode(int32_t code, const wchar_t* message = nullptr) {
    StatusChain s;
    s.setCode(code);
    if (message != nullptr) {
        s.setMessage(WString(message));
    }
    return s;
}

TEST(StatusChainTest, NewStatusIsNotCompletedAndFatal) {
    StatusChain s;
    EXPECT_EQ(s.getCode(), -2147467259);
    EXPECT_TRUE(s.isFatal());
    EXPECT_FALSE(s.isNotFatal());
    EXPECT_FALSE(s.hasCode());
    EXPECT_EQ(s.getMessage(), nullptr);
    EXPECT_EQ(s.getChainLength(), 0u);
    // Merged in, "not completed" is negative, so it wins like any error.
    StatusChain warned = withCode(st::kValueReplaced);
    warned.merge(s);
    EXPECT_EQ(warned.getCode(), kUnset);
}

TEST(StatusChainTest, SetCodeOverwritesAnythingAndDropsOnlyTheMessage) {
    StatusChain s = withCode(st::kFileSystem, L"disk gone");
    s.appendToChain(st::kNoData, nullptr);
    s.setCode(st::kUnexpected);
    EXPECT_EQ(s.getCode(), -314510);
    EXPECT_EQ(s.getMessage(), nullptr);
    EXPECT_EQ(s.getChainLength(), 1u);
    s.setCode(0);
    EXPECT_EQ(s.getCode(), 0);
    EXPECT_FALSE(s.hasCode());
    EXPECT_TRUE(s.isNotFatal());
    s.setCode(st::kValueReplaced);
    EXPECT_TRUE(s.hasCode());
    EXPECT_TRUE(s.isNotFatal());
}

TEST(StatusChainTest, ClearAndBeginCallDropChainAndMessage) {
    StatusChain s = withCode(st::kNoParent, L"why");
    s.appendToChain(st::kNoData, nullptr);
    s.clear();
    EXPECT_EQ(s.getCode(), 0);
    EXPECT_EQ(s.getMessage(), nullptr);
    EXPECT_EQ(s.getChainLength(), 0u);

    s = withCode(st::kNoParent, L"why");
    s.appendToChain(st::kNoData, nullptr);
    s.beginCall();
    EXPECT_EQ(s.getCode(), kUnset);
    EXPECT_EQ(s.getMessage(), nullptr);
    EXPECT_EQ(s.getChainLength(), 0u);
}

struct MergeCase {
    int32_t held;
    int32_t incoming;
    int32_t expected;
};

class StatusChainMergeTest : public testing::TestWithParam<MergeCase> {};

TEST_P(StatusChainMergeTest, FollowsTheMergeRule) {
    const MergeCase c = GetParam();
    StatusChain held = c.held == kUnset ? StatusChain() : withCode(c.held, L"held");
    StatusChain incoming = withCode(c.incoming, L"incoming");
    incoming.appendToChain(st::kNoData, nullptr);
    held.merge(incoming);
    EXPECT_EQ(held.getCode(), c.expected);
    const bool tookOver = c.expected == c.incoming && c.held != c.incoming;
    ASSERT_NE(held.getMessage(), nullptr);
    EXPECT_EQ(*held.getMessage(), WString(tookOver ? L"incoming" : L"held"));
    EXPECT_EQ(held.getChainLength(), tookOver ? 1u : 0u);
}

constexpr int32_t kErrorA = st::kFileSystem;
constexpr int32_t kErrorB = st::kNoParent;
constexpr int32_t kWarnA = st::kValueReplaced;
constexpr int32_t kWarnB = st::kCursorInvalidated;

INSTANTIATE_TEST_SUITE_P(AllPairs, StatusChainMergeTest,
                         testing::Values(
                             // An unset status takes anything, success included.
                             MergeCase{kUnset, 0, 0}, MergeCase{kUnset, kWarnA, kWarnA},
                             MergeCase{kUnset, kErrorA, kErrorA},
                             // An error always wins.
                             MergeCase{0, kErrorA, kErrorA}, MergeCase{kWarnA, kErrorA, kErrorA},
                             MergeCase{kErrorA, kErrorB, kErrorB},
                             // A warning replaces a success or a warning, never an error.
                             MergeCase{0, kWarnA, kWarnA}, MergeCase{kWarnA, kWarnB, kWarnB},
                             MergeCase{kErrorA, kWarnA, kErrorA},
                             // A success replaces nothing.
                             MergeCase{kWarnA, 0, kWarnA}, MergeCase{kErrorA, 0, kErrorA},
                             // Equal codes keep what is held, message included.
                             MergeCase{kErrorA, kErrorA, kErrorA},
                             MergeCase{kWarnA, kWarnA, kWarnA}, MergeCase{0, 0, 0}));

TEST(StatusChainTest, CopyIsDeep) {
    StatusChain a = withCode(kErrorA, L"text");
    a.appendToChain(kWarnA, nullptr);
    StatusChain b(a);
    a.setMessage(WString(L"changed"));
    a.clear();
    EXPECT_EQ(b.getCode(), kErrorA);
    ASSERT_NE(b.getMessage(), nullptr);
    EXPECT_EQ(*b.getMessage(), WString(L"text"));
    int32_t code = 0;
    const WString* message = nullptr;
    ASSERT_TRUE(b.getChainEntry(0, code, message));
    EXPECT_EQ(code, kWarnA);
    EXPECT_EQ(message, nullptr);
    EXPECT_FALSE(b.getChainEntry(1, code, message));
}

TEST(StatusChainTest, SerialisedFormIsCodeThenStoredMessage) {
    StatusChain s = withCode(st::kFileSystem, L"\u00e9");
    std::vector<unsigned char> buffer(s.serializationSize());
    unsigned char* cursor = buffer.data();
    s.serialize(cursor, buffer.data() + buffer.size());
    EXPECT_EQ(cursor, buffer.data() + buffer.size());
    EXPECT_EQ(buffer, (std::vector<unsigned char>{0x73, 0x33, 0xFB, 0xFF, 2, 0, 0, 0, 0xC3, 0xA9}));

    StatusChain plain = withCode(st::kValueReplaced);
    std::vector<unsigned char> bytes(8);
    cursor = bytes.data();
    plain.serialize(cursor, bytes.data() + bytes.size());
    EXPECT_EQ(bytes, (std::vector<unsigned char>{0x87, 0xCC, 0x04, 0x00, 0, 0, 0, 0}));

    // One byte short: refused before anything is written.
    std::vector<unsigned char> space(buffer.size() - 1, 0xEE);
    cursor = space.data();
    EXPECT_THROW(s.serialize(cursor, space.data() + space.size()), exception::BufferOverflow);
    EXPECT_EQ(cursor, space.data());
    EXPECT_EQ(space, std::vector<unsigned char>(buffer.size() - 1, 0xEE));
}

TEST(StatusChainTest, DeserializeReadsCodeAndMessageKeepsChainAndRefusesShortInput) {
    StatusChain source = withCode(st::kNoParent, L"parent \u00fc");
    std::vector<unsigned char> buffer(source.serializationSize());
    unsigned char* out = buffer.data();
    source.serialize(out, buffer.data() + buffer.size());

    StatusChain target = withCode(kWarnA);
    target.appendToChain(kErrorA, nullptr);
    const unsigned char* in = buffer.data();
    target.deserialize(in, buffer.data() + buffer.size());
    EXPECT_EQ(in, buffer.data() + buffer.size());
    EXPECT_EQ(target.getCode(), st::kNoParent);
    ASSERT_NE(target.getMessage(), nullptr);
    EXPECT_EQ(*target.getMessage(), WString(L"parent \u00fc"));
    EXPECT_EQ(target.getChainLength(), 1u);

    // Cut in the code, the length or the message: refused, nothing changed.
    for (const size_t cut : {size_t{3}, size_t{6}, buffer.size() - 1}) {
        StatusChain kept = withCode(kWarnA, L"kept");
        in = buffer.data();
        EXPECT_THROW(kept.deserialize(in, buffer.data() + cut), exception::DeserializationError);
        EXPECT_EQ(in, buffer.data());
        EXPECT_EQ(kept.getCode(), kWarnA);
        ASSERT_NE(kept.getMessage(), nullptr);
    }

    // A zero length drops the message that was held.
    const unsigned char noMessage[] = {0, 0, 0, 0, 0, 0, 0, 0};
    in = noMessage;
    target.deserialize(in, noMessage + sizeof noMessage);
    EXPECT_EQ(target.getCode(), 0);
    EXPECT_EQ(target.getMessage(), nullptr);
    EXPECT_EQ(in, noMessage + 8);
}

}  // namespace
}  // namespace kel
}  // namespace zq
