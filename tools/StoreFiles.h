#ifndef ORVANE_TOOLS_STOREFILES_H
#define ORVANE_TOOLS_STOREFILES_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "source/SegmentFormat.h"
#include "zq/orvane/Orvane.h"

namespace zq {
namespace kel {
namespace osdep {
class Mutex;
}
}  // namespace kel
}  // namespace zq

namespace orvane_tool {

// The library's default registry directory.
std::string defaultDataDirectory();

// The name of the registry's process lock and of its change counter.
extern const wchar_t kProcessLockName[];

// Holds the registry's process lock for the scope, as a transaction does:
// no other process commits, compacts or recovers meanwhile.
class ProcessLock {
  public:
    ProcessLock();
    ~ProcessLock();
    ProcessLock(const ProcessLock&) = delete;
    ProcessLock& operator=(const ProcessLock&) = delete;

  private:
    std::unique_ptr<zq::kel::osdep::Mutex> mutex_;
};

// Something wrong in a file of the registry, at a byte offset.
struct Problem {
    std::string file;
    int64_t offset;
    std::string message;
};

struct RecordRef {
    zq::orvane::DigestKey digest;
    int64_t entry;   // offset of its update entry
    int64_t offset;  // offset of its length field
    int64_t length;  // the length field; 0 or less hides older records
};

struct SegmentRef {
    int64_t start = 0;
    int64_t end = 0;
    std::vector<RecordRef> records;  // the well-formed ones, in entry order
    std::vector<zq::orvane::DigestKey> deletions;
    bool damaged = false;  // its checksum does not match
};

// The committed state of a registry directory as its files hold it, read
// without opening the store (which would repair and compact): the newest
// commit mark, "registry.bin", and its segments walked back from the
// committed end as the store walks them, checking every field on the way.
struct StoreImage {
    std::string directory;
    int64_t generation = 0;  // 0: no commit mark
    int64_t committedLength = 0;
    int64_t fileSize = 0;
    std::vector<unsigned char> bytes;  // the committed part of "registry.bin"
    std::vector<SegmentRef> segments;  // newest first
    // Newest record of each bucket that no newer segment deleted.
    std::map<zq::orvane::DigestKey, RecordRef> live;
    int64_t recordBytes = 0;  // every record of every segment, length fields included
    std::vector<Problem> problems;
    std::vector<std::string> notes;  // worth knowing, not damage

    void problem(const std::string& file, int64_t offset, const std::string& message) {
        problems.push_back(Problem{file, offset, message});
    }
};

// Throws ToolError (not found) when the directory holds no registry.
StoreImage readStore(const std::string& directory);

// Where the newest damaged segment ends and what the library's open does
// about it, in one line; empty when every checksum matches.
std::string damageSummary(const StoreImage& image);

// The committed buckets as the files hold them, read under the process lock
// without opening the store. Commands check what they are about to change
// here first, so a refused change leaves every file as it was: the library's
// open alone may compact the file.
class OfflineView {
  public:
    explicit OfflineView(const std::string& directory);
    // The root counts as present: the library makes it on first open.
    bool exists(const zq::kel::WString& path) const;
    // Null when absent (or, for the root, not made yet).
    zq::kel::AutoRef<zq::orvane::IBucket> find(const zq::kel::WString& path) const;

  private:
    StoreImage image_;
};

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_STOREFILES_H
