#include "source/TouchFile.h"

#include <atomic>
#include <memory>

#include "kel/Throw.h"
#include "kel/osdep/Path.h"
#include "source/Options.h"

namespace zq {
namespace orvane {

namespace {

using kel::WString;
using kel::osdep::File;
using kel::osdep::FileSystem;

std::atomic<uint64_t> temporaryCounter{0};

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

// Creates the temporary file, lets `fill` write it, and gives it its name.
template <class Fill>
void createUnderTemporaryName(FileSystem& fs, const WString& path, const Options* options,
                              Fill&& fill) {
    const WString temporary = temporaryNameFor(path);
    std::unique_ptr<File> file = fs.open(
        temporary, FileSystem::kReadWrite | FileSystem::kCreate | FileSystem::kExclusive, 0666);
    try {
        applyOwnership(*file, options);
        fill(*file);
        file->close();
        fs.rename(temporary, path);
    } catch (...) {
        file.reset();
        try {
            fs.removeFile(temporary, FileSystem::kRemoveIfPresent);
        } catch (...) {
            // The first failure is the one to report; the clean-up at the
            // next start removes the leftover.
        }
        throw;
    }
}

}  // namespace

void touchFile(FileSystem& fs, const WString& path, const Options* options) {
    if (fs.fileExists(path)) {
        return;
    }
    createUnderTemporaryName(fs, path, options, [](File&) {});
}

void writeFileAtomically(FileSystem& fs, const WString& path, const std::string& bytes,
                         const Options* options) {
    createUnderTemporaryName(fs, path, options, [&bytes](File& file) {
        if (!bytes.empty()) {
            file.writeAt(0, bytes.data(), bytes.size());
        }
        file.sync();
    });
    fs.syncDirectory(kel::osdep::parentOf(path));
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
