#include "StoreFiles.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>

#include "Tool.h"
#include "kel/Endian.h"
#include "kel/osdep/FileSystem.h"
#include "kel/osdep/Mutex.h"
#include "source/Options.h"
#include "zq/orvane/Bucket.h"

namespace orvane_tool {

using zq::kel::WString;
using zq::orvane::DigestKey;
namespace seg = zq::orvane::segment;

std::string defaultDataDirectory() {
    return zq::kel::NString(zq::orvane::Options::defaultRegistryDirectory()).c_str();
}

const wchar_t kProcessLockName[] = L"__zq_orvane_BucketManager_lock__";

ProcessLock::ProcessLock()
    : mutex_(std::make_unique<zq::kel::osdep::Mutex>(WString(kProcessLockName))) {
    mutex_->lock();
}

ProcessLock::~ProcessLock() { mutex_->unlock(); }

namespace {

const char kData[] = "registry.bin";

bool readFile(const std::string& path, std::vector<unsigned char>& out) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return false;
    unsigned char buffer[65536];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, f)) > 0)
        out.insert(out.end(), buffer, buffer + got);
    const bool good = std::ferror(f) == 0;
    std::fclose(f);
    return good;
}

bool allDigits(const std::string& text) {
    return !text.empty() && text.size() <= 18 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The newest "commitmark.N" and its committed length.
void readMarks(StoreImage& image) {
    const std::string prefix = "commitmark.";
    std::string newest;
    zq::kel::osdep::FileSystem& fs = zq::kel::osdep::FileSystem::posix();
    std::vector<std::string> stale;
    for (const WString& wide : fs.listDirectory(WString(image.directory.c_str()))) {
        const std::string name = zq::kel::NString(wide).c_str();
        if (name.compare(0, prefix.size(), prefix) != 0) continue;
        const std::string suffix = name.substr(prefix.size());
        if (!allDigits(suffix)) {
            image.notes.push_back(name +
                                  " is not a commit mark; the next open refuses it unless it is a "
                                  "*.tmp file, which the library removes");
            continue;
        }
        const int64_t generation = std::stoll(suffix);
        if (generation > image.generation) {
            if (!newest.empty()) stale.push_back(newest);
            image.generation = generation;
            newest = name;
        } else {
            stale.push_back(name);
        }
    }
    for (const std::string& name : stale) {
        image.notes.push_back(name + " is an older commit mark; the next open removes it");
    }
    if (newest.empty()) return;
    std::vector<unsigned char> content;
    if (!readFile(image.directory + "/" + newest, content)) {
        image.problem(newest, 0, "cannot be read: " + std::string(std::strerror(errno)));
        image.generation = -1;
        return;
    }
    std::string text(content.begin(), content.end());
    if (!text.empty() && text.back() == '\n') text.pop_back();
    if (!allDigits(text)) {
        image.problem(newest, static_cast<int64_t>(text.size()),
                      "the commit mark does not hold a length (\"" + text + "\")");
        image.generation = -1;
        return;
    }
    image.committedLength = std::stoll(text);
}

int64_t i64(const StoreImage& image, int64_t at) {
    return static_cast<int64_t>(zq::kel::getU64(image.bytes.data() + at));
}

std::string range(int64_t from, int64_t to) {
    return "[" + std::to_string(from) + ", " + std::to_string(to) + ")";
}

// One segment, read back from its end as the store reads it, every field
// checked. Returns the segment's start, or -1 when the walk cannot go on.
int64_t walkSegment(StoreImage& image, int64_t end) {
    constexpr int64_t kSmallest = seg::kHeaderSize + seg::kIndexHeaderSize + seg::kTrailerSize;
    const std::string at = "segment ending at " + std::to_string(end) + ": ";
    if (end < kSmallest) {
        image.problem(
            kData, end,
            at + "shorter than the smallest segment (" + std::to_string(kSmallest) + " bytes)");
        return -1;
    }
    const int64_t x = end - seg::kTrailerSize;
    if (std::memcmp(image.bytes.data() + end - seg::kMarkSize, seg::kMark, seg::kMarkSize) != 0) {
        image.problem(kData, end - static_cast<int64_t>(seg::kMarkSize),
                      at + "the mark \"@@@@SFBSMARK@@@@\" is missing");
    }
    const int64_t start = i64(image, end - seg::kStartFromEnd);
    if (start < 0 || start > end - kSmallest) {
        image.problem(kData, end - seg::kStartFromEnd,
                      at + "its start " + std::to_string(start) + " lies outside " +
                          range(0, end - kSmallest + 1));
        return -1;
    }
    SegmentRef segment;
    segment.start = start;
    segment.end = end;
    const std::string in = "segment " + range(start, end) + ": ";
    const int64_t trailer = i64(image, start);
    if (trailer != end - seg::kStartFromEnd) {
        image.problem(kData, start,
                      in + "trailer position " + std::to_string(trailer) + ", expected " +
                          std::to_string(end - seg::kStartFromEnd));
    }
    const zq::orvane::Digest checksum =
        zq::orvane::segmentChecksum(image.bytes.data() + start, x + 7 - start);
    if (std::memcmp(checksum.bytes(), image.bytes.data() + x + 8, zq::orvane::Digest::kSize) != 0) {
        image.problem(kData, x + 8,
                      in + "the checksum over " + range(start, x + 7) + " does not match");
        segment.damaged = true;
    }
    const int64_t index = i64(image, start + 8);
    if (i64(image, x) != index) {
        image.problem(kData, x,
                      in + "repeated index position " + std::to_string(i64(image, x)) +
                          " differs from the index position " + std::to_string(index));
    }
    if (index < start + seg::kHeaderSize || index > x - seg::kIndexHeaderSize) {
        image.problem(kData, start + 8,
                      in + "index position " + std::to_string(index) + " lies outside " +
                          range(start + 16, x - 15));
        image.segments.push_back(segment);
        return start;
    }
    const int64_t previous = i64(image, index);
    if (previous < 0 || previous > start) {
        image.problem(kData, index,
                      in + "previous index position " + std::to_string(previous) +
                          " lies outside " + range(0, start + 1));
    }
    const uint32_t updates = zq::kel::getU32(image.bytes.data() + index + 8);
    const uint32_t deletes = zq::kel::getU32(image.bytes.data() + index + 12);
    const int64_t entriesEnd = index + seg::kIndexHeaderSize + seg::kUpdateEntrySize * updates +
                               seg::kDeletionEntrySize * deletes;
    if (entriesEnd != x) {
        image.problem(kData, index + 8,
                      in + std::to_string(updates) + " update and " + std::to_string(deletes) +
                          " deletion entries do not fill the index " + range(index + 16, x));
    }
    if (entriesEnd <= x) {
        for (uint32_t k = 0; k < updates; ++k) {
            const int64_t entry = index + seg::kIndexHeaderSize + seg::kUpdateEntrySize * k;
            RecordRef record;
            std::memcpy(record.digest.data(), image.bytes.data() + entry, record.digest.size());
            record.entry = entry;
            record.offset = i64(image, entry + 32);
            if (record.offset < start + seg::kHeaderSize ||
                record.offset > index - seg::kRecordLengthSize) {
                image.problem(kData, entry + 32,
                              in + "record offset " + std::to_string(record.offset) +
                                  " lies outside the record area " + range(start + 16, index));
                continue;
            }
            record.length = i64(image, record.offset);
            if (record.length > index - record.offset - seg::kRecordLengthSize) {
                image.problem(kData, record.offset,
                              in + "record length " + std::to_string(record.length) +
                                  " runs past the record area, which ends at " +
                                  std::to_string(index));
                continue;
            }
            segment.records.push_back(record);
        }
        for (uint32_t k = 0; k < deletes; ++k) {
            DigestKey digest;
            std::memcpy(digest.data(),
                        image.bytes.data() + index + seg::kIndexHeaderSize +
                            seg::kUpdateEntrySize * updates + seg::kDeletionEntrySize * k,
                        digest.size());
            segment.deletions.push_back(digest);
        }
        // Records lie back to back from the data start to the index.
        std::vector<RecordRef> sorted = segment.records;
        std::sort(sorted.begin(), sorted.end(),
                  [](const RecordRef& a, const RecordRef& b) { return a.offset < b.offset; });
        int64_t expected = start + seg::kHeaderSize;
        for (const RecordRef& record : sorted) {
            if (record.offset != expected) {
                image.problem(
                    kData, std::min(expected, record.offset),
                    in + (record.offset > expected
                              ? "bytes " + range(expected, record.offset) + " belong to no record"
                              : "the record at " + std::to_string(record.offset) +
                                    " overlaps the one before it"));
            }
            expected = std::max(expected, record.offset + seg::kRecordLengthSize +
                                              std::max<int64_t>(record.length, 0));
        }
        if (expected < index && updates == segment.records.size()) {
            image.problem(kData, expected,
                          in + "bytes " + range(expected, index) + " belong to no record");
        }
    }
    image.segments.push_back(segment);
    return start;
}

// Newest event of each digest wins, as in the store's own index.
void collectLive(StoreImage& image) {
    std::set<DigestKey> deleted;
    for (const SegmentRef& segment : image.segments) {
        for (const DigestKey& digest : segment.deletions) {
            if (image.live.count(digest) == 0) deleted.insert(digest);
        }
        for (const RecordRef& record : segment.records) {
            image.recordBytes += seg::kRecordLengthSize + std::max<int64_t>(record.length, 0);
            if (deleted.count(record.digest) == 0) image.live.emplace(record.digest, record);
        }
    }
    for (auto it = image.live.begin(); it != image.live.end();) {
        it = it->second.length > 0 ? std::next(it) : image.live.erase(it);
    }
}

}  // namespace

StoreImage readStore(const std::string& directory) {
    StoreImage image;
    image.directory = directory;
    const std::string path = directory + "/" + kData;
    struct stat info;
    if (::stat(path.c_str(), &info) != 0) {
        throw ToolError(kExitNotFound, "no registry in " + directory);
    }
    readMarks(image);
    if (image.generation < 0) return image;
    if (!readFile(path, image.bytes)) {
        throw ToolError(kExitStore, "cannot read " + path + ": " + std::strerror(errno));
    }
    image.fileSize = static_cast<int64_t>(image.bytes.size());
    if (image.generation == 0) {
        if (image.fileSize > 0) {
            image.problem(kData, 0,
                          "no commit mark: none of the file's " + std::to_string(image.fileSize) +
                              " bytes is committed, and the next open discards them");
        }
        return image;
    }
    if (image.fileSize < image.committedLength) {
        image.problem(kData, image.fileSize,
                      "the file ends here, before the committed length " +
                          std::to_string(image.committedLength));
        return image;
    }
    if (image.fileSize > image.committedLength) {
        image.notes.push_back(std::to_string(image.fileSize - image.committedLength) +
                              " bytes after the committed length (an unfinished commit); the next "
                              "open cuts them");
    }
    image.bytes.resize(static_cast<size_t>(image.committedLength));
    for (int64_t end = image.committedLength; end > 0;) {
        end = walkSegment(image, end);
    }
    collectLive(image);
    return image;
}

// The open drops a damaged newest segment only when all it keeps verifies;
// damage further back it reports and serves around, changing nothing.
std::string damageSummary(const StoreImage& image) {
    const auto& segments = image.segments;
    const auto damaged = std::find_if(segments.begin(), segments.end(),
                                      [](const SegmentRef& s) { return s.damaged; });
    if (damaged == segments.end()) return std::string();
    const bool olderDamaged =
        segments.back().start != 0 || std::any_of(std::next(damaged), segments.end(),
                                                  [](const SegmentRef& s) { return s.damaged; });
    const std::string where = "the segment " + range(damaged->start, damaged->end) +
                              " of registry.bin, ending at offset " + std::to_string(damaged->end) +
                              ", is damaged: ";
    if (damaged == segments.begin() && !olderDamaged) {
        return where +
               "the next open drops it, keeps a copy as registry.bin.damaged-N and serves the "
               "older segments";
    }
    return where +
           "an open serves only what was committed after it, warns (314506) and leaves the file "
           "as it is";
}

OfflineView::OfflineView(const std::string& directory) {
    ProcessLock lock;
    try {
        image_ = readStore(directory);
    } catch (const ToolError& e) {
        if (e.code() != kExitNotFound) throw;
    }
}

bool OfflineView::exists(const WString& path) const {
    return path == WString(L"/") ||
           image_.live.count(zq::orvane::keyOf(zq::orvane::Digest(path))) != 0;
}

zq::kel::AutoRef<zq::orvane::IBucket> OfflineView::find(const WString& path) const {
    const auto found = image_.live.find(zq::orvane::keyOf(zq::orvane::Digest(path)));
    if (found == image_.live.end()) return {};
    const unsigned char* cursor =
        image_.bytes.data() + found->second.offset + seg::kRecordLengthSize;
    zq::kel::AutoRef<zq::orvane::IBucket> bucket(new zq::orvane::Bucket());
    try {
        bucket->deserialize(cursor, cursor + found->second.length);
    } catch (const std::exception&) {
        return {};  // the library's own read reports it
    }
    return bucket;
}

}  // namespace orvane_tool
