#include "source/BucketCase.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <type_traits>

#include "kel/Throw.h"
#include "source/BucketNames.h"
#include "source/Guard.h"
#include "source/RecordReader.h"
#include "source/RecordWriter.h"
#include "zq/orvane/Bucket.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {

using kel::AutoRef;
using kel::StatusChain;
using kel::WString;
using Lock = std::lock_guard<std::recursive_mutex>;

namespace {

constexpr uint32_t kFormatVersion = 1;
constexpr uint32_t kHeaderSize = 8;  // version and count

// Whatever goes wrong while an entry is added; lack of memory has its own code.
constexpr ErrorCodes kCaseCodes{status::kUnexpected, status::kUnexpected, status::kUnexpected};

// For the operations that have no status to report through: a failure (only
// lack of memory is possible) reads as "not there" instead of crossing the
// public boundary.
template <class Body>
auto quietly(Body&& body) -> decltype(body()) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    } catch (...) {
    }
    return decltype(body())();
}

}  // namespace

BucketCase::Entry BucketCase::entryFor(const AutoRef<IBucket>& bucket,
                                       std::shared_ptr<const BucketNames>& names) {
    Bucket::CacheFacts facts = static_cast<const Bucket*>(bucket.get())->cacheFacts();
    names = std::move(facts.names);
    return Entry{bucket, facts.weight, names->digestKey(), facts.modified};
}

BucketCase::BucketCase() : handleCounter_(1), used_(0) {}

BucketCase::~BucketCase() = default;

void BucketCase::clear() {
    Lock lock(mutex_);
    markCursorsChanged();
    maps_.clear();
    used_ = 0;
}

void BucketCase::insertBucket(AutoRef<IBucket>& bucket, const bool* replace, StatusChain& status) {
    guarded(status, kCaseCodes, [&] {
        if (!bucket) {
            status.setCode(status::kNullArgument);
            return;
        }
        // Weighed outside the lock: the bucket's own lock is taken for the walk.
        std::shared_ptr<const BucketNames> names;  // they come folded
        const Entry entry = entryFor(bucket, names);
        const FoldedKey key(names->folded(), names->foldedHash());
        Lock lock(mutex_);
        insertLocked(entry, key, replace != nullptr && *replace, status);
    });
}

void BucketCase::insertLocked(const Entry& entry, const FoldedKey& key, bool replace,
                              StatusChain& status) {
    const auto placed = maps_.place(used_, entry, key, replace);
    if (placed == maps_.names.end()) {
        status.setCode(status::kAlreadyPresent);
        return;
    }
    markCursorsChanged();
    bucketAdded(placed->first);
}

BucketCase::NameMap::iterator BucketCase::Maps::find(const FoldedKey& key) {
    const auto range = byHash.equal_range(key.hash());
    for (auto at = range.first; at != range.second; ++at) {
        const WString& held = at->second->first;
        if (held.length() == key.length() &&
            std::memcmp(held.c_str(), key.text(), key.length() * sizeof(wchar_t)) == 0) {
            return at->second;
        }
    }
    return names.end();
}

// Either the entry goes in or, on a throw, the maps stay as they were.
BucketCase::NameMap::iterator BucketCase::Maps::place(uint32_t& used, const Entry& entry,
                                                      const FoldedKey& key, bool replace) {
    const auto at = find(key);
    if (at == names.end()) {
        const auto added = names.emplace_hint(names.lower_bound(key), key.toString(), entry);
        try {
            const auto indexed = byHash.emplace(key.hash(), added);
            try {
                digests.emplace(entry.digest, entry.bucket);
            } catch (...) {
                byHash.erase(indexed);
                throw;
            }
        } catch (...) {
            names.erase(added);
            throw;
        }
        used += entry.weight;
        return added;
    }
    if (!replace) {
        return names.end();
    }
    // One fold, one digest: the digest entry is already there, so nothing
    // below allocates and the replacement cannot fail half way.
    Entry& held = at->second;
    const auto byDigest = digests.find(held.digest);
    if (byDigest != digests.end()) {
        byDigest->second = entry.bucket;
    }
    held.bucket = entry.bucket;
    used = used - held.weight + entry.weight;
    held.weight = entry.weight;
    held.modified = entry.modified;
    return at;
}

void BucketCase::Maps::erase(NameMap::const_iterator at) {
    const auto range = byHash.equal_range(FoldedKey::hashOf(at->first.c_str(), at->first.length()));
    for (auto indexed = range.first; indexed != range.second; ++indexed) {
        if (indexed->second == at) {
            byHash.erase(indexed);
            break;
        }
    }
    digests.erase(at->second.digest);
    names.erase(at);
}

void BucketCase::Maps::clear() {
    byHash.clear();
    digests.clear();
    names.clear();
}

void BucketCase::Maps::swap(Maps& other) {
    names.swap(other.names);
    digests.swap(other.digests);
    byHash.swap(other.byHash);
}

void BucketCase::bucketAdded(const WString&) {}

AutoRef<IBucket> BucketCase::findBucket(const WString& fullName) {
    return quietly([&] { return findHeld(fullName); });
}

AutoRef<IBucket> BucketCase::findHeld(const WString& fullName) {
    return findHeld(FoldedKey(fullName));
}

AutoRef<IBucket> BucketCase::findHeld(const FoldedKey& key) {
    Lock lock(mutex_);
    const auto found = maps_.find(key);
    return found == maps_.names.end() ? AutoRef<IBucket>() : found->second.bucket;
}

AutoRef<IBucket> BucketCase::copyHeld(const FoldedKey& key) {
    Lock lock(mutex_);
    const auto found = maps_.find(key);
    if (found == maps_.names.end()) {
        return AutoRef<IBucket>();
    }
    return AutoRef<IBucket>(new Bucket(*static_cast<const Bucket*>(found->second.bucket.get())));
}

AutoRef<IBucket> BucketCase::findBucketByDigest(const Digest& digest) {
    Lock lock(mutex_);
    const auto found = maps_.digests.find(keyOf(digest));
    return found == maps_.digests.end() ? AutoRef<IBucket>() : found->second;
}

int32_t BucketCase::openEnumeration() {
    return quietly([&] {
        Lock lock(mutex_);
        const int32_t handle = drawHandle();
        // Recorded so that the handle is not drawn again while open; its
        // walk begins with getFirstBucket.
        cursors_.emplace(handle, Cursor{maps_.names.end(), false, false});
        return handle;
    });
}

// Handles stay positive: after the counter wraps it starts again at 1,
// still passing over every handle that is open.
int32_t BucketCase::drawHandle() {
    for (;;) {
        const auto drawn =
            static_cast<int32_t>(static_cast<uint32_t>(handleCounter_.increment()) - 1u);
        if (drawn <= 0) {
            handleCounter_.set(1);
            continue;
        }
        if (cursors_.count(drawn) == 0) {
            return drawn;
        }
    }
}

bool BucketCase::closeEnumeration(int32_t handle) {
    Lock lock(mutex_);
    return cursors_.erase(handle) != 0;
}

AutoRef<IBucket> BucketCase::getFirstBucket(const int32_t* handle) {
    if (handle == nullptr || *handle == 0) {
        return AutoRef<IBucket>();
    }
    return quietly([&]() -> AutoRef<IBucket> {
        Lock lock(mutex_);
        if (maps_.names.empty()) {
            // No walk began: a step with this handle finds none.
            const auto held = cursors_.find(*handle);
            if (held != cursors_.end()) {
                held->second.placed = false;
            }
            return AutoRef<IBucket>();
        }
        // Any non-zero handle will do, opened or not: the manager relies on it.
        cursors_[*handle] = Cursor{maps_.names.begin(), false, true};
        return maps_.names.begin()->second.bucket;
    });
}

AutoRef<IBucket> BucketCase::getNextBucket(const int32_t* handle, StatusChain& status) {
    return guarded(status, kCaseCodes, [&]() -> AutoRef<IBucket> {
        if (handle == nullptr || *handle == 0) {
            return AutoRef<IBucket>();
        }
        Lock lock(mutex_);
        const auto found = cursors_.find(*handle);
        if (found == cursors_.end() || !found->second.placed) {
            status.setCode(status::kUnknownHandle);
            return AutoRef<IBucket>();
        }
        Cursor& cursor = found->second;
        if (cursor.changed) {
            // The flag stays set, so every later step warns again.
            cursor.position = maps_.names.end();
            status.setCode(status::kCursorInvalidated);
            return AutoRef<IBucket>();
        }
        if (cursor.position == maps_.names.end() || ++cursor.position == maps_.names.end()) {
            return AutoRef<IBucket>();
        }
        return cursor.position->second.bucket;
    });
}

bool BucketCase::removeBucket(const WString& fullName) {
    return quietly([&] {
        const FoldedKey key(fullName);
        Lock lock(mutex_);
        return eraseKey(key);
    });
}

bool BucketCase::eraseKey(const FoldedKey& key) {
    const auto found = maps_.find(key);
    if (found == maps_.names.end()) {
        return false;
    }
    eraseEntry(found);
    return true;
}

void BucketCase::eraseEntry(NameMap::const_iterator at) {
    used_ -= at->second.weight;
    maps_.erase(at);
    markCursorsChanged();
}

bool BucketCase::containsBucket(const WString& fullName) {
    return quietly([&] {
        const FoldedKey key(fullName);
        Lock lock(mutex_);
        return maps_.find(key) != maps_.names.end();
    });
}

uint32_t BucketCase::getBucketCount() {
    Lock lock(mutex_);
    return static_cast<uint32_t>(maps_.names.size());
}

uint32_t BucketCase::serializationSize() {
    Lock lock(mutex_);
    uint32_t size = kHeaderSize;
    for (const auto& entry : maps_.names) {
        size += entry.second.bucket->serializationSize();
    }
    return size;
}

void BucketCase::serialize(unsigned char*& cursor, const unsigned char* end) {
    Lock lock(mutex_);
    RecordWriter writer(cursor, end);
    writer.u32(kFormatVersion);
    writer.u32(static_cast<uint32_t>(maps_.names.size()));
    for (const auto& entry : maps_.names) {
        entry.second.bucket->serialize(cursor, end);
    }
}

// Every record is read and the new maps built before the case changes, so
// bad input or a lack of memory leaves the case as it was.
void BucketCase::deserialize(const unsigned char*& cursor, const unsigned char* end) {
    Lock lock(mutex_);
    try {
        RecordReader reader(cursor, end);
        reader.u32();  // the format version: every reader skips it
        const uint32_t count = reader.u32();
        Maps maps;
        uint32_t used = 0;
        for (uint32_t i = 0; i < count; ++i) {
            AutoRef<IBucket> bucket(new Bucket());
            bucket->deserialize(cursor, end);
            std::shared_ptr<const BucketNames> names;
            const Entry entry = entryFor(bucket, names);
            maps.place(used, entry, FoldedKey(bucket->getFullName()), true);
        }
        clear();  // through the table, so a cache's own clear runs
        maps_.swap(maps);
        used_ = used;
        for (const auto& entry : maps_.names) {
            bucketAdded(entry.first);
        }
        markCursorsChanged();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        ZQ_THROW(DeserializationError);
    }
}

uint32_t BucketCase::usedBytes() const {
    Lock lock(mutex_);
    return used_;
}

void BucketCase::recount() {
    Lock lock(mutex_);
    uint32_t used = 0;
    for (const auto& entry : maps_.names) {
        used += entry.second.weight;
    }
    used_ = used;
}

void BucketCase::markCursorsChanged() {
    for (auto& cursor : cursors_) {
        cursor.second.changed = true;
    }
}

}  // namespace orvane
}  // namespace zq
