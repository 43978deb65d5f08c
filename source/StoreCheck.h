#ifndef ZQ_ORVANE_STORECHECK_H
#define ZQ_ORVANE_STORECHECK_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kel/osdep/FileSystem.h"
#include "source/SegmentFormat.h"

namespace zq {
namespace orvane {

// An offline check of a store directory for the tool's verify, stat and
// repair: the newest commit mark, then every segment of "registry.bin" from
// the committed end back to offset 0, every field checked and every problem
// named by its file and offset, where the store's own load stops at the
// first. The layout, the checksum and the marks are the store's own
// definitions; what an open would do about damage is said by the store's
// own rules.
//
// Reads only and takes no lock: like a reader's open, it holds open the
// file the newest mark describes (the name led to it before and after the
// mark was read), so a commit or a compaction meanwhile changes nothing it
// reads. Not synchronised.
class StoreCheck {
  public:
    struct Problem {
        std::string file;
        int64_t offset;
        std::string message;
    };
    struct Record {
        DigestKey digest;
        int64_t entry;   // offset of its update entry
        int64_t offset;  // offset of its length field
        int64_t length;  // the length field; 0 or less hides older records
    };
    struct Segment {
        int64_t start = 0;
        int64_t end = 0;
        std::vector<Record> records;  // the well-formed ones, in entry order
        std::vector<DigestKey> deletions;
        bool checksumFails = false;
    };

    // Checks the store in `directory`. Throws PosixError when a file cannot
    // be read; found() is false when there is no "registry.bin".
    StoreCheck(kel::osdep::FileSystem& fs, const kel::WString& directory);
    ~StoreCheck();
    StoreCheck(StoreCheck&&) noexcept;
    StoreCheck& operator=(StoreCheck&&) noexcept;

    bool found() const { return file_ != nullptr; }
    int64_t generation() const { return generation_; }  // 0: no mark; -1: unreadable
    int64_t committedLength() const { return committedLength_; }
    int64_t fileSize() const { return fileSize_; }
    const std::vector<Segment>& segments() const { return segments_; }  // newest first
    // The newest record of each bucket that no newer segment deleted.
    const std::map<DigestKey, Record>& live() const { return live_; }
    // Every record of every segment, length fields included.
    int64_t recordBytes() const { return recordBytes_; }
    const std::vector<Problem>& problems() const { return problems_; }
    const std::vector<std::string>& notes() const { return notes_; }  // worth knowing, not damage

    // A problem the caller found in what the check read (a record that
    // does not decode, a missing link).
    void addProblem(const std::string& file, int64_t offset, const std::string& message);
    // The bytes of a record, its length field left out.
    std::vector<unsigned char> recordContent(const Record& record) const;
    // Where the newest damaged segment ends and what the store's open does
    // about it, in one line; empty when every checksum matches.
    std::string damageSummary() const;

  private:
    void findFile(kel::osdep::FileSystem& fs, const kel::WString& directory);
    void readMark(kel::osdep::FileSystem& fs, const kel::WString& directory);
    void walk();
    int64_t walkSegment(int64_t end);
    void checkEntries(Segment& segment, int64_t index, int64_t x);
    void checkTiling(const Segment& segment, int64_t index, uint32_t updates);
    void collectLive();
    int64_t i64(int64_t at) const;

    std::unique_ptr<kel::osdep::File> file_;
    int64_t generation_ = 0;
    int64_t committedLength_ = 0;
    int64_t fileSize_ = 0;
    std::vector<unsigned char> bytes_;  // the committed part of the file
    std::vector<Segment> segments_;
    std::map<DigestKey, Record> live_;
    int64_t recordBytes_ = 0;
    std::vector<Problem> problems_;
    std::vector<std::string> notes_;
};

}  // namespace orvane
}  // namespace zq

#endif  // ZQ_ORVANE_STORECHECK_H
