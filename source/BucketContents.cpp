#include "source/BucketContents.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "kel/CaseFold.h"
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
        text_[i] = kel::foldUpper(in[i]);
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

namespace {

constexpr uint32_t kEntryMemory = 12;
// Above this a change decodes the values instead of copying all the bytes.
constexpr uint32_t kLargestSplice = 4096;

// Shared by every bucket with no values; like any shared map, never written.
// It owns nothing (an aliasing pointer with no count), so the copies that
// every lookup makes do not all move one count shared by every thread.
const std::shared_ptr<BucketContents::ValueMap>& emptyMap() {
    static auto* const map = new BucketContents::ValueMap();  // outlives every bucket
    static const std::shared_ptr<BucketContents::ValueMap> empty(
        std::shared_ptr<BucketContents::ValueMap>(), map);
    return empty;
}

// An entry's part of memoryUsage. Stored values never change, so it stays
// what it was when the entry went in.
uint32_t weightOf(const BucketContents::Slot& slot) {
    return static_cast<uint32_t>(slot.name.capacity()) * 4 + slot.value->getMemUsage();
}

}  // namespace

BucketContents::BucketContents() : values_(emptyMap()), shared_(true) {}

BucketContents::BucketContents(const BucketContents& other)
    : values_(other.values_),
      encoded_(other.encoded_),
      shared_(true),
      mapMemory_(other.mapMemory_) {
    other.shared_ = true;
}

bool BucketContents::adoptEncoded(RecordReader& reader, uint32_t count) {
    if (count == 0) {
        return false;
    }
    EncodedValues::Ptr read = EncodedValues::read(reader, count);
    if (!read) {
        return false;
    }
    becomeEmpty();
    encoded_ = std::move(read);
    return true;
}

void BucketContents::becomeEmpty() {
    values_ = emptyMap();
    encoded_.reset();
    shared_ = true;
    mapMemory_ = 0;
    invalidateCursors();
}

void BucketContents::decode() const {
    if (!encoded_) {
        return;
    }
    auto map = std::make_shared<ValueMap>();
    uint32_t memory = 0;
    for (uint32_t i = 0; i < encoded_->count(); ++i) {
        WString name = encoded_->nameAt(i);
        FoldedName folded(name);
        const auto at = map->emplace_hint(map->end(), std::move(folded),
                                          Slot{std::move(name), encoded_->valueAt(i)});
        memory += weightOf(at->second);
    }
    values_ = std::move(map);
    mapMemory_ = memory;
    encoded_.reset();
    shared_ = false;
    for (auto& handleAndCursor : cursors_) {
        handleAndCursor.second.at = values_->end();
    }
}

uint32_t BucketContents::memoryUsage() const {
    if (encoded_) {
        return kEntryMemory * encoded_->count() + encoded_->memoryUsage();
    }
    return kEntryMemory * size() + mapMemory_;
}

BucketContents::ValueMap& BucketContents::own() {
    decode();
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
    if (encoded_) {
        Outcome outcome = Outcome::kUnchanged;
        if (encoded_->size() <= kLargestSplice && storeEncoded(name, *value, replace, outcome)) {
            return outcome;
        }
        decode();
    }
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
        const auto at = values.emplace_hint(values.end(), std::move(folded), Slot{name, value});
        mapMemory_ += weightOf(at->second);
        return Outcome::kInserted;
    }
    const auto found = values.find(folded);
    if (found == values.end()) {
        const auto at = values.emplace(std::move(folded), Slot{name, value}).first;
        mapMemory_ += weightOf(at->second);
        return Outcome::kInserted;
    }
    Slot& slot = found->second;
    const uint32_t before = weightOf(slot);
    slot.name = name;  // the new spelling replaces the old one
    slot.value = value;
    mapMemory_ = mapMemory_ - before + weightOf(slot);
    return Outcome::kReplaced;
}

// False when the entry would not read back as given: the caller decodes.
bool BucketContents::storeEncoded(const WString& name, const BucketValue& value, bool replace,
                                  Outcome& outcome) {
    uint32_t index = 0;
    const bool found = encoded_->find(name, index);
    if (found) {
        if (encoded_->valueAt(index)->equals(value)) {
            outcome = Outcome::kUnchanged;
            return true;
        }
        if (!replace) {
            outcome = Outcome::kConflict;
            return true;
        }
    }
    EncodedValues::Ptr next = encoded_->with(index, found, name, value);
    if (!next) {
        return false;
    }
    encoded_ = std::move(next);
    invalidateCursors();
    outcome = found ? Outcome::kReplaced : Outcome::kInserted;
    return true;
}

bool BucketContents::remove(const WString& name) {
    if (encoded_) {
        uint32_t index = 0;
        if (!encoded_->find(name, index)) {
            return false;
        }
        if (encoded_->count() == 1) {
            becomeEmpty();
        } else {
            encoded_ = encoded_->without(index);
            invalidateCursors();
        }
        return true;
    }
    const FoldedName folded(name);
    if (values_->count(folded) == 0) {
        return false;
    }
    ValueMap& values = own();
    const auto at = values.find(folded);
    mapMemory_ -= weightOf(at->second);
    values.erase(at);
    return true;
}

bool BucketContents::removeAll() {
    if (size() == 0) {
        return false;
    }
    becomeEmpty();
    return true;
}

bool BucketContents::removeAllButChildren() {
    const auto isChild = [](const ValueMap::value_type& entry) {
        return entry.second.value->getType() == kDIGEST;
    };
    if (encoded_) {
        uint32_t children = 0;
        for (uint32_t i = 0; i < encoded_->count(); ++i) {
            children += encoded_->tagAt(i) == kDIGEST ? 1 : 0;
        }
        if (children == encoded_->count()) {
            return false;
        }
        if (children == 0) {
            return removeAll();
        }
        decode();
    }
    if (std::all_of(values_->begin(), values_->end(), isChild)) {
        return false;
    }
    // Only the links are copied: the data values would go at once.
    auto children = std::make_shared<ValueMap>();
    uint32_t memory = 0;
    for (const auto& entry : *values_) {
        if (isChild(entry)) {
            children->emplace_hint(children->end(), entry);
            memory += weightOf(entry.second);
        }
    }
    values_ = std::move(children);
    mapMemory_ = memory;
    shared_ = false;
    invalidateCursors();
    return true;
}

void BucketContents::shareValues(const BucketContents& other) {
    values_ = other.values_;
    encoded_ = other.encoded_;
    mapMemory_ = other.mapMemory_;
    shared_ = true;
    other.shared_ = true;
    invalidateCursors();
}

void BucketContents::swapValues(BucketContents& other) {
    values_.swap(other.values_);
    encoded_.swap(other.encoded_);
    std::swap(mapMemory_, other.mapMemory_);
    std::swap(shared_, other.shared_);
    invalidateCursors();
    other.invalidateCursors();
}

kel::AutoRef<BucketValue> BucketContents::find(const WString& name, bool& fresh) const {
    if (encoded_) {
        uint32_t index = 0;
        fresh = true;
        return encoded_->find(name, index) ? encoded_->valueAt(index) : kel::AutoRef<BucketValue>();
    }
    fresh = false;
    const auto found = values_->find(FoldedName(name));
    return found == values_->end() ? kel::AutoRef<BucketValue>() : found->second.value;
}

bool BucketContents::contains(const WString& name) const {
    uint32_t index = 0;
    return encoded_ ? encoded_->find(name, index) : values_->count(FoldedName(name)) != 0;
}

// Handles are never 0 and never one that is open: the counter may wrap.
uint32_t BucketContents::openCursor() {
    decode();
    uint32_t handle;
    do {
        handle = nextHandle_++;
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
    decode();
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
    decode();
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
