#include "kel/osdep/FileSystem.h"

#include <fnmatch.h>

#include <cerrno>
#include <string>

#include "kel/Throw.h"
#include "kel/osdep/Path.h"
#include "kel/osdep/PosixFileSystem.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace osdep {

namespace {

bool hasWildcard(const WString& text) {
    for (wchar_t c : text) {
        if (c == L'*' || c == L'?' || c == L'[') {
            return true;
        }
    }
    return false;
}

}  // namespace

FileSystem& FileSystem::posix() {
    static PosixFileSystem* const instance = new PosixFileSystem;  // never destroyed
    return *instance;
}

bool FileSystem::mayWrite(const WString&) { return true; }

bool FileSystem::fileExists(const WString& path) {
    requireAbsolute(path);
    const Status status = stat(path);
    return status.exists && status.regular;
}

bool FileSystem::isDirectory(const WString& path) {
    const Status status = stat(path);
    return status.exists && status.directory;
}

int64_t FileSystem::getFileSize(const WString& path) {
    const Status status = stat(path);
    if (!status.exists) {
        throw PosixError(ENOENT, "getFileSize", __LINE__, __FILE__);
    }
    return status.size;
}

void FileSystem::removeFile(const WString& path, RemoveMode mode) {
    requireAbsolute(path);
    try {
        unlink(path);
    } catch (const PosixError& error) {
        if (mode != kRemoveIfPresent || error.osErrorCode() != ENOENT) {
            throw;
        }
    }
}

void FileSystem::renameFile(const WString& from, const WString& to) {
    requireAbsolute(from);
    requireAbsolute(to);
    if (from == to) {
        return;
    }
    try {
        rename(from, to);
        return;
    } catch (const PosixError& error) {
        if (error.osErrorCode() != EXDEV) {
            throw;
        }
    }
    copyFile(from, to);
    try {
        unlink(from);
    } catch (...) {
        // Two copies would be two truths; keep the source, which is complete.
        try {
            unlink(to);
        } catch (...) {
        }
        throw;
    }
}

// The copy gets its final name by a rename on the target's file system, so
// the target never holds a partial copy, even across a crash.
void FileSystem::copyFile(const WString& from, const WString& to) {
    WString temporary(to);
    temporary += L".copy.tmp";
    try {
        std::unique_ptr<File> source = open(from, kRead);
        std::unique_ptr<File> target =
            open(temporary, kWrite | kCreate | kTruncate, stat(from).permissions);
        unsigned char buffer[64 * 1024];
        int64_t offset = 0;
        for (;;) {
            const size_t got = source->readAt(offset, buffer, sizeof buffer);
            if (got == 0) {
                break;
            }
            target->writeAt(offset, buffer, got);
            offset += static_cast<int64_t>(got);
        }
        target->sync();
        target->close();
        source->close();
        rename(temporary, to);
        syncDirectory(parentOf(to));
    } catch (...) {
        try {
            unlink(temporary);
        } catch (...) {
        }
        throw;
    }
}

std::vector<WString> FileSystem::findFiles(const WString& pattern) {
    const WString directory = parentOf(pattern);
    if (hasWildcard(directory)) {
        ZQ_THROW_DETAIL(InvalidArgument2, "wildcards are matched in the last path component only");
    }
    const NString namePattern(baseName(pattern));
    std::vector<WString> found;
    for (const WString& name : listDirectory(directory)) {
        if (fnmatch(namePattern.c_str(), NString(name).c_str(), FNM_PERIOD) == 0) {
            found.push_back(join(directory == WString(L"/") ? WString() : directory, name));
        }
    }
    return found;
}

void FileSystem::createDirectories(const WString& path, uint32_t permissions) {
    if (path.empty()) {
        return;
    }
    const Status status = stat(path);
    if (status.exists) {
        if (!status.directory) {
            throw PosixError(ENOTDIR, "createDirectories", __LINE__, __FILE__);
        }
        return;
    }
    const WString parent = parentOf(path);
    if (parent != path && parent != WString(L".")) {
        createDirectories(parent, permissions);
    }
    try {
        makeDirectory(path, permissions);
    } catch (const PosixError& error) {
        // Another process may have made it meanwhile.
        if (error.osErrorCode() != EEXIST || !isDirectory(path)) {
            throw;
        }
    }
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
