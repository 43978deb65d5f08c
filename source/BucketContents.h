#ifndef ZQ_ORVANE_BUCKETCONTENTS_H
#define ZQ_ORVANE_BUCKETCONTENTS_H

#include <cstdint>
#include <map>

#include "source/OrvaneAtomicInt.h"
#include "zq/kel/AutoRef.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/BucketValue.h"

namespace zq {
namespace orvane {

// Value names in towupper order: Speed and SPEED are one name.
struct ValueNameOrder {
    bool operator()(const kel::WString& a, const kel::WString& b) const {
        return kel::compareNoCase(a.c_str(), b.c_str()) < 0;
    }
};

// A bucket's values and its enumeration cursors. Every change invalidates
// every cursor here, so no caller can forget to.
//
// Values in the map are never handed out and never changed once stored (the
// bucket gives out copies), which lets copies of a bucket share them.
//
// Not thread-safe: the owning bucket's mutex guards it.
class BucketContents {
  public:
    using ValueMap = std::map<kel::WString, kel::AutoRef<BucketValue>, ValueNameOrder>;
    using Entry = ValueMap::const_iterator;

    enum class Outcome { kInserted, kUnchanged, kConflict, kReplaced };
    enum class Step { kFound, kEnd, kUnknownHandle, kInvalidated };

    BucketContents();
    // The same values (shared), no cursors.
    BucketContents(const BucketContents& other);
    BucketContents& operator=(const BucketContents&) = delete;

    Outcome store(const kel::WString& name, const kel::AutoRef<BucketValue>& value, bool replace);
    bool remove(const kel::WString& name);
    // True when there was anything to remove.
    bool removeAll();
    bool removeAllButChildren();
    // Takes the values of `other`, which is left with these.
    void swapValues(BucketContents& other);

    BucketValue* find(const kel::WString& name) const;
    const ValueMap& values() const { return values_; }
    uint32_t size() const { return static_cast<uint32_t>(values_.size()); }

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

    ValueMap values_;
    OrvaneAtomicInt nextHandle_;
    std::map<uint32_t, Cursor> cursors_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_BUCKETCONTENTS_H
