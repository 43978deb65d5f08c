#include "kel/osdep/TextFile.h"

#include <cerrno>
#include <cstring>

#include "kel/Throw.h"
#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace osdep {

namespace {

constexpr size_t kFlushAbove = 64 * 1024;

uint32_t openFlags(int mode) {
    switch (mode) {
        case TextFile::kRead:
            return FileSystem::kRead;
        case TextFile::kReadUpdate:
            return FileSystem::kReadWrite;
        case TextFile::kWrite:
            return FileSystem::kWrite | FileSystem::kCreate | FileSystem::kTruncate;
        case TextFile::kWriteUpdate:
            return FileSystem::kReadWrite | FileSystem::kCreate | FileSystem::kTruncate;
        case TextFile::kAppend:
            return FileSystem::kWrite | FileSystem::kCreate;
        case TextFile::kAppendUpdate:
            return FileSystem::kReadWrite | FileSystem::kCreate;
        default:
            ZQ_THROW_DETAIL(InvalidArgument2, "text file mode must lie in 0 to 5");
    }
}

}  // namespace

TextFile::TextFile(FileSystem& fileSystem)
    : fileSystem_(fileSystem), position_(0), append_(false) {}

TextFile::~TextFile() {
    if (file_ != nullptr) {
        close();
    }
}

bool TextFile::open(const WString& path, int mode, bool failureAllowed) {
    const uint32_t flags = openFlags(mode);
    close();
    try {
        file_ = fileSystem_.open(path, flags);
    } catch (const PosixError&) {
        if (failureAllowed) {
            return false;
        }
        throw;
    }
    position_ = 0;
    append_ = mode == kAppend || mode == kAppendUpdate;
    return true;
}

int TextFile::write(const NString& text) { return write(text.c_str(), text.length()); }

int TextFile::write(const char* text, size_t count) {
    if (file_ == nullptr) {
        return fail(EBADF);
    }
    pending_.append(text, count);
    if (pending_.size() > kFlushAbove && flush() != 0) {
        return -1;
    }
    return static_cast<int>(count);
}

int TextFile::flush() {
    if (file_ == nullptr) {
        return fail(EBADF);
    }
    if (pending_.empty()) {
        return 0;
    }
    try {
        if (append_) {
            position_ = file_->size();
        }
        file_->writeAt(position_, pending_.data(), pending_.size());
    } catch (const PosixError& error) {
        return fail(error.osErrorCode());
    }
    position_ += static_cast<int64_t>(pending_.size());
    pending_.clear();
    return 0;
}

int TextFile::sync() {
    if (flush() != 0) {
        return -1;
    }
    try {
        file_->sync();
    } catch (const PosixError& error) {
        return fail(error.osErrorCode());
    }
    return 0;
}

bool TextFile::readLine(NString& line) {
    if (file_ == nullptr) {
        throw PosixError(EBADF, "readLine", __LINE__, __FILE__);
    }
    if (flush() != 0) {
        throw PosixError(errno, "readLine", __LINE__, __FILE__);
    }
    std::string text;
    char chunk[256];
    for (;;) {
        const size_t got =
            file_->readAt(position_ + static_cast<int64_t>(text.size()), chunk, sizeof chunk);
        const char* newline = static_cast<const char*>(std::memchr(chunk, '\n', got));
        if (newline != nullptr) {
            text.append(chunk, static_cast<size_t>(newline - chunk));
            position_ += static_cast<int64_t>(text.size()) + 1;
            break;
        }
        text.append(chunk, got);
        if (got < sizeof chunk) {
            if (text.empty()) {
                return false;
            }
            position_ += static_cast<int64_t>(text.size());
            break;
        }
    }
    if (!text.empty() && text.back() == '\r') {
        text.pop_back();
    }
    line = NString(text.c_str(), text.size());
    return true;
}

int TextFile::close() {
    if (file_ == nullptr) {
        return 0;
    }
    int result = flush();
    std::unique_ptr<File> file = std::move(file_);
    pending_.clear();
    try {
        file->close();
    } catch (const PosixError& error) {
        result = fail(error.osErrorCode());
    }
    return result;
}

int TextFile::fail(int error) {
    errno = error;
    return -1;
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
