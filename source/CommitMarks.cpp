#include "source/CommitMarks.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include "kel/Throw.h"
#include "kel/osdep/Path.h"
#include "source/TouchFile.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace orvane {

namespace {

using kel::NString;
using kel::WString;
using kel::osdep::FileSystem;

const wchar_t kMarkPrefix[] = L"commitmark.";
// A mark holds at most 19 digits; anything longer is not one of ours.
constexpr size_t kMaxMarkBytes = 64;

}  // namespace

int64_t parseInt64(const WString& text) {
    const size_t n = text.length();
    size_t i = (n > 0 && (text[0] == L'-' || text[0] == L'+')) ? 1 : 0;
    const bool negative = i == 1 && text[0] == L'-';
    if (i == n) {
        ZQ_THROW(UnableToConvert);
    }
    uint64_t magnitude = 0;
    const uint64_t limit = negative ? uint64_t{1} << 63 : (uint64_t{1} << 63) - 1;
    for (; i < n; ++i) {
        if (text[i] < L'0' || text[i] > L'9') {
            ZQ_THROW(UnableToConvert);
        }
        const auto digit = static_cast<uint64_t>(text[i] - L'0');
        if (magnitude > (limit - digit) / 10) {
            ZQ_THROW(UnableToConvert);
        }
        magnitude = magnitude * 10 + digit;
    }
    return negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
}

CommitMarks::CommitMarks(FileSystem& fs, const WString& directory, const Options* options)
    : fs_(fs), directory_(directory), options_(options) {}

WString CommitMarks::nameOf(int64_t generation) {
    WString name(kMarkPrefix);
    name += WString::fromInt(generation);
    return name;
}

// Byte by byte: a name in the directory need not be UTF-8.
int64_t CommitMarks::generationOf(const char* name) {
    size_t at = 0;
    for (; kMarkPrefix[at] != 0; ++at) {
        if (static_cast<wchar_t>(static_cast<unsigned char>(name[at])) != kMarkPrefix[at]) {
            return 0;
        }
    }
    int64_t generation = 0;
    for (; name[at] >= '0' && name[at] <= '9'; ++at) {
        if (generation > (INT64_MAX - 9) / 10) {
            return 0;
        }
        generation = 10 * generation + (name[at] - '0');
    }
    return name[at] == 0 ? generation : 0;
}

CommitMarks::Mark CommitMarks::peek(int64_t generation) {
    Mark mark;
    try {
        mark.committedLength = readLengthUnlocked(pathOf(generation));
    } catch (const kel::osdep::PosixError& e) {
        if (e.osErrorCode() != ENOENT) {
            throw;
        }
        return Mark();
    } catch (const kel::exception::UnableToConvert&) {
        return Mark();
    }
    if (mark.committedLength >= 0) {
        mark.generation = generation;
    }
    return mark;
}

WString CommitMarks::pathOf(int64_t generation) const {
    return kel::osdep::join(directory_, nameOf(generation));
}

WString CommitMarks::newMarkPath() const {
    return kel::osdep::join(directory_, WString(L"newCommitmark"));
}

WString CommitMarks::oldMarkPath() const {
    return kel::osdep::join(directory_, WString(L"oldCommitmark"));
}

WString CommitMarks::spareMarkPath() const {
    // Ends in ".tmp": a crash may leave it, and the clean-up at start takes it.
    return kel::osdep::join(directory_, WString(L"spareCommitmark.tmp"));
}

std::string CommitMarks::contentFor(int64_t committedLength) {
    return NString::fromInt(committedLength).c_str();
}

std::vector<std::pair<int64_t, WString>> CommitMarks::list(bool skipStrangers,
                                                           std::vector<WString>* strangers,
                                                           std::vector<WString>* names) {
    std::vector<std::pair<int64_t, WString>> marks;
    std::vector<WString> listed = fs_.listDirectory(directory_);
    for (const WString& name : listed) {
        if (!name.startsWith(WString(kMarkPrefix))) {
            continue;
        }
        // Whatever holds a mark's name is one: a directory or a FIFO there
        // fails the open rather than letting an older mark win.
        const WString path = kel::osdep::join(directory_, name);
        // The number is what follows the last dot, so "commitmark.5.17.tmp"
        // is refused rather than read as generation 5.
        const WString number = name.substr(name.rfind(L'.') + 1);
        try {
            marks.emplace_back(parseInt64(number), path);
        } catch (const kel::exception::UnableToConvert&) {
            if (strangers != nullptr) {
                strangers->push_back(name);
            } else if (!skipStrangers) {
                throw;
            }
        }
    }
    if (names != nullptr) {
        *names = std::move(listed);
    }
    return marks;
}

CommitMarks::Survey CommitMarks::survey() {
    Survey survey;
    survey.marks = list(true, &survey.strangers);
    return survey;
}

namespace {

int64_t lengthFrom(kel::osdep::File& file) {
    char bytes[kMaxMarkBytes + 1];
    const size_t got = file.readAt(0, bytes, kMaxMarkBytes);
    size_t end = 0;
    while (end < got && bytes[end] != '\n' && bytes[end] != '\r') {
        ++end;
    }
    bytes[end] = 0;
    const int64_t length = parseInt64(WString(NString(bytes)));
    if (length < 0) {
        ZQ_THROW(UnableToConvert);
    }
    return length;
}

}  // namespace

int64_t CommitMarks::readLength(const WString& path) {
    std::unique_ptr<kel::osdep::File> file = fs_.open(path, FileSystem::kRead);
    return lengthFrom(*file);
}

int64_t CommitMarks::readLengthUnlocked(const WString& path) {
    std::unique_ptr<kel::osdep::File> file = fs_.open(path, FileSystem::kRead);
    int64_t length = -1;
    try {
        length = lengthFrom(*file);
    } catch (const kel::exception::UnableToConvert&) {
        // Torn by a rewrite, perhaps: only a name that held still tells.
    }
    const FileSystem::Status now = fs_.stat(path);
    const kel::osdep::File::Identity read = file->identity();
    if (!now.exists || now.device != read.device || now.inode != read.inode) {
        return -1;
    }
    if (length < 0) {
        ZQ_THROW(UnableToConvert);
    }
    return length;
}

CommitMarks::Mark CommitMarks::findNewest(std::vector<WString>* names) {
    forgetSpare();
    const auto marks = list(false, nullptr, names);
    Mark newest;
    for (const auto& [generation, path] : marks) {
        if (generation > newest.generation) {
            newest.generation = generation;
        }
    }
    if (newest.generation < 1) {
        return Mark();
    }
    try {
        newest.committedLength = readLength(pathOf(newest.generation));
    } catch (const kel::exception::UnableToConvert&) {
        newest.readable = false;
    }
    // After the read: a newest mark that cannot be opened leaves every file as it was.
    removeListedBut(marks, newest.generation);
    return newest;
}

CommitMarks::Mark CommitMarks::peekNewest() {
    constexpr int kAttempts = 3;
    for (int attempt = 1;; ++attempt) {
        Mark newest;
        for (const auto& [generation, path] : list(true)) {
            newest.generation = std::max(newest.generation, generation);
        }
        if (newest.generation < 1) {
            return Mark();
        }
        try {
            newest.committedLength = readLengthUnlocked(pathOf(newest.generation));
            if (newest.committedLength >= 0) {
                return newest;
            }
            if (attempt == kAttempts) {
                return Mark();  // the caller looks again later
            }
        } catch (const kel::osdep::PosixError& e) {
            if (e.osErrorCode() != ENOENT || attempt == kAttempts) {
                throw;
            }
        }
    }
}

int64_t CommitMarks::lengthIn(const WString& path) {
    try {
        return readLength(path);
    } catch (const kel::exception::UnableToConvert&) {
        return -1;
    }
}

void CommitMarks::removeAllBut(int64_t keep) {
    forgetSpare();
    removeListedBut(list(), keep);
}

void CommitMarks::forgetSpare() {
    writtenGeneration_ = 0;
    spareKnown_ = false;
    writtenFile_.reset();
    spareFile_.reset();
}

void CommitMarks::removeListedBut(const std::vector<std::pair<int64_t, WString>>& marks,
                                  int64_t keep) {
    for (const auto& [generation, path] : marks) {
        if (generation != keep) {
            fs_.removeFile(path, FileSystem::kRemoveIfPresent);
        }
    }
}

// The name must still lead to the file this object parked there: a stat
// tells when the file is open already.
std::unique_ptr<kel::osdep::File> CommitMarks::takeSpare() {
    if (!spareKnown_) {
        return nullptr;
    }
    spareKnown_ = false;
    std::unique_ptr<kel::osdep::File> file = std::move(spareFile_);
    try {
        if (file) {
            const FileSystem::Status now = fs_.stat(spareMarkPath());
            if (now.exists && now.device == spare_.device && now.inode == spare_.inode) {
                return file;
            }
            return nullptr;
        }
        file = fs_.open(spareMarkPath(), FileSystem::kReadWrite);
        if (file->identity() == spare_) {
            spareBytes_ = static_cast<size_t>(file->size());
            return file;
        }
    } catch (const kel::osdep::PosixError&) {
        // Gone or unusable: a fresh file serves instead.
    }
    return nullptr;
}

void CommitMarks::rewriteSpare(kel::osdep::File& spare, const WString& path,
                               const std::string& bytes) {
    try {
        spare.writeAt(0, bytes.data(), bytes.size());
        if (spareBytes_ > bytes.size()) {
            spare.truncate(static_cast<int64_t>(bytes.size()));
        }
        fs_.rename(spareMarkPath(), path);
    } catch (...) {
        try {
            fs_.removeFile(spareMarkPath(), FileSystem::kRemoveIfPresent);
        } catch (...) {
            // The first failure is the one to report.
        }
        throw;
    }
}

void CommitMarks::write(int64_t generation, int64_t committedLength, Durability durability) {
    const bool follows =
        durability == kVisible && generation > 1 && writtenGeneration_ == generation - 1;
    const kel::osdep::File::Identity previous = written_;
    const kel::osdep::File::Identity spareIdentity = spare_;
    std::unique_ptr<kel::osdep::File> spare = follows ? takeSpare() : nullptr;
    std::unique_ptr<kel::osdep::File> previousFile = follows ? std::move(writtenFile_) : nullptr;
    const size_t previousBytes = writtenBytes_;
    // Until this write is done a failure may leave any file under any name.
    forgetSpare();
    const WString path = pathOf(generation);
    const std::string bytes = contentFor(committedLength);
    kel::osdep::File::Identity written;
    if (spare) {
        rewriteSpare(*spare, path, bytes);
        written = spareIdentity;
    } else {
        AtomicFileWriter writer(fs_, path, bytes, options_, spareMarkPath());
        written = writer.identity();
        if (durability == kDurable) {
            writer.publish();
        } else {
            writer.publishVisible();
        }
    }
    bool parked = false;
    if (generation > 1) {
        try {
            if (follows) {
                fs_.rename(pathOf(generation - 1), spareMarkPath());
                parked = true;
            } else {
                fs_.removeFile(pathOf(generation - 1), FileSystem::kRemoveIfPresent);
            }
        } catch (const kel::exception::Exception&) {
            // It stays: the new mark is in place, and an old one only costs
            // the next open a removal.
        }
    }
    writtenGeneration_ = generation;
    written_ = written;
    writtenFile_ = std::move(spare);
    writtenBytes_ = bytes.size();
    spareKnown_ = parked;
    spare_ = previous;
    if (parked) {
        spareFile_ = std::move(previousFile);
        spareBytes_ = previousBytes;
    }
}

}  // namespace orvane
}  // namespace zq
