#include "zq/kel/StatusChain.h"

#include <memory>
#include <vector>

#include "kel/Endian.h"
#include "kel/Throw.h"

namespace zq {
namespace kel {

struct StatusChain::Entry {
    int32_t code;
    std::unique_ptr<WString> message;
};

struct StatusChain::Chain {
    std::vector<Entry> entries;
};

namespace {

constexpr size_t kWordSize = 4;

std::unique_ptr<WString> copyOf(const WString* text) {
    return text != nullptr ? std::make_unique<WString>(*text) : nullptr;
}

}  // namespace

StatusChain::StatusChain() noexcept : code_(kNotCompleted), message_(nullptr), chain_(nullptr) {}

StatusChain::StatusChain(const StatusChain& other) : StatusChain() { copyFrom(other); }

StatusChain::StatusChain(StatusChain&& other) noexcept
    : code_(other.code_), message_(other.message_), chain_(other.chain_) {
    other.code_ = kNotCompleted;
    other.message_ = nullptr;
    other.chain_ = nullptr;
}

StatusChain& StatusChain::operator=(const StatusChain& other) {
    if (this != &other) {
        StatusChain copy(other);
        *this = std::move(copy);
    }
    return *this;
}

StatusChain& StatusChain::operator=(StatusChain&& other) noexcept {
    if (this != &other) {
        dropMessage();
        dropChain();
        code_ = other.code_;
        message_ = other.message_;
        chain_ = other.chain_;
        other.code_ = kNotCompleted;
        other.message_ = nullptr;
        other.chain_ = nullptr;
    }
    return *this;
}

StatusChain::~StatusChain() {
    dropMessage();
    dropChain();
}

void StatusChain::dropMessage() noexcept {
    delete message_;
    message_ = nullptr;
}

void StatusChain::dropChain() noexcept {
    delete chain_;
    chain_ = nullptr;
}

// Builds everything first, so a failed allocation leaves this status as it was.
void StatusChain::copyFrom(const StatusChain& other) {
    std::unique_ptr<WString> message = copyOf(other.message_);
    std::unique_ptr<Chain> chain;
    if (other.chain_ != nullptr) {
        chain = std::make_unique<Chain>();
        chain->entries.reserve(other.chain_->entries.size());
        for (const Entry& entry : other.chain_->entries) {
            chain->entries.push_back(Entry{entry.code, copyOf(entry.message.get())});
        }
    }
    dropMessage();
    dropChain();
    code_ = other.code_;
    message_ = message.release();
    chain_ = chain.release();
}

void StatusChain::setMessage(const WString& message) {
    WString* copy = new WString(message);
    dropMessage();
    message_ = copy;
}

uint32_t StatusChain::getChainLength() const {
    return chain_ == nullptr ? 0 : static_cast<uint32_t>(chain_->entries.size());
}

bool StatusChain::getChainEntry(uint32_t index, int32_t& code, const WString*& message) const {
    if (index >= getChainLength()) {
        return false;
    }
    const Entry& entry = chain_->entries[index];
    code = entry.code;
    message = entry.message.get();
    return true;
}

void StatusChain::appendToChain(int32_t code, const WString* message) {
    Entry entry{code, copyOf(message)};
    if (chain_ == nullptr) {
        chain_ = new Chain();
    }
    chain_->entries.push_back(std::move(entry));
}

void StatusChain::setCode(int32_t code) {
    code_ = code;
    dropMessage();
}

void StatusChain::clear() {
    dropChain();
    code_ = 0;
    dropMessage();
}

void StatusChain::beginCall() {
    dropChain();
    code_ = kNotCompleted;
    dropMessage();
}

void StatusChain::merge(const StatusChain& other) {
    if (this == &other || code_ == other.code_) {
        return;
    }
    const bool completed = code_ != kNotCompleted;
    const bool keep = completed && other.code_ >= 0 && (code_ < 0 || other.code_ == 0);
    if (!keep) {
        copyFrom(other);
    }
}

uint32_t StatusChain::serializationSize() const {
    return static_cast<uint32_t>(kWordSize) +
           (message_ != nullptr ? message_->serializationSize() : static_cast<uint32_t>(kWordSize));
}

void StatusChain::serialize(unsigned char*& cursor, const unsigned char* end) const {
    if (cursor > end || static_cast<size_t>(end - cursor) < serializationSize()) {
        ZQ_THROW(BufferOverflow);
    }
    putU32(cursor, static_cast<uint32_t>(code_));
    cursor += kWordSize;
    if (message_ != nullptr) {
        message_->serialize(cursor, end);
    } else {
        putU32(cursor, 0);
        cursor += kWordSize;
    }
}

void StatusChain::deserialize(const unsigned char*& cursor, const unsigned char* end) {
    if (cursor > end || static_cast<size_t>(end - cursor) < 2 * kWordSize) {
        ZQ_THROW(DeserializationError);
    }
    const auto code = static_cast<int32_t>(getU32(cursor));
    const unsigned char* at = cursor + kWordSize;
    std::unique_ptr<WString> message;
    if (getU32(at) != 0) {
        message = std::make_unique<WString>();
        message->deserialize(at, end);
    } else {
        at += kWordSize;
    }
    // Only a whole record changes the status.
    code_ = code;
    dropMessage();
    message_ = message.release();
    cursor = at;
}

}  // namespace kel
}  // namespace zq
