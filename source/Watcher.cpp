#include "source/Watcher.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <functional>
#include <unordered_set>

#include "source/CommitMarks.h"
#include "source/FoldedKey.h"
#include "source/Sha256.h"
#include "zq/orvane/StatusCodes.h"

namespace zq {
namespace orvane {

namespace {

using kel::AutoRef;
using kel::StatusChain;
using kel::WString;

constexpr int kLookAgainMilliseconds = 10;

bool samePosition(const Watcher::Position& a, const Watcher::Position& b) {
    return a.file == b.file && a.length == b.length && a.checksum == b.checksum;
}

}  // namespace

Watcher::Watcher(const WString& directory, const WString& path, kel::osdep::FileSystem& fs)
    : store_(directory, nullptr, fs),
      notices_(directory),  // before the view: a commit after it always wakes
      path_(path),
      folded_(FoldedKey(path).toString()) {
    if (folded_ != WString(L"/")) {
        folded_ += L"/";
    }
}

bool Watcher::start(const std::string& since, StatusChain& status) {
    State from;
    if (!since.empty() && !decodeState(since, from)) {
        status.setCode(status::kKelInvalidArgument);
        WString message(L"not a watch state: ");
        message += WString(since.c_str());
        status.setMessage(message);
        return false;
    }
    store_.openForReading(status);
    seen_.position = store_.position();
    holdWholeSubtree(status);
    seen_.subtree = subtree_;
    told_ = seen_;
    if (status.isFatal() || since.empty() || samePosition(from.position, seen_.position)) {
        return status.isNotFatal();
    }
    std::vector<DigestKey> touched;
    if (store_.touchedSince(from.position, touched, status)) {
        // What the caller knew is the present but for what changed since.
        const std::vector<AutoRef<IBucket>> then =
            store_.readBucketsAsOf(from.position, touched, status);
        for (size_t i = 0; i < then.size(); ++i) {
            drop(touched[i]);
            hold(touched[i], then[i]);
        }
        seen_.position = from.position;
        seen_.subtree = subtree_;
        told_ = seen_;
        lookAgain_ = true;  // the view is ahead of what the caller was told
    } else if (status.isNotFatal() && from.subtree != subtree_) {
        // Another file, and other content: what changed cannot be told.
        pending_ = WatchBatch();
        pending_.reset = true;
        pending_.state = encodeState(seen_);
        havePending_ = true;
    }
    return status.isNotFatal();
}

void Watcher::holdWholeSubtree(StatusChain& status) {
    held_.clear();
    subtree_ = DigestKey{};
    forEachInSubtree(status, [this](const DigestKey& digest, const AutoRef<IBucket>& bucket) {
        hold(digest, bucket);
    });
}

// The root's subtree is every bucket; another one is found by following
// child links down from its top, so a small subtree of a large registry
// costs what it holds.
void Watcher::forEachInSubtree(
    StatusChain& status,
    const std::function<void(const DigestKey&, const AutoRef<IBucket>&)>& visit) {
    if (folded_.length() == 1) {
        for (const DigestKey& digest : store_.liveDigests(status)) {
            visit(digest, store_.readBucketByDigest(digestOf(digest), status));
        }
        return;
    }
    std::vector<Digest> next{Digest(path_)};
    while (!next.empty() && status.isNotFatal()) {
        const Digest digest = next.back();
        next.pop_back();
        const AutoRef<IBucket> bucket = store_.readBucketByDigest(digest, status);
        if (!bucket) {
            continue;
        }
        visit(keyOf(digest), bucket);
        const uint32_t handle = bucket->openEnumeration();
        Digest child;
        for (bool more = bucket->getFirstChild(handle, child); more && status.isNotFatal();
             more = bucket->getNextChild(handle, child, status)) {
            next.push_back(child);
        }
        bucket->closeEnumeration(handle);
    }
}

bool Watcher::inSubtree(const WString& fullName) const {
    const WString name = FoldedKey(fullName).toString();
    if (folded_.length() == 1) {
        return true;  // the root's subtree is everything
    }
    return name.length() + 1 == folded_.length()
               ? folded_.startsWith(name)
               : name.length() > folded_.length() && name.startsWith(folded_);
}

DigestKey Watcher::contentOf(const IBucket& bucket) {
    std::vector<unsigned char> bytes(bucket.serializationSize());
    unsigned char* cursor = bytes.data();
    bucket.serialize(cursor, bytes.data() + bytes.size());
    DigestKey content;
    const size_t skip = std::min(segment::kBucketContentOffset, bytes.size());
    Sha256::hash(bytes.data() + skip, bytes.size() - skip, content.data());
    return content;
}

void Watcher::hold(const DigestKey& digest, const AutoRef<IBucket>& bucket) {
    if (bucket && inSubtree(bucket->getFullName())) {
        hold(digest, Held{bucket->getFullName(), contentOf(*bucket)});
    }
}

// The subtree's digest is the exclusive or of one hash per bucket, so that
// a bucket enters and leaves it in any order.
void Watcher::flip(const DigestKey& digest, const DigestKey& content) {
    unsigned char both[2 * sizeof(DigestKey)];
    std::memcpy(both, digest.data(), digest.size());
    std::memcpy(both + digest.size(), content.data(), content.size());
    DigestKey entry;
    Sha256::hash(both, sizeof both, entry.data());
    for (size_t i = 0; i < entry.size(); ++i) {
        subtree_[i] ^= entry[i];
    }
}

void Watcher::hold(const DigestKey& digest, Held held) {
    drop(digest);
    flip(digest, held.content);
    held_.emplace(digest, std::move(held));
}

void Watcher::drop(const DigestKey& digest) {
    const auto found = held_.find(digest);
    if (found != held_.end()) {
        flip(digest, found->second.content);
        held_.erase(found);
    }
}

size_t Watcher::memoryUsed() const {
    size_t bytes = held_.bucket_count() * sizeof(void*);
    for (const auto& entry : held_) {
        bytes += sizeof entry + 2 * sizeof(void*) + entry.second.name.capacity() * sizeof(wchar_t);
    }
    return bytes;
}

bool Watcher::read(WatchBatch& batch, StatusChain& status) {
    if (!havePending_ && !collect(status)) {
        return false;
    }
    batch = std::move(pending_);
    pending_ = WatchBatch();
    havePending_ = false;
    told_ = seen_;
    return true;
}

bool Watcher::wait(int timeoutMilliseconds, StatusChain& status) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline =
        Clock::now() + std::chrono::milliseconds(timeoutMilliseconds);
    for (;;) {
        if (havePending_ || collect(status)) {
            return true;
        }
        if (status.isFatal()) {
            return false;
        }
        int left = -1;
        if (timeoutMilliseconds >= 0) {
            const auto remaining =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            left = static_cast<int>(std::max<int64_t>(0, remaining.count()));
        }
        // Files met half way through a compaction's swap are looked at again
        // soon, whether or not another notice comes.
        if (lookAgain_ && (left < 0 || left > kLookAgainMilliseconds)) {
            left = kLookAgainMilliseconds;
        }
        if (!notices_.waitReadable(left) && !lookAgain_) {
            return false;
        }
        if (timeoutMilliseconds >= 0 && Clock::now() >= deadline) {
            return havePending_ || collect(status);
        }
    }
}

// The digests that may differ from what is held: those the new segments
// touched, or, when the view is no longer the held one's file grown, every
// bucket held and every bucket there is.
// A mark or the data file arriving under its name: what a commit, a
// compaction, a recovery or a purge ends with. A removal comes with one of
// those and tells nothing alone. `lastMark`: the generation of the last
// mark to arrive, when nothing arrived after it, else 0.
bool Watcher::endsAChange(const char* name, kel::osdep::DirectoryWatch::Change change,
                          int64_t& lastMark) {
    if (change != kel::osdep::DirectoryWatch::kArrived) {
        return false;
    }
    lastMark = CommitMarks::generationOf(name);
    // Bytes, not text: a stray name in the directory need not be UTF-8.
    return lastMark != 0 || std::strcmp(name, "registry.bin") == 0;
}

bool Watcher::collect(StatusChain& status) {
    int64_t lastMark = 0;
    if (!notices_.drain([&lastMark](const char* name, kel::osdep::DirectoryWatch::Change change) {
            return endsAChange(name, change, lastMark);
        }) &&
        !lookAgain_) {
        return false;  // no mark arrived: nothing was committed since the last look
    }
    lookAgain_ = store_.refreshFromMark(lastMark, status) == IBucketStore::Refresh::kUnsettled;
    const Position now = store_.position();
    if (status.isFatal() || samePosition(now, seen_.position)) {
        lookAgain_ = lookAgain_ || status.isFatal();
        return false;
    }
    std::vector<DigestKey> touched;
    if (!store_.touchedSince(seen_.position, touched, status)) {
        forEachInSubtree(status, [&touched](const DigestKey& digest, const AutoRef<IBucket>&) {
            touched.push_back(digest);
        });
        for (const auto& entry : held_) {
            touched.push_back(entry.first);
        }
    }
    if (status.isFatal()) {
        lookAgain_ = true;
        return false;
    }
    // Newest segment first: each bucket takes the place of the newest
    // commit that touched it, and the batch runs from old to new.
    std::unordered_set<DigestKey, DigestKeyHash> met;
    std::vector<DigestKey> order;
    for (const DigestKey& digest : touched) {
        if (met.insert(digest).second) {
            order.push_back(digest);
        }
    }
    std::reverse(order.begin(), order.end());
    WatchBatch batch;
    std::vector<std::pair<DigestKey, Held>> held;
    for (const DigestKey& digest : order) {
        compare(digest, batch.changes, held, status);
        if (status.isFatal()) {
            lookAgain_ = true;  // and starts over from seen_
            return false;
        }
    }
    for (auto& entry : held) {
        if (entry.second.name.empty()) {
            drop(entry.first);
        } else {
            hold(entry.first, std::move(entry.second));
        }
    }
    seen_.position = now;
    seen_.subtree = subtree_;
    if (batch.changes.empty()) {
        told_ = seen_;
        return false;
    }
    batch.state = encodeState(seen_);
    pending_ = std::move(batch);
    havePending_ = true;
    return true;
}

// A bucket no longer held has an empty name: every full name has one "/".
void Watcher::compare(const DigestKey& digest, std::vector<WatchChange>& changes,
                      std::vector<std::pair<DigestKey, Held>>& held, StatusChain& status) {
    AutoRef<IBucket> now = store_.readBucketByDigest(digestOf(digest), status);
    if (now && !inSubtree(now->getFullName())) {
        now.reset();
    }
    const auto was = held_.find(digest);
    if (!now) {
        if (was != held_.end()) {
            changes.push_back(WatchChange{was->second.name, WatchChange::kDeleted, now});
            held.emplace_back(digest, Held());
        }
        return;
    }
    const DigestKey content = contentOf(*now);
    if (was != held_.end() && was->second.content == content) {
        return;
    }
    const WatchChange::Kind kind =
        was == held_.end() ? WatchChange::kCreated : WatchChange::kChanged;
    held.emplace_back(digest, Held{now->getFullName(), content});
    changes.push_back(WatchChange{now->getFullName(), kind, now});
}

namespace {

void appendHex(std::string& text, const DigestKey& bytes) {
    static const char digits[] = "0123456789abcdef";
    for (unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
}

bool readHex(const std::string& text, size_t at, DigestKey& bytes) {
    if (text.size() < at + 2 * bytes.size()) {
        return false;
    }
    for (size_t i = 0; i < bytes.size(); ++i) {
        unsigned int byte = 0;
        if (std::sscanf(text.c_str() + at + 2 * i, "%2x", &byte) != 1) {
            return false;
        }
        bytes[i] = static_cast<unsigned char>(byte);
    }
    return true;
}

}  // namespace

// "1:device:inode:length:checksum:subtree": enough to find the same bytes
// again, or to know that the subtree holds what it held.
std::string Watcher::encodeState(const State& state) {
    char numbers[80];
    std::snprintf(numbers, sizeof numbers, "1:%" PRIu64 ":%" PRIu64 ":%" PRId64 ":",
                  state.position.file.device, state.position.file.inode, state.position.length);
    std::string text(numbers);
    appendHex(text, state.position.checksum);
    text += ':';
    appendHex(text, state.subtree);
    return text;
}

bool Watcher::decodeState(const std::string& text, State& state) {
    uint64_t device = 0;
    uint64_t inode = 0;
    int64_t length = 0;
    int used = 0;
    constexpr size_t kHex = 2 * sizeof(DigestKey);
    if (std::sscanf(text.c_str(), "1:%" SCNu64 ":%" SCNu64 ":%" SCNd64 ":%n", &device, &inode,
                    &length, &used) != 3 ||
        used == 0 || length < 0 || text.size() != static_cast<size_t>(used) + 2 * kHex + 1 ||
        text[static_cast<size_t>(used) + kHex] != ':' ||
        !readHex(text, static_cast<size_t>(used), state.position.checksum) ||
        !readHex(text, static_cast<size_t>(used) + kHex + 1, state.subtree)) {
        return false;
    }
    state.position.file.device = device;
    state.position.file.inode = inode;
    state.position.length = length;
    return true;
}

}  // namespace orvane
}  // namespace zq
