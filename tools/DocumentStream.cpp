#include "DocumentStream.h"

#include <random>

#include "Text.h"

namespace orvane_tool {

namespace {

// Shorter strings pass as they are: only a blob is worth the bookkeeping.
constexpr size_t kLongString = 64 * 1024;

bool isHexDigit(int c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

int nibble(int c) { return c <= '9' ? c - '0' : c - 'a' + 10; }

}  // namespace

DocumentStream::DocumentStream(std::FILE* in) : in_(in) {
    std::random_device random;
    prefix_ = "\x01orvane-blob-" + std::to_string(random()) + "-" + std::to_string(random()) + "-";
}

char DocumentStream::current() {
    fill();
    return out_[position_];
}

bool DocumentStream::done() {
    fill();
    return position_ >= out_.size();
}

void DocumentStream::fill() {
    while (position_ >= out_.size()) {
        out_.clear();
        position_ = 0;
        const int c = next();
        if (c == EOF) return;
        if (inString_) {
            rest(c);
        } else if (c == '"' && !(expectKey_ && !containers_.empty() && containers_.back() == '{')) {
            stringInValuePlace();
        } else if (c == '"') {
            out_ += '"';
            inString_ = true;
        } else {
            structure(c);
            out_ += static_cast<char>(c);
        }
    }
}

// Only where a key or a value may come next matters.
void DocumentStream::structure(int c) {
    switch (c) {
        case '{':
        case '[':
            containers_.push_back(static_cast<char>(c));
            expectKey_ = c == '{';
            break;
        case '}':
        case ']':
            if (!containers_.empty()) containers_.pop_back();
            expectKey_ = false;
            break;
        case ':':
            expectKey_ = false;
            break;
        case ',':
            expectKey_ = !containers_.empty() && containers_.back() == '{';
            break;
        default:
            break;
    }
}

// The opening quote is read, not passed on.
void DocumentStream::stringInValuePlace() {
    std::string hex;
    int c = next();
    for (; c != EOF && isHexDigit(c); c = next()) {
        hex += static_cast<char>(c);
        if (hex.size() > kLongString) {
            spill(hex);
            return;
        }
    }
    out_ = '"' + hex;
    rest(c);
}

// `hex` began a long string of hex digits: decoded as the rest is read.
void DocumentStream::spill(std::string& hex) {
    std::vector<unsigned char> bytes;
    int high = -1;
    const auto add = [&](int c) {
        if (high < 0) {
            high = nibble(c);
        } else {
            bytes.push_back(static_cast<unsigned char>(high << 4 | nibble(c)));
            high = -1;
        }
    };
    for (char c : hex)
        add(c);
    hex = std::string();
    int c = next();
    for (; c != EOF && isHexDigit(c); c = next())
        add(c);
    if (c == '"' && high < 0) {
        const std::string number = std::to_string(spilled_.size());
        spilled_[prefix_ + number] = std::move(bytes);
        // The stand-in as JSON text: the control character escaped.
        out_ = "\"\\u0001" + prefix_.substr(1) + number + "\"";
        return;
    }
    // Not a blob after all: the text goes on as it was.
    out_ = '"' + toHex(bytes.data(), bytes.size());
    if (high >= 0) out_ += "0123456789abcdef"[high];
    rest(c);
}

// One character of a string's text, an escape with the character it escapes.
void DocumentStream::rest(int c) {
    if (c == EOF) return;
    out_ += static_cast<char>(c);
    inString_ = c != '"';
    if (c == '\\') {
        const int escaped = next();
        if (escaped != EOF) out_ += static_cast<char>(escaped);
    }
}

bool DocumentStream::take(const std::string& text, std::vector<unsigned char>& bytes) {
    const auto found = spilled_.find(text);
    if (found == spilled_.end()) return false;
    bytes = std::move(found->second);
    spilled_.erase(found);
    return true;
}

}  // namespace orvane_tool
