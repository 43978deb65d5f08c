#include "source/RegistryText.h"

#include <memory>

#include "kel/Utf8.h"
#include "zq/kel/Exception.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {

namespace {

// Most names fit here, sparing an allocation on every lookup.
constexpr size_t kStackCharacters = 128;

}  // namespace

bool RegistryText::toWide(std::string_view text, kel::WString& out, kel::StatusChain& status) {
    const auto* begin = reinterpret_cast<const unsigned char*>(text.data());
    const auto* end = begin + text.size();
    // Names are mostly ASCII: one pass, no decoding.
    if (text.size() <= kStackCharacters) {
        wchar_t onStack[kStackCharacters];
        unsigned char all = 0;
        for (size_t i = 0; i < text.size(); ++i) {
            all |= begin[i];
            onStack[i] = static_cast<wchar_t>(begin[i]);
        }
        if (all < 0x80) {
            out = kel::WString(onStack, text.size());
            return true;
        }
    }
    size_t count = 0;
    try {
        count = kel::utf8::countCharacters(begin, end);
    } catch (const kel::exception::InvalidSequence&) {
        status.setCode(status::kKelInvalidSequence);
        return false;
    }
    wchar_t onStack[kStackCharacters];
    std::unique_ptr<wchar_t[]> onHeap;
    wchar_t* wide = onStack;
    if (count > kStackCharacters) {
        onHeap.reset(new wchar_t[count]);
        wide = onHeap.get();
    }
    kel::utf8::decodeText(begin, end, wide);
    out = kel::WString(wide, count);
    return true;
}

std::string RegistryText::toUtf8(const kel::WString& text) {
    std::string out(kel::utf8::measure(text.c_str(), text.length()), '\0');
    kel::utf8::encodeText(text.c_str(), text.length(), reinterpret_cast<unsigned char*>(&out[0]));
    return out;
}

}  // namespace orvane
}  // namespace zq
