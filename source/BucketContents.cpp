#include "source/BucketContents.h"

#include <utility>

namespace zq {
namespace orvane {

using kel::WString;

BucketContents::BucketContents() : nextHandle_(1) {}

BucketContents::BucketContents(const BucketContents& other)
    : values_(other.values_), nextHandle_(1) {}

BucketContents::Outcome BucketContents::store(const WString& name,
                                              const kel::AutoRef<BucketValue>& value,
                                              bool replace) {
    const auto found = values_.find(name);
    if (found == values_.end()) {
        values_.emplace(name, value);
        invalidateCursors();
        return Outcome::kInserted;
    }
    if (found->second->equals(*value)) {
        return Outcome::kUnchanged;
    }
    if (!replace) {
        return Outcome::kConflict;
    }
    // The new spelling replaces the old one. The key is copied before the
    // entry is touched, so running out of memory loses nothing.
    WString key(name);
    auto node = values_.extract(found);
    node.key() = std::move(key);
    node.mapped() = value;
    values_.insert(std::move(node));
    invalidateCursors();
    return Outcome::kReplaced;
}

bool BucketContents::remove(const WString& name) {
    const auto found = values_.find(name);
    if (found == values_.end()) {
        return false;
    }
    values_.erase(found);
    invalidateCursors();
    return true;
}

bool BucketContents::removeAll() {
    if (values_.empty()) {
        return false;
    }
    values_.clear();
    invalidateCursors();
    return true;
}

bool BucketContents::removeAllButChildren() {
    bool removed = false;
    for (auto at = values_.begin(); at != values_.end();) {
        if (at->second->getType() == kDIGEST) {
            ++at;
        } else {
            at = values_.erase(at);
            removed = true;
        }
    }
    if (removed) {
        invalidateCursors();
    }
    return removed;
}

void BucketContents::swapValues(BucketContents& other) {
    values_.swap(other.values_);
    invalidateCursors();
    other.invalidateCursors();
}

BucketValue* BucketContents::find(const WString& name) const {
    const auto found = values_.find(name);
    return found == values_.end() ? nullptr : found->second.get();
}

// Handles are never 0 and never one that is open: the counter may wrap.
uint32_t BucketContents::openCursor() {
    uint32_t handle;
    do {
        handle = static_cast<uint32_t>(nextHandle_.increment() - 1);
    } while (handle == 0 || cursors_.count(handle) != 0);
    cursors_.emplace(handle, Cursor{values_.end(), false});
    return handle;
}

bool BucketContents::closeCursor(uint32_t handle) {
    return cursors_.erase(handle) != 0;
}

BucketContents::Entry BucketContents::skipToChild(Entry at) const {
    while (at != values_.end() && at->second->getType() != kDIGEST) {
        ++at;
    }
    return at;
}

BucketContents::Step BucketContents::first(uint32_t handle, bool childrenOnly, Entry& entry) {
    if (handle == 0) {
        return Step::kEnd;
    }
    Entry at = values_.begin();
    if (childrenOnly) {
        at = skipToChild(at);
    }
    cursors_[handle] = Cursor{at, false};
    if (at == values_.end()) {
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
        cursor = Cursor{values_.end(), false};
        return Step::kInvalidated;
    }
    if (cursor.at == values_.end()) {
        return Step::kEnd;
    }
    Entry at = std::next(cursor.at);
    if (childrenOnly) {
        at = skipToChild(at);
    }
    cursor.at = at;
    if (at == values_.end()) {
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
