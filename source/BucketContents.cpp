#include "source/BucketContents.h"

#include <algorithm>
#include <cstring>
#include <cwctype>
#include <iterator>
#include <utility>

#include "kel/Memory.h"

namespace zq {
namespace orvane {

using kel::WString;

FoldedName::FoldedName(const WString& name) : text_(inline_), length_(name.length()) {
    if (length_ > kInline) {
        text_ = static_cast<wchar_t*>(kel::allocateArray(length_, sizeof(wchar_t)));
    }
    const wchar_t* in = name.c_str();
    for (size_t i = 0; i < length_; ++i) {
        text_[i] = static_cast<wchar_t>(std::towupper(static_cast<wint_t>(in[i])));
    }
}

FoldedName::FoldedName(const FoldedName& other) : text_(inline_), length_(other.length_) {
    if (length_ > kInline) {
        text_ = static_cast<wchar_t*>(kel::allocateArray(length_, sizeof(wchar_t)));
    }
    std::memcpy(text_, other.text_, length_ * sizeof(wchar_t));
}

FoldedName::FoldedName(FoldedName&& other) noexcept
    : text_(other.text_ == other.inline_ ? inline_ : other.text_), length_(other.length_) {
    if (text_ == inline_) {
        std::memcpy(inline_, other.inline_, length_ * sizeof(wchar_t));
    } else {
        other.text_ = other.inline_;
        other.length_ = 0;
    }
}

FoldedName::~FoldedName() {
    if (text_ != inline_) {
        kel::deallocate(text_);
    }
}

bool FoldedOrder::operator()(const FoldedName& a, const FoldedName& b) const {
    const size_t common = a.length() < b.length() ? a.length() : b.length();
    const wchar_t* x = a.text();
    const wchar_t* y = b.text();
    for (size_t i = 0; i < common; ++i) {
        if (x[i] != y[i]) {
            return x[i] < y[i];
        }
    }
    return a.length() < b.length();
}

BucketContents::BucketContents() : values_(std::make_shared<ValueMap>()), nextHandle_(1) {}

BucketContents::BucketContents(const BucketContents& other)
    : values_(other.values_), shared_(true), nextHandle_(1) {
    other.shared_ = true;
}

BucketContents::ValueMap& BucketContents::own() {
    if (shared_) {
        values_ = std::make_shared<ValueMap>(*values_);
        shared_ = false;
    }
    invalidateCursors();
    return *values_;
}

// Every copy is made before the map changes, so running out of memory loses
// nothing.
BucketContents::Outcome BucketContents::store(const WString& name,
                                              const kel::AutoRef<BucketValue>& value,
                                              bool replace) {
    FoldedName folded(name);
    // Records list their values in this order, so the end is the usual place.
    const bool last = values_->empty() || FoldedOrder()(std::prev(values_->end())->first, folded);
    if (!last) {
        const auto found = values_->find(folded);
        if (found != values_->end()) {
            // Copies of a bucket share their values: the same object is equal.
            const Slot& slot = found->second;
            if (slot.value.get() == value.get() || slot.value->equals(*value)) {
                return Outcome::kUnchanged;
            }
            if (!replace) {
                return Outcome::kConflict;
            }
        }
    }
    ValueMap& values = own();
    if (last) {
        values.emplace_hint(values.end(), std::move(folded), Slot{name, value});
        return Outcome::kInserted;
    }
    const auto found = values.find(folded);
    if (found == values.end()) {
        values.emplace(std::move(folded), Slot{name, value});
        return Outcome::kInserted;
    }
    Slot& slot = found->second;
    slot.name = name;  // the new spelling replaces the old one
    slot.value = value;
    return Outcome::kReplaced;
}

bool BucketContents::remove(const WString& name) {
    const FoldedName folded(name);
    if (values_->count(folded) == 0) {
        return false;
    }
    own().erase(folded);
    return true;
}

bool BucketContents::removeAll() {
    if (values_->empty()) {
        return false;
    }
    values_ = std::make_shared<ValueMap>();
    shared_ = false;
    invalidateCursors();
    return true;
}

bool BucketContents::removeAllButChildren() {
    const auto isChild = [](const ValueMap::value_type& entry) {
        return entry.second.value->getType() == kDIGEST;
    };
    if (std::all_of(values_->begin(), values_->end(), isChild)) {
        return false;
    }
    // Only the links are copied: the data values would go at once.
    auto children = std::make_shared<ValueMap>();
    for (const auto& entry : *values_) {
        if (isChild(entry)) {
            children->emplace_hint(children->end(), entry);
        }
    }
    values_ = std::move(children);
    shared_ = false;
    invalidateCursors();
    return true;
}

void BucketContents::shareValues(const BucketContents& other) {
    values_ = other.values_;
    shared_ = true;
    other.shared_ = true;
    invalidateCursors();
}

void BucketContents::swapValues(BucketContents& other) {
    values_.swap(other.values_);
    std::swap(shared_, other.shared_);
    invalidateCursors();
    other.invalidateCursors();
}

BucketValue* BucketContents::find(const WString& name) const {
    const auto found = values_->find(FoldedName(name));
    return found == values_->end() ? nullptr : found->second.value.get();
}

// Handles are never 0 and never one that is open: the counter may wrap.
uint32_t BucketContents::openCursor() {
    uint32_t handle;
    do {
        handle = static_cast<uint32_t>(nextHandle_.increment() - 1);
    } while (handle == 0 || cursors_.count(handle) != 0);
    cursors_.emplace(handle, Cursor{values_->end(), false});
    return handle;
}

bool BucketContents::closeCursor(uint32_t handle) { return cursors_.erase(handle) != 0; }

BucketContents::Entry BucketContents::skipToChild(Entry at) const {
    while (at != values_->end() && at->second.value->getType() != kDIGEST) {
        ++at;
    }
    return at;
}

BucketContents::Step BucketContents::first(uint32_t handle, bool childrenOnly, Entry& entry) {
    if (handle == 0) {
        return Step::kEnd;
    }
    Entry at = values_->begin();
    if (childrenOnly) {
        at = skipToChild(at);
    }
    cursors_[handle] = Cursor{at, false};
    if (at == values_->end()) {
        return Step::kEnd;
    }
    entry = at;
    return Step::kFound;
}

BucketContents::Step BucketContents::next(uint32_t handle, bool childrenOnly, Entry& entry) {
    if (handle == 0) {
        return Step::kEnd;
    }
    const auto found = cursors_.find(handle);
    if (found == cursors_.end()) {
        return Step::kUnknownHandle;
    }
    Cursor& cursor = found->second;
    if (cursor.invalidated) {
        // Its entry may be gone: the cursor is never read again, only moved
        // to the end.
        cursor = Cursor{values_->end(), false};
        return Step::kInvalidated;
    }
    if (cursor.at == values_->end()) {
        return Step::kEnd;
    }
    Entry at = std::next(cursor.at);
    if (childrenOnly) {
        at = skipToChild(at);
    }
    cursor.at = at;
    if (at == values_->end()) {
        return Step::kEnd;
    }
    entry = at;
    return Step::kFound;
}

void BucketContents::invalidateCursors() {
    for (auto& handleAndCursor : cursors_) {
        handleAndCursor.second.invalidated = true;
    }
}

}  // namespace orvane
}  // namespace zq
