#ifndef ZQ_ORVANE_WATCHER_H
#define ZQ_ORVANE_WATCHER_H

#include <cstddef>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "kel/osdep/DirectoryWatch.h"
#include "kel/osdep/FileSystem.h"
#include "source/SingleFileBucketStore.h"
#include "zq/orvane/Watch.h"

namespace zq {
namespace orvane {

// The work behind a Watch: a read-only view of the store of its own, the
// position in the files it last reported up to, and a digest of each
// bucket of the subtree as the caller was last told of it. A change is
// what differs from that digest, so a compaction, an identical store or a
// commit elsewhere in the tree reports nothing however the files moved.
//
// The view follows commit marks only, and a mark is written after the
// commit's data is durable: nothing is reported that a crash could undo.
//
// Not synchronised: one thread at a time. Throws from the constructor only.
class Watcher {
  public:
    using Position = SingleFileBucketStore::Position;

    // `path` must be a well-formed full name. Throws PosixError when the
    // directory cannot be watched.
    Watcher(const kel::WString& directory, const kel::WString& path, kel::osdep::FileSystem& fs);
    // Reads the subtree's state; `since`, a state() or empty, is where the
    // first batch starts.
    bool start(const std::string& since, kel::StatusChain& status);

    int fd() const { return notices_.fd(); }
    bool read(WatchBatch& batch, kel::StatusChain& status);
    bool wait(int timeoutMilliseconds, kel::StatusChain& status);
    std::string state() const { return encodeState(told_); }
    const kel::WString& path() const { return path_; }
    size_t memoryUsed() const;

    // Where the caller stands: a place in the files, and a digest of the
    // subtree's content there.
    struct State {
        Position position;
        DigestKey subtree{};
    };
    // A state as text, and back; false when `text` is not one.
    static std::string encodeState(const State& state);
    static bool decodeState(const std::string& text, State& state);

  private:
    struct Held {
        kel::WString name;
        DigestKey content;
    };

    void holdWholeSubtree(kel::StatusChain& status);
    void forEachInSubtree(
        kel::StatusChain& status,
        const std::function<void(const DigestKey&, const kel::AutoRef<IBucket>&)>& visit);
    // Gathers what changed since the position into pending_; true when
    // pending_ has something to hand out. A failure changes nothing held.
    bool collect(kel::StatusChain& status);
    static bool endsAChange(const char* name, kel::osdep::DirectoryWatch::Change change,
                            int64_t& lastMark);
    // What the bucket of `digest` is now, against what is held: its change
    // (if any) goes to `changes`, its new digest to `held`.
    void compare(const DigestKey& digest, std::vector<WatchChange>& changes,
                 std::vector<std::pair<DigestKey, Held>>& held, kel::StatusChain& status);
    bool inSubtree(const kel::WString& fullName) const;
    static DigestKey contentOf(const IBucket& bucket);
    void hold(const DigestKey& digest, const kel::AutoRef<IBucket>& bucket);
    void hold(const DigestKey& digest, Held held);
    void drop(const DigestKey& digest);
    void flip(const DigestKey& digest, const DigestKey& content);

    SingleFileBucketStore store_;
    kel::osdep::DirectoryWatch notices_;
    kel::WString path_;
    kel::WString folded_;  // of path_, with a "/" at the end but for the root
    std::unordered_map<DigestKey, Held, DigestKeyHash> held_;
    DigestKey subtree_{};  // of held_
    State seen_;           // what held_ describes
    State told_;           // what the caller was told of
    WatchBatch pending_;
    bool havePending_ = false;
    // The last look found the files half way through a change, or failed:
    // the next one refreshes whether or not a notice came. The first look
    // after the view was loaded only needs a notice: the directory was
    // watched before the view was read.
    bool lookAgain_ = false;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_WATCHER_H
