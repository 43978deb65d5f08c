#ifndef ZQ_ORVANE_ENCODEDVALUES_H
#define ZQ_ORVANE_ENCODEDVALUES_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "zq/kel/AutoRef.h"
#include "zq/kel/StringBase.h"
#include "zq/orvane/BucketValue.h"

namespace zq {
namespace orvane {

class RecordReader;

// A bucket's values as a record stores them: per entry the name's form, then
// the value's. Kept only in the form a store gives them (names in folded
// order, no two alike, none empty, every value set), so that a bucket read
// and never decoded writes back the same bytes, and a lookup decodes one
// value, not all of them.
//
// Never changed once made: copies of a bucket share it across threads.
class EncodedValues {
  public:
    using Ptr = std::shared_ptr<const EncodedValues>;

    // The `count` entries at the reader, which moves past them. Null, the
    // reader left where it was, when they are not in the stored form; damage
    // throws as decoding them would.
    static Ptr read(RecordReader& reader, uint32_t count);

    uint32_t count() const { return static_cast<uint32_t>(starts_.size() - 1); }
    const unsigned char* data() const { return bytes_.data(); }
    uint32_t size() const { return static_cast<uint32_t>(bytes_.size()); }
    // What the decoded names and values would account for in a cache: 4
    // bytes per character of each name, plus each value's getMemUsage.
    uint32_t memoryUsage() const { return memory_; }

    // True with the index of the entry whose name folds like `name`; false
    // with the index where such an entry would go.
    bool find(const kel::WString& name, uint32_t& index) const;
    kel::WString nameAt(uint32_t index) const;
    kel::AutoRef<BucketValue> valueAt(uint32_t index) const;
    uint32_t tagAt(uint32_t index) const;

    // A copy with `name` = `value` at `index`, over the entry there when
    // `replacing`. Null when the entry would not read back exactly as given
    // (a character the stored form cannot hold): the caller decodes instead.
    Ptr with(uint32_t index, bool replacing, const kel::WString& name,
             const BucketValue& value) const;
    Ptr without(uint32_t index) const;

  private:
    struct Token {};

  public:
    // For make_shared, from inside this class only.
    explicit EncodedValues(Token) {}

  private:
    const unsigned char* entry(uint32_t index) const { return bytes_.data() + starts_[index]; }
    const unsigned char* valueOf(uint32_t index) const;
    bool readsBackAs(uint32_t index, const kel::WString& name, const BucketValue& value) const;
    uint32_t memoryOf(uint32_t index) const;

    std::vector<unsigned char> bytes_;
    std::vector<uint32_t> starts_;  // where each entry begins, then the end
    uint32_t memory_ = 0;           // memoryUsage
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_ENCODEDVALUES_H
