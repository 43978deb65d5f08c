// What changed between two views of the store, for watchers: the segments
// appended since a position name every bucket they touched, and a file
// replaced since cannot be followed that way at all.
#include "source/SingleFileBucketStore.h"

#include "source/StoreOperation.h"

namespace zq {
namespace orvane {

namespace {

using kel::AutoRef;
using kel::StatusChain;
using store::Lock;
using store::storeOperation;

}  // namespace

// A position that cannot be read back (no file yet, a read error) is the
// empty one, which no later view follows: the watcher compares everything.
SingleFileBucketStore::Position SingleFileBucketStore::position() {
    Lock lock(mutex_);
    // What the view verified last is where it stands: no read needed.
    if (file_ && verified_.length == committedLength_ && verified_.file == fileIdentity_ &&
        committedLength_ != 0) {
        return verified_;
    }
    try {
        return file_ ? VerifiedPrefix::of(*file_, fileIdentity_, committedLength_) : Position();
    } catch (...) {
        return Position();
    }
}

bool SingleFileBucketStore::touchedSince(const Position& from, std::vector<DigestKey>& touched,
                                         StatusChain& status) {
    touched.clear();
    return storeOperation(status, [&] {
        Lock lock(mutex_);
        const bool sameFile = file_ && from.file == fileIdentity_ &&
                              fileIdentity_ != kel::osdep::File::Identity() &&
                              from.length <= committedLength_;
        if (!sameFile ||
            (from.length != 0 && from.holdsFor(*file_, fileIdentity_, committedLength_) == 0)) {
            return false;
        }
        for (int64_t end = committedLength_; end > from.length;) {
            SegmentScan scan = scanSegment(*file_, end, 0);
            for (const auto& update : scan.updates) {
                touched.push_back(update.first);
            }
            touched.insert(touched.end(), scan.deletions.begin(), scan.deletions.end());
            end = scan.descriptor.start;
            if (end < from.length) {
                return false;  // `from` ends no segment of this file
            }
        }
        return true;
    });
}

std::vector<AutoRef<IBucket>> SingleFileBucketStore::readBucketsAsOf(
    const Position& at, const std::vector<DigestKey>& digests, StatusChain& status) {
    return storeOperation(status, [&] {
        Lock lock(mutex_);
        std::vector<AutoRef<IBucket>> buckets;
        if (!file_ || at.length > committedLength_) {
            return buckets;
        }
        // The view verified these bytes when it loaded them.
        StoreIndex then;
        then.load(*file_, at.length, at.length);
        buckets.reserve(digests.size());
        for (const DigestKey& key : digests) {
            const StoreIndex::Location* location = then.find(*file_, key);
            const Digest digest = digestOf(key);
            buckets.push_back(location == nullptr ? AutoRef<IBucket>()
                                                  : readRecord(location->offset, nullptr, &digest));
        }
        return buckets;
    });
}

std::vector<DigestKey> SingleFileBucketStore::liveDigests(StatusChain& status) {
    return storeOperation(status, [&] {
        Lock lock(mutex_);
        std::vector<DigestKey> live;
        if (file_) {
            // A record that says it hides older ones reads back as no bucket.
            index_.forEachLive(
                *file_, [&live](const DigestKey& digest, int64_t) { live.push_back(digest); });
        }
        return live;
    });
}

}  // namespace orvane
}  // namespace zq
