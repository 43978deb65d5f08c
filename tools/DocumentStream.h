#ifndef ORVANE_TOOLS_DOCUMENTSTREAM_H
#define ORVANE_TOOLS_DOCUMENTSTREAM_H

#include <cstddef>
#include <cstdio>
#include <iterator>
#include <map>
#include <string>
#include <vector>

namespace orvane_tool {

// A JSON document read from a file as a parser reads it, a character at a
// time. A long string of lower-case hex digits in a value's place (a blob,
// as export writes it) never reaches the parser: it is decoded into bytes
// as it is read and the parser sees a short stand-in, which take() trades
// for the bytes. A parser would hold the hex twice, as its token and as
// its raw input, and the bytes are half its size. Any other string, and a
// long one that turns out not to be such hex, passes as it is.
class DocumentStream {
  public:
    explicit DocumentStream(std::FILE* in);

    // What the parser reads: begin() to end(), once.
    class Iterator {
      public:
        using iterator_category = std::input_iterator_tag;
        using value_type = char;
        using difference_type = std::ptrdiff_t;
        using pointer = const char*;
        using reference = const char&;

        explicit Iterator(DocumentStream* stream = nullptr) : stream_(stream) {}
        char operator*() const { return stream_->current(); }
        Iterator& operator++() {
            stream_->advance();
            return *this;
        }
        bool operator==(const Iterator& other) const { return atEnd() == other.atEnd(); }
        bool operator!=(const Iterator& other) const { return !(*this == other); }

      private:
        bool atEnd() const { return stream_ == nullptr || stream_->done(); }
        DocumentStream* stream_;
    };
    Iterator begin() { return Iterator(this); }
    Iterator end() { return Iterator(); }

    // The bytes a stand-in the parser was given stands for; false when
    // `text` is no stand-in of this stream.
    bool take(const std::string& text, std::vector<unsigned char>& bytes);
    // A read error of the file, after the parse.
    bool failed() const { return std::ferror(in_) != 0; }

  private:
    char current();
    void advance() { ++position_; }
    bool done();
    void fill();
    int next() { return std::getc(in_); }
    void structure(int c);
    void stringInValuePlace();
    void spill(std::string& hex);
    void rest(int c);

    std::FILE* in_;
    std::string out_;  // what the parser reads next
    size_t position_ = 0;
    bool inString_ = false;
    std::vector<char> containers_;  // '{' or '['
    bool expectKey_ = false;
    std::string prefix_;  // of every stand-in: no document holds it by chance
    std::map<std::string, std::vector<unsigned char>> spilled_;
};

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_DOCUMENTSTREAM_H
