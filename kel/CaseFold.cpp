#include "kel/CaseFold.h"

namespace zq {
namespace kel {

namespace {

using casetable::CaseRun;

wchar_t mapThrough(const CaseRun* runs, size_t count, wchar_t ch) {
    // wchar_t is signed on some targets and unsigned on others (32-bit ARM):
    // compare as unsigned so that both treat a negative value as unmapped.
    const auto code = static_cast<uint32_t>(ch);
    size_t low = 0;
    size_t high = count;
    while (low < high) {
        const size_t mid = low + (high - low) / 2;
        if (runs[mid].first <= code) {
            low = mid + 1;
        } else {
            high = mid;
        }
    }
    if (low == 0) {
        return ch;
    }
    const CaseRun& run = runs[low - 1];
    uint32_t offset = code - run.first;
    if (run.alternate) {
        if (offset % 2 != 0) {
            return ch;
        }
        offset /= 2;
    }
    if (offset >= run.count) {
        return ch;
    }
    return static_cast<wchar_t>(static_cast<int32_t>(code) + run.delta);
}

}  // namespace

wchar_t foldLowerTable(wchar_t ch) {
    return mapThrough(casetable::kLower, casetable::kLowerCount, ch);
}

wchar_t foldUpperTable(wchar_t ch) {
    return mapThrough(casetable::kUpper, casetable::kUpperCount, ch);
}

}  // namespace kel
}  // namespace zq
