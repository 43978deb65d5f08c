#include "source/Sha256.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zq {
namespace orvane {
namespace {

std::string hex(const unsigned char* bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < Sha256::kDigestSize; ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 15];
    }
    return out;
}

std::string hashOf(const std::string& message) {
    unsigned char out[Sha256::kDigestSize];
    Sha256::hash(message.data(), message.size(), out);
    return hex(out);
}

// Fed in pieces of `step` bytes, to exercise the partial-block buffer.
std::string hashInSteps(const std::string& message, size_t step) {
    Sha256 sha;
    for (size_t at = 0; at < message.size(); at += step) {
        sha.update(message.data() + at, std::min(step, message.size() - at));
    }
    unsigned char out[Sha256::kDigestSize];
    sha.finish(out);
    return hex(out);
}

TEST(Sha256Test, StandardExamples) {
    EXPECT_EQ(hashOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(hashOf("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(hashOf(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    // finish() starts the next message afresh.
    Sha256 sha;
    unsigned char out[Sha256::kDigestSize];
    sha.update("xyz", 3);
    sha.finish(out);
    sha.update("abc", 3);
    sha.finish(out);
    EXPECT_EQ(hex(out), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Sha256Test, OneMillionA) {
    const std::string million(1000000, 'a');
    const std::string expected = "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";
    EXPECT_EQ(hashOf(million), expected);
    EXPECT_EQ(hashInSteps(million, 1000), expected);
    EXPECT_EQ(hashInSteps(million, 37), expected);
}

// Lengths around the padding boundary: 55 bytes fit one final block, 56 need
// an extra one.
TEST(Sha256Test, PaddingBoundaries) {
    const std::pair<size_t, const char*> cases[] = {
        {55, "9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318"},
        {56, "b35439a4ac6f0948b6d6f9e3c6af0f5f590ce20f1bde7090ef7970686ec6738a"},
        {63, "7d3e74a05d7db15bce4ad9ec0658ea98e3f06eeecf16b4c6fff2da457ddc2f34"},
        {64, "ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb"},
        {119, "31eba51c313a5c08226adf18d4a359cfdfd8d2e816b13f4af952f7ea6584dcfb"},
        {120, "2f3d335432c70b580af0e8e1b3674a7c020d683aa5f73aaaedfdc55af904c21c"},
    };
    for (const auto& [length, expected] : cases) {
        const std::string message(length, 'a');
        EXPECT_EQ(hashOf(message), expected) << length;
        for (size_t step : {1, 7, 63, 65}) {
            EXPECT_EQ(hashInSteps(message, step), expected) << length << " in steps of " << step;
        }
    }
}

// The processor's SHA instructions and the portable rounds must agree on
// every length, whichever this machine uses by default.
TEST(Sha256Test, PortableAndHardwareRoundsAgree) {
    std::string message;
    for (int i = 0; i < 300; ++i) {
        message += static_cast<char>((i * 131 + 7) & 0xFF);
    }
    std::vector<std::string> portable;
    Sha256::useHardware(false);
    EXPECT_EQ(hashOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    for (size_t length = 0; length <= message.size(); ++length) {
        portable.push_back(hashOf(message.substr(0, length)));
    }
    if (!Sha256::useHardware(true)) {
        GTEST_SKIP() << "no SHA instructions on this processor";
    }
    for (size_t length = 0; length <= message.size(); ++length) {
        EXPECT_EQ(hashOf(message.substr(0, length)), portable[length]) << length;
        EXPECT_EQ(hashInSteps(message.substr(0, length), 29), portable[length]) << length;
    }
}

}  // namespace
}  // namespace orvane
}  // namespace zq
