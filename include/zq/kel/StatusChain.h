#ifndef ZQ_KEL_STATUSCHAIN_H
#define ZQ_KEL_STATUSCHAIN_H

#include <cstdint>

#include "zq/kel/Export.h"
#include "zq/kel/StringBase.h"

namespace zq {
namespace kel {

// The outcome of a call: a signed code (negative error, 0 success, positive
// warning), an optional message for that code, and a chain of earlier
// entries. A new status holds 0x80004005, "not completed", which counts as an
// error. Not shared between threads.
class ZQ_EXPORT StatusChain {
  public:
    static constexpr int32_t kNotCompleted = static_cast<int32_t>(0x80004005u);

    StatusChain() noexcept;
    StatusChain(const StatusChain& other);
    StatusChain(StatusChain&& other) noexcept;
    StatusChain& operator=(const StatusChain& other);
    StatusChain& operator=(StatusChain&& other) noexcept;
    ~StatusChain();

    int32_t getCode() const { return code_; }
    const WString* getMessage() const { return message_; }
    void setMessage(const WString& message);
    uint32_t getChainLength() const;
    // Code and message of chained entry `index` (0 is the oldest); false when
    // there is no such entry.
    bool getChainEntry(uint32_t index, int32_t& code, const WString*& message) const;
    // Moves nothing: appends a copy of (code, message) to the chain.
    void appendToChain(int32_t code, const WString* message);

    bool isFatal() const { return code_ < 0; }
    bool isNotFatal() const { return code_ >= 0; }
    bool hasCode() const { return code_ != 0 && code_ != kNotCompleted; }

    // Stores the code whatever was held before and drops the message; the
    // chain stays. Callers that must keep an earlier error test isNotFatal().
    void setCode(int32_t code);
    void clear();
    void beginCall();
    // An unset status takes anything; an error wins over what is held; a
    // warning replaces a success or a warning; a success replaces nothing.
    void merge(const StatusChain& other);

    // Code (4 bytes, host order), then the message's stored form or 4 zero
    // bytes. The chain is not written.
    uint32_t serializationSize() const;
    void serialize(unsigned char*& cursor, const unsigned char* end) const;
    void deserialize(const unsigned char*& cursor, const unsigned char* end);

  private:
    struct Entry;
    struct Chain;

    void dropMessage() noexcept;
    void dropChain() noexcept;
    void copyFrom(const StatusChain& other);

    int32_t code_;
    WString* message_;
    Chain* chain_;
};

}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_STATUSCHAIN_H
