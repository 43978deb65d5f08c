#include "source/StoreCheck.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <set>
#include <thread>

#include "kel/Endian.h"
#include "kel/osdep/Path.h"
#include "source/CommitMarks.h"
#include "source/StoreIndex.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace orvane {

namespace {

using kel::WString;
using kel::osdep::File;
using kel::osdep::FileSystem;

const char kData[] = "registry.bin";

std::string range(int64_t from, int64_t to) {
    return "[" + std::to_string(from) + ", " + std::to_string(to) + ")";
}

std::string narrow(const WString& text) { return kel::NString(text).c_str(); }

}  // namespace

StoreCheck::StoreCheck(FileSystem& fs, const WString& directory) {
    findFile(fs, directory);
    if (found()) {
        walk();
    }
}

StoreCheck::~StoreCheck() = default;
StoreCheck::StoreCheck(StoreCheck&&) noexcept = default;
StoreCheck& StoreCheck::operator=(StoreCheck&&) noexcept = default;

void StoreCheck::addProblem(const std::string& file, int64_t offset, const std::string& message) {
    problems_.push_back(Problem{file, offset, message});
}

// The mark is read between two looks at the name, as a reader's open reads
// it; a compaction's swap between them is waited out.
void StoreCheck::findFile(FileSystem& fs, const WString& directory) {
    const WString path = kel::osdep::join(directory, WString(L"registry.bin"));
    constexpr int kAttempts = 10;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (attempt > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(attempt));
        }
        if (!fs.stat(path).exists) {
            continue;
        }
        file_ = fs.open(path, FileSystem::kRead);
        const File::Identity identity = file_->identity();
        problems_.clear();
        notes_.clear();
        readMark(fs, directory);
        const FileSystem::Status after = fs.stat(path);
        if (after.exists && after.device == identity.device && after.inode == identity.inode) {
            return;
        }
    }
    file_.reset();
}

void StoreCheck::readMark(FileSystem& fs, const WString& directory) {
    CommitMarks marks(fs, directory, nullptr);
    const CommitMarks::Survey survey = marks.survey();
    generation_ = 0;
    committedLength_ = 0;
    for (const WString& name : survey.strangers) {
        notes_.push_back(narrow(name) +
                         " is not a commit mark; the next open refuses it unless it is a *.tmp "
                         "file, which the library removes");
    }
    for (const auto& [generation, path] : survey.marks) {
        generation_ = std::max(generation_, generation);
    }
    for (const auto& [generation, path] : survey.marks) {
        if (generation != generation_) {
            notes_.push_back(narrow(kel::osdep::baseName(path)) +
                             " is an older commit mark; the next open removes it");
        }
    }
    if (generation_ == 0) {
        return;
    }
    const std::string name = narrow(CommitMarks::nameOf(generation_));
    try {
        committedLength_ = marks.lengthIn(marks.pathOf(generation_));
    } catch (const kel::osdep::PosixError& e) {
        addProblem(name, 0, "cannot be read: " + std::string(std::strerror(e.osErrorCode())));
        generation_ = -1;
        return;
    }
    if (committedLength_ < 0) {
        addProblem(name, 0, "the commit mark does not hold a length");
        generation_ = -1;
    }
}

int64_t StoreCheck::i64(int64_t at) const {
    return static_cast<int64_t>(kel::getU64(bytes_.data() + at));
}

void StoreCheck::walk() {
    if (generation_ < 0) {
        return;
    }
    fileSize_ = file_->size();
    if (generation_ == 0) {
        // The store's own rule for a missing mark: the whole, verified
        // segments from the start are what was committed.
        committedLength_ = longestWholePrefix(*file_, fileSize_);
        if (fileSize_ > 0) {
            notes_.push_back(
                "no commit mark: the next open keeps the whole, verified segments "
                "from the start (" +
                std::to_string(committedLength_) + " of " + std::to_string(fileSize_) +
                " bytes) and writes one");
        }
    } else if (fileSize_ < committedLength_) {
        addProblem(
            kData, fileSize_,
            "the file ends here, before the committed length " + std::to_string(committedLength_));
        return;
    } else if (fileSize_ > committedLength_) {
        const int64_t rolled = wholeSegmentsEnd(*file_, committedLength_, fileSize_);
        if (rolled > committedLength_) {
            notes_.push_back(std::to_string(rolled - committedLength_) +
                             " bytes after the committed length hold whole, verified segments "
                             "(commits whose mark was lost); the next open keeps them");
        }
        if (fileSize_ > rolled) {
            notes_.push_back(std::to_string(fileSize_ - rolled) +
                             " bytes after the committed length (an unfinished commit); the next "
                             "open cuts them");
        }
    }
    bytes_.resize(static_cast<size_t>(committedLength_));
    file_->readFully(0, bytes_.data(), bytes_.size());
    for (int64_t end = committedLength_; end > 0;) {
        end = walkSegment(end);
    }
    collectLive();
}

// One segment, read back from its end as the store reads it, every field
// checked. Returns the segment's start, or -1 when the walk cannot go on.
int64_t StoreCheck::walkSegment(int64_t end) {
    using namespace segment;
    constexpr int64_t kSmallest = kHeaderSize + kIndexHeaderSize + kTrailerSize;
    const std::string at = "segment ending at " + std::to_string(end) + ": ";
    if (end < kSmallest) {
        addProblem(
            kData, end,
            at + "shorter than the smallest segment (" + std::to_string(kSmallest) + " bytes)");
        return -1;
    }
    const int64_t x = end - kTrailerSize;
    if (std::memcmp(bytes_.data() + end - kMarkSize, kMark, kMarkSize) != 0) {
        addProblem(kData, end - static_cast<int64_t>(kMarkSize),
                   at + "the mark \"" + kMark + "\" is missing");
    }
    const int64_t start = i64(end - kStartFromEnd);
    if (start < 0 || start > end - kSmallest) {
        addProblem(kData, end - kStartFromEnd,
                   at + "its start " + std::to_string(start) + " lies outside " +
                       range(0, end - kSmallest + 1));
        return -1;
    }
    Segment segment;
    segment.start = start;
    segment.end = end;
    const std::string in = "segment " + range(start, end) + ": ";
    if (i64(start) != end - kStartFromEnd) {
        addProblem(kData, start,
                   in + "trailer position " + std::to_string(i64(start)) + ", expected " +
                       std::to_string(end - kStartFromEnd));
    }
    if (!segmentVerifies(*file_, start, end)) {
        addProblem(
            kData, end - kChecksumFromEnd,
            in + "the checksum over " + range(start, end - kUncheckedTail) + " does not match");
        segment.checksumFails = true;
    }
    const int64_t index = i64(start + 8);
    if (i64(x) != index) {
        addProblem(kData, x,
                   in + "repeated index position " + std::to_string(i64(x)) +
                       " differs from the index position " + std::to_string(index));
    }
    if (index < start + kHeaderSize || index > x - kIndexHeaderSize) {
        addProblem(kData, start + 8,
                   in + "index position " + std::to_string(index) + " lies outside " +
                       range(start + kHeaderSize, x - kIndexHeaderSize + 1));
    } else {
        checkEntries(segment, index, x);
    }
    segments_.push_back(std::move(segment));
    return start;
}

void StoreCheck::checkEntries(Segment& segment, int64_t index, int64_t x) {
    using namespace segment;
    const int64_t start = segment.start;
    const std::string in = "segment " + range(start, segment.end) + ": ";
    const int64_t previous = i64(index);
    if (previous < 0 || previous > start) {
        addProblem(kData, index,
                   in + "previous index position " + std::to_string(previous) + " lies outside " +
                       range(0, start + 1));
    }
    const uint32_t updates = kel::getU32(bytes_.data() + index + 8);
    const uint32_t deletes = kel::getU32(bytes_.data() + index + 12);
    const int64_t entriesEnd =
        index + kIndexHeaderSize + kUpdateEntrySize * updates + kDeletionEntrySize * deletes;
    if (entriesEnd != x) {
        addProblem(kData, index + 8,
                   in + std::to_string(updates) + " update and " + std::to_string(deletes) +
                       " deletion entries do not fill the index " +
                       range(index + kIndexHeaderSize, x));
    }
    if (entriesEnd > x) {
        return;
    }
    for (uint32_t k = 0; k < updates; ++k) {
        const int64_t entry = index + kIndexHeaderSize + kUpdateEntrySize * k;
        Record record;
        std::memcpy(record.digest.data(), bytes_.data() + entry, record.digest.size());
        record.entry = entry;
        record.offset = i64(entry + Digest::kSize);
        if (record.offset < start + kHeaderSize || record.offset > index - kRecordLengthSize) {
            addProblem(kData, entry + Digest::kSize,
                       in + "record offset " + std::to_string(record.offset) +
                           " lies outside the record area " + range(start + kHeaderSize, index));
            continue;
        }
        record.length = i64(record.offset);
        if (record.length > index - record.offset - kRecordLengthSize) {
            addProblem(kData, record.offset,
                       in + "record length " + std::to_string(record.length) +
                           " runs past the record area, which ends at " + std::to_string(index));
            continue;
        }
        segment.records.push_back(record);
    }
    for (uint32_t k = 0; k < deletes; ++k) {
        DigestKey digest;
        std::memcpy(digest.data(),
                    bytes_.data() + index + kIndexHeaderSize + kUpdateEntrySize * updates +
                        kDeletionEntrySize * k,
                    digest.size());
        segment.deletions.push_back(digest);
    }
    checkTiling(segment, index, updates);
}

// Records lie back to back from the data start to the index.
void StoreCheck::checkTiling(const Segment& segment, int64_t index, uint32_t updates) {
    using namespace segment;
    const std::string in = "segment " + range(segment.start, segment.end) + ": ";
    std::vector<Record> sorted = segment.records;
    std::sort(sorted.begin(), sorted.end(),
              [](const Record& a, const Record& b) { return a.offset < b.offset; });
    int64_t expected = segment.start + kHeaderSize;
    for (const Record& record : sorted) {
        if (record.offset != expected) {
            addProblem(
                kData, std::min(expected, record.offset),
                in + (record.offset > expected
                          ? "bytes " + range(expected, record.offset) + " belong to no record"
                          : "the record at " + std::to_string(record.offset) +
                                " overlaps the one before it"));
        }
        expected = std::max(
            expected, record.offset + kRecordLengthSize + std::max<int64_t>(record.length, 0));
    }
    if (expected < index && updates == segment.records.size()) {
        addProblem(kData, expected,
                   in + "bytes " + range(expected, index) + " belong to no record");
    }
}

// Newest event of each digest wins, as in the store's own index.
void StoreCheck::collectLive() {
    std::set<DigestKey> deleted;
    for (const Segment& segment : segments_) {
        for (const DigestKey& digest : segment.deletions) {
            if (live_.count(digest) == 0) deleted.insert(digest);
        }
        for (const Record& record : segment.records) {
            recordBytes_ += segment::kRecordLengthSize + std::max<int64_t>(record.length, 0);
            if (deleted.count(record.digest) == 0) live_.emplace(record.digest, record);
        }
    }
    for (auto it = live_.begin(); it != live_.end();) {
        it = it->second.length > 0 ? std::next(it) : live_.erase(it);
    }
}

std::vector<unsigned char> StoreCheck::recordContent(const Record& record) const {
    const unsigned char* begin = bytes_.data() + record.offset + segment::kRecordLengthSize;
    return std::vector<unsigned char>(begin, begin + std::max<int64_t>(record.length, 0));
}

// The open drops a damaged newest segment only when all it keeps verifies;
// damage further back it reports and serves around, changing nothing.
std::string StoreCheck::damageSummary() const {
    const auto damaged = std::find_if(segments_.begin(), segments_.end(),
                                      [](const Segment& s) { return s.checksumFails; });
    if (damaged == segments_.end()) {
        return std::string();
    }
    const bool olderDamaged = segments_.back().start != 0 ||
                              std::any_of(std::next(damaged), segments_.end(),
                                          [](const Segment& s) { return s.checksumFails; });
    const std::string where = "the segment " + range(damaged->start, damaged->end) +
                              " of registry.bin, ending at offset " + std::to_string(damaged->end) +
                              ", is damaged: ";
    if (damaged == segments_.begin() && !olderDamaged) {
        return where +
               "the next open drops it, keeps a copy as registry.bin.damaged-N and serves the "
               "older segments";
    }
    return where +
           "an open serves only what was committed after it, warns (314506) and leaves the file "
           "as it is; `orvane repair` rebuilds the registry from what verifies";
}

}  // namespace orvane
}  // namespace zq
