#ifndef ZQ_ORVANE_BUCKETCONTENTS_H
#define ZQ_ORVANE_BUCKETCONTENTS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

#include "source/OrvaneAtomicInt.h"
#include "zq/kel/AutoRef.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/BucketValue.h"

namespace zq {
namespace orvane {

// A value name with every character passed through towupper: Speed and SPEED
// fold to the same text, and folded texts in code-unit order are the
// case-insensitive order of the names. Each name is folded once, so no
// comparison calls towupper; the map keys are these, and typical names fit
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

    Outcome store(const kel::WString& name, const kel::AutoRef<BucketValue>& value, bool replace);
    bool remove(const kel::WString& name);
    // True when there was anything to remove.
    bool removeAll();
    bool removeAllButChildren();
    // Takes the values of `other`, sharing them.
    void shareValues(const BucketContents& other);
    // Takes the values of `other`, which is left with these.
    void swapValues(BucketContents& other);

    BucketValue* find(const kel::WString& name) const;
    const ValueMap& values() const { return *values_; }
    uint32_t size() const { return static_cast<uint32_t>(values_->size()); }

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

    std::shared_ptr<ValueMap> values_;
    mutable bool shared_ = false;  // values_ may be another object's too
    OrvaneAtomicInt nextHandle_;
    std::map<uint32_t, Cursor> cursors_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_BUCKETCONTENTS_H
