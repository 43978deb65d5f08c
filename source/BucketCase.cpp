#include "source/BucketCase.h"

#include <cerrno>
#include <cwctype>
#include <new>
#include <vector>

#include "kel/Throw.h"
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

uint32_t weigh(const AutoRef<IBucket>& bucket) {
    return static_cast<Bucket*>(bucket.get())->getMemUsage();
}

}  // namespace

BucketCase::BucketCase() : handleCounter_(1), used_(0) {}

BucketCase::~BucketCase() = default;

WString BucketCase::foldName(const WString& fullName) {
    WString folded(fullName);
    for (size_t i = 0; i < folded.length(); ++i) {
        folded[i] = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(folded[i])));
    }
    return folded;
}

void BucketCase::clear() {
    Lock lock(mutex_);
    markCursorsChanged();
    names_.clear();
    digests_.clear();
    used_ = 0;
}

void BucketCase::insertBucket(AutoRef<IBucket>& bucket, const bool* replace, StatusChain& status) {
    guarded(status, kCaseCodes, [&] {
        if (!bucket) {
            status.setCode(status::kNullArgument);
            return;
        }
        // Weighed outside the lock: the bucket's own lock is taken for the walk.
        const uint32_t weight = weigh(bucket);
        const WString key = foldName(bucket->getFullName());
        const Digest digest = bucket->getDigest();
        Lock lock(mutex_);
        insertLocked(bucket, weight, key, digest, replace != nullptr && *replace, status);
    });
}

void BucketCase::insertLocked(const AutoRef<IBucket>& bucket, uint32_t weight, const WString& key,
                              const Digest& digest, bool replace, StatusChain& status) {
    const auto at = names_.lower_bound(key);
    if (at == names_.end() || at->first != key) {
        const auto added = names_.emplace_hint(at, key, Entry{bucket, weight, digest});
        try {
            digests_.emplace(digest, bucket);
        } catch (...) {
            names_.erase(added);
            throw;
        }
        used_ += weight;
    } else if (replace) {
        // One fold, one digest: the digest entry is already there, so nothing
        // below allocates and the replacement cannot fail half way.
        Entry& entry = at->second;
        const auto byDigest = digests_.find(entry.digest);
        if (byDigest != digests_.end()) {
            byDigest->second = bucket;
        }
        entry.bucket = bucket;
        used_ = used_ - entry.weight + weight;
        entry.weight = weight;
    } else {
        status.setCode(status::kAlreadyPresent);
        return;
    }
    markCursorsChanged();
    bucketAdded(key);
}

void BucketCase::bucketAdded(const WString&) {}

AutoRef<IBucket> BucketCase::findBucket(const WString& fullName) {
    return quietly([&]() -> AutoRef<IBucket> {
        const WString key = foldName(fullName);
        Lock lock(mutex_);
        const auto found = names_.find(key);
        return found == names_.end() ? AutoRef<IBucket>() : found->second.bucket;
    });
}

AutoRef<IBucket> BucketCase::findBucketByDigest(const Digest& digest) {
    Lock lock(mutex_);
    const auto found = digests_.find(digest);
    return found == digests_.end() ? AutoRef<IBucket>() : found->second;
}

int32_t BucketCase::openEnumeration() {
    return quietly([&] {
        Lock lock(mutex_);
        const int32_t handle = drawHandle();
        // A new cursor stands at the end: the walk begins with getFirstBucket.
        cursors_.emplace(handle, Cursor{names_.end(), false});
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
        if (names_.empty()) {
            return AutoRef<IBucket>();
        }
        // Any non-zero handle will do, opened or not: the manager relies on it.
        cursors_[*handle] = Cursor{names_.begin(), false};
        return names_.begin()->second.bucket;
    });
}

AutoRef<IBucket> BucketCase::getNextBucket(const int32_t* handle, StatusChain& status) {
    return guarded(status, kCaseCodes, [&]() -> AutoRef<IBucket> {
        if (handle == nullptr || *handle == 0) {
            return AutoRef<IBucket>();
        }
        Lock lock(mutex_);
        const auto found = cursors_.find(*handle);
        if (found == cursors_.end()) {
            status.setCode(status::kUnknownHandle);
            return AutoRef<IBucket>();
        }
        Cursor& cursor = found->second;
        if (cursor.changed) {
            // The flag stays set, so every later step warns again.
            cursor.position = names_.end();
            status.setCode(status::kCursorInvalidated);
            return AutoRef<IBucket>();
        }
        if (cursor.position == names_.end() || ++cursor.position == names_.end()) {
            return AutoRef<IBucket>();
        }
        return cursor.position->second.bucket;
    });
}

bool BucketCase::removeBucket(const WString& fullName) {
    return quietly([&] {
        const WString key = foldName(fullName);
        Lock lock(mutex_);
        return eraseKey(key);
    });
}

bool BucketCase::eraseKey(const WString& key) {
    const auto found = names_.find(key);
    if (found == names_.end()) {
        return false;
    }
    eraseEntry(found);
    return true;
}

void BucketCase::eraseEntry(NameMap::const_iterator at) {
    digests_.erase(at->second.digest);
    used_ -= at->second.weight;
    names_.erase(at);
    markCursorsChanged();
}

bool BucketCase::containsBucket(const WString& fullName) {
    return quietly([&] {
        const WString key = foldName(fullName);
        Lock lock(mutex_);
        return names_.count(key) != 0;
    });
}

uint32_t BucketCase::getBucketCount() {
    Lock lock(mutex_);
    return static_cast<uint32_t>(names_.size());
}

uint32_t BucketCase::serializationSize() {
    Lock lock(mutex_);
    uint32_t size = kHeaderSize;
    for (const auto& entry : names_) {
        size += entry.second.bucket->serializationSize();
    }
    return size;
}

void BucketCase::serialize(unsigned char*& cursor, const unsigned char* end) {
    Lock lock(mutex_);
    RecordWriter writer(cursor, end);
    writer.u32(kFormatVersion);
    writer.u32(static_cast<uint32_t>(names_.size()));
    for (const auto& entry : names_) {
        entry.second.bucket->serialize(cursor, end);
    }
}

// Every record is read before the case changes, so bad input leaves the case
// as it was.
void BucketCase::deserialize(const unsigned char*& cursor, const unsigned char* end) {
    struct Loaded {
        AutoRef<IBucket> bucket;
        uint32_t weight;
        WString key;
        Digest digest;
    };
    Lock lock(mutex_);
    try {
        RecordReader reader(cursor, end);
        reader.u32();  // the format version: every reader skips it
        const uint32_t count = reader.u32();
        std::vector<Loaded> loaded;
        for (uint32_t i = 0; i < count; ++i) {
            AutoRef<IBucket> bucket(new Bucket());
            bucket->deserialize(cursor, end);
            loaded.push_back(Loaded{bucket, weigh(bucket), foldName(bucket->getFullName()),
                                    bucket->getDigest()});
        }
        clear();  // through the table, so a cache's own clear runs
        StatusChain ignored;
        for (const Loaded& one : loaded) {
            insertLocked(one.bucket, one.weight, one.key, one.digest, true, ignored);
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
    for (const auto& entry : names_) {
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
