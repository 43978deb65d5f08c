#include "source/TouchFile.h"

#include <atomic>
#include <cerrno>
#include <memory>

#include "kel/Throw.h"
#include "kel/osdep/Path.h"
#include "source/Options.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace orvane {

namespace {

using kel::WString;
using kel::osdep::File;
using kel::osdep::FileSystem;

std::atomic<uint64_t> temporaryCounter{0};

// The first failure is the one to report; the clean-up at the next start
// removes a leftover.
void removeQuietly(FileSystem& fs, const WString& path) noexcept {
    try {
        fs.removeFile(path, FileSystem::kRemoveIfPresent);
    } catch (...) {
    }
}

WString temporaryNameFor(const WString& path) {
    WString name(path);
    name += L".";
    name += WString::fromInt(static_cast<int64_t>(++temporaryCounter));
    name += L".tmp";
    return name;
}

void applyOwnership(File& file, const Options* options) {
    if (options == nullptr) {
        return;
    }
    if (options->isSet(Options::kDBOwner) && options->isSet(Options::kDBGroup)) {
        file.changeOwner(static_cast<uint32_t>(options->number(Options::kDBOwner)),
                         static_cast<uint32_t>(options->number(Options::kDBGroup)));
    }
    if (options->isSet(Options::kDBMode)) {
        file.changeMode(static_cast<uint32_t>(options->number(Options::kDBMode)));
    }
}

std::unique_ptr<File> createTemporary(FileSystem& fs, const WString& temporary,
                                      const Options* options) {
    std::unique_ptr<File> file = fs.open(
        temporary, FileSystem::kReadWrite | FileSystem::kCreate | FileSystem::kExclusive, 0666);
    try {
        applyOwnership(*file, options);
    } catch (...) {
        file.reset();
        removeQuietly(fs, temporary);
        throw;
    }
    return file;
}

}  // namespace

void touchFile(FileSystem& fs, const WString& path, const Options* options) {
    if (fs.fileExists(path)) {
        return;
    }
    const WString temporary = temporaryNameFor(path);
    std::unique_ptr<File> file = createTemporary(fs, temporary, options);
    try {
        file->close();
        fs.rename(temporary, path);
    } catch (...) {
        file.reset();
        removeQuietly(fs, temporary);
        throw;
    }
}

AtomicFileWriter::AtomicFileWriter(FileSystem& fs, const WString& path, const std::string& bytes,
                                   const Options* options)
    : fs_(fs), path_(path), temporary_(temporaryNameFor(path)) {
    file_ = createTemporary(fs, temporary_, options);
    write(bytes);
}

AtomicFileWriter::AtomicFileWriter(FileSystem& fs, const WString& path, const std::string& bytes,
                                   const Options* options, const WString& temporary)
    : fs_(fs), path_(path), temporary_(temporary) {
    try {
        file_ = createTemporary(fs, temporary, options);
    } catch (const kel::osdep::PosixError& e) {
        if (e.osErrorCode() != EEXIST) {
            throw;
        }
        fs.removeFile(temporary, FileSystem::kRemoveIfPresent);
        file_ = createTemporary(fs, temporary, options);
    }
    write(bytes);
}

void AtomicFileWriter::write(const std::string& bytes) {
    try {
        if (!bytes.empty()) {
            file_->writeAt(0, bytes.data(), bytes.size());
        }
        if (file_->size() > static_cast<int64_t>(bytes.size())) {
            file_->truncate(static_cast<int64_t>(bytes.size()));
        }
    } catch (...) {
        file_.reset();
        removeQuietly(fs_, temporary_);
        throw;
    }
}

AtomicFileWriter::~AtomicFileWriter() {
    if (!published_) {
        file_.reset();
        removeQuietly(fs_, temporary_);
    }
}

void AtomicFileWriter::publish() {
    file_->sync();
    rename();
    fs_.syncDirectory(kel::osdep::parentOf(path_));
}

void AtomicFileWriter::publishVisible() { rename(); }

void AtomicFileWriter::rename() {
    file_->close();
    fs_.rename(temporary_, path_);
    published_ = true;
}

void removeTemporaryFiles(FileSystem& fs, const WString& directory) {
    if (!fs.isDirectory(directory)) {
        ZQ_THROW(InvalidArgument);
    }
    for (const WString& path : fs.findFiles(kel::osdep::join(directory, WString(L"*.tmp")))) {
        fs.removeFile(path, FileSystem::kRemoveMustExist);
    }
}

}  // namespace orvane
}  // namespace zq
