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

std::vector<std::pair<int64_t, WString>> CommitMarks::list(bool skipStrangers) {
    std::vector<std::pair<int64_t, WString>> marks;
    for (const WString& name : fs_.listDirectory(directory_)) {
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
            if (!skipStrangers) {
                throw;
            }
        }
    }
    return marks;
}

int64_t CommitMarks::readLength(const WString& path) {
    std::unique_ptr<kel::osdep::File> file = fs_.open(path, FileSystem::kRead);
    char bytes[kMaxMarkBytes + 1];
    const size_t got = file->readAt(0, bytes, kMaxMarkBytes);
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

CommitMarks::Mark CommitMarks::findNewest() {
    const auto marks = list();
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
            newest.committedLength = readLength(pathOf(newest.generation));
            return newest;
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

void CommitMarks::removeAllBut(int64_t keep) { removeListedBut(list(), keep); }

void CommitMarks::removeListedBut(const std::vector<std::pair<int64_t, WString>>& marks,
                                  int64_t keep) {
    for (const auto& [generation, path] : marks) {
        if (generation != keep) {
            fs_.removeFile(path, FileSystem::kRemoveIfPresent);
        }
    }
}

void CommitMarks::write(int64_t generation, int64_t committedLength, Durability durability) {
    AtomicFileWriter writer(fs_, pathOf(generation), contentFor(committedLength), options_,
                            spareMarkPath());
    if (durability == kDurable) {
        writer.publish();
    } else {
        writer.publishVisible();
    }
    if (generation > 1) {
        try {
            fs_.removeFile(pathOf(generation - 1), FileSystem::kRemoveIfPresent);
        } catch (const kel::exception::Exception&) {
            // It stays: the new mark is in place, and an old one only costs
            // the next open a removal.
        }
    }
}

}  // namespace orvane
}  // namespace zq
