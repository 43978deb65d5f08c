#ifndef ZQ_ORVANE_BUCKETCONTENTS_H
#define ZQ_ORVANE_BUCKETCONTENTS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

#include "source/EncodedValues.h"
#include "zq/kel/AutoRef.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/BucketValue.h"

namespace zq {
namespace orvane {

// A value name with every character passed through kel::foldUpper: Speed and
// SPEED fold to the same text, and folded texts in code-unit order are the
// case-insensitive order of the names. Each name is folded once, so no
// comparison folds again; the map keys are these, and typical names fit
// the inline buffer, so a key costs no allocation of its own.
class FoldedName {
  public:
    explicit FoldedName(const kel::WString& name);
    FoldedName(FoldedName&& other) noexcept;
    FoldedName(const FoldedName& other);
    FoldedName& operator=(const FoldedName&) = delete;
    FoldedName& operator=(FoldedName&&) = delete;
    ~FoldedName();

    const wchar_t* text() const { return text_; }
    size_t length() const { return length_; }

  private:
    static constexpr size_t kInline = 24;
    wchar_t inline_[kInline];
    wchar_t* text_;  // inline_ or a block of its own
    size_t length_;
};

// Folded characters compare as wide characters; a prefix sorts first.
struct FoldedOrder {
    bool operator()(const FoldedName& a, const FoldedName& b) const;
};

// A bucket's values and its enumeration cursors. Every change invalidates
// every cursor here, so no caller can forget to.
//
// Values read from a record stay in their stored form (EncodedValues) until
// something needs them one by one: a lookup decodes one value, a change of
// a small bucket is spliced into the bytes, and a commit writes them back as
// they are. Anything else (a walk, a large bucket's change) decodes them
// into the map first.
//
// Values in the map are never handed out and never changed once stored (the
// bucket gives out copies), which lets copies of a bucket share them. A copy
// shares the whole map too, until either side changes it: a map once shared
// is never written again, each side takes a private one first, so no use
// count is ever consulted across threads.
//
// Not thread-safe: the owning bucket's mutex guards it (a copy is made with
// the source's mutex held).
class BucketContents {
  public:
    struct Slot {
        kel::WString name;  // the spelling first stored
        kel::AutoRef<BucketValue> value;
    };
    using ValueMap = std::map<FoldedName, Slot, FoldedOrder>;
    using Entry = ValueMap::const_iterator;

    enum class Outcome { kInserted, kUnchanged, kConflict, kReplaced };
    enum class Step { kFound, kEnd, kUnknownHandle, kInvalidated };

    BucketContents();
    // The same values (shared until either side changes), no cursors.
    BucketContents(const BucketContents& other);
    BucketContents& operator=(const BucketContents&) = delete;

    // Keeps the `count` entries at the reader in their stored form when they
    // are in it; false, the reader not moved, when they are not.
    bool adoptEncoded(RecordReader& reader, uint32_t count);
    // The stored form, while the values are in it.
    const EncodedValues* encoded() const { return encoded_.get(); }

    Outcome store(const kel::WString& name, const kel::AutoRef<BucketValue>& value, bool replace);
    bool remove(const kel::WString& name);
    // True when there was anything to remove.
    bool removeAll();
    bool removeAllButChildren();
    // Takes the values of `other`, sharing them.
    void shareValues(const BucketContents& other);
    // Takes the values of `other`, which is left with these.
    void swapValues(BucketContents& other);

    // The value stored under `name`, or null. `fresh` tells whether it was
    // decoded for this call (and so is the caller's to keep) or is shared.
    kel::AutoRef<BucketValue> find(const kel::WString& name, bool& fresh) const;
    bool contains(const kel::WString& name) const;
    // Decodes the stored form first.
    const ValueMap& values() const {
        decode();
        return *values_;
    }
    uint32_t size() const {
        return encoded_ ? encoded_->count() : static_cast<uint32_t>(values_->size());
    }
    // The entries' part of Bucket::getMemUsage: 12 bytes per entry, 4 per
    // character of each name and each value's own use.
    uint32_t memoryUsage() const;

    uint32_t openCursor();
    bool closeCursor(uint32_t handle);
    // Places the cursor on the first entry (of kDIGEST entries only when
    // `childrenOnly`), or moves it on by one.
    Step first(uint32_t handle, bool childrenOnly, Entry& entry);
    Step next(uint32_t handle, bool childrenOnly, Entry& entry);
    void invalidateCursors();

  private:
    struct Cursor {
        Entry at;
        bool invalidated;
    };

    Entry skipToChild(Entry at) const;
    // The map, private to this object, for a change that is certain.
    ValueMap& own();
    // Turns the stored form into the map; cursors stay where they were (at
    // the end, as no cursor can stand on a stored entry).
    void decode() const;
    bool storeEncoded(const kel::WString& name, const BucketValue& value, bool replace,
                      Outcome& outcome);
    void becomeEmpty();

    // Either encoded_ holds the values and values_ is the shared empty map,
    // or encoded_ is null and values_ holds them.
    mutable std::shared_ptr<ValueMap> values_;
    mutable EncodedValues::Ptr encoded_;
    mutable bool shared_ = false;  // values_ may be another object's too
    // The weight of the entries in values_, kept as they change: a parent
    // weighed after each of many new links must not walk them all each time.
    mutable uint32_t mapMemory_ = 0;
    // Drawn under the owning bucket's mutex like the cursors, so a plain
    // count: a lookup's copy of the bucket makes one, and an atomic's
    // construction costs a full barrier.
    uint32_t nextHandle_ = 1;
    mutable std::map<uint32_t, Cursor> cursors_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_BUCKETCONTENTS_H
