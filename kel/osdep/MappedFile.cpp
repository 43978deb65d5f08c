#include "kel/osdep/MappedFile.h"

#include <algorithm>

namespace zq {
namespace kel {
namespace osdep {

namespace {

// Room to grow into before a remap: appends are small and frequent.
constexpr int64_t kSlack = int64_t{1} << 20;
constexpr int64_t kGranule = int64_t{64} << 10;

}  // namespace

MappedFile::MappedFile(std::unique_ptr<File> file, int64_t limit)
    : file_(std::move(file)), limit_(std::max<int64_t>(limit, 0)) {
    mapFor(file_->size());
}

size_t MappedFile::readAt(int64_t offset, void* buffer, size_t count) {
    if (count != 0 && serves(offset, count) && region_->copy(offset, buffer, count)) {
        return count;
    }
    return file_->readAt(offset, buffer, count);
}

void MappedFile::writeAt(int64_t offset, const void* buffer, size_t count) {
    file_->writeAt(offset, buffer, count);
    if (region_) {
        const int64_t end = offset + static_cast<int64_t>(count);
        valid_ = std::max(valid_, std::min<int64_t>(end, static_cast<int64_t>(region_->length())));
    }
}

void MappedFile::truncate(int64_t length) {
    valid_ = std::min(valid_, std::max<int64_t>(length, 0));
    file_->truncate(length);
}

void MappedFile::close() {
    region_.reset();
    valid_ = 0;
    refused_ = true;
    file_->close();
}

bool MappedFile::serves(int64_t offset, size_t count) {
    if (refused_ || offset < 0 || static_cast<uint64_t>(count) > static_cast<uint64_t>(limit_) ||
        offset > limit_ - static_cast<int64_t>(count)) {
        return false;
    }
    const int64_t end = offset + static_cast<int64_t>(count);
    return end <= valid_ || catchUp(end);
}

// Another process may have appended since valid_ was set.
bool MappedFile::catchUp(int64_t end) {
    const int64_t size = file_->size();
    if (end > size) {
        return false;
    }
    if (!region_ || end > static_cast<int64_t>(region_->length())) {
        mapFor(size);
    }
    if (region_) {
        valid_ = std::min<int64_t>(size, static_cast<int64_t>(region_->length()));
    }
    return end <= valid_;
}

void MappedFile::mapFor(int64_t size) {
    region_.reset();
    valid_ = 0;
    const int64_t wanted = (size + size / 4 + kSlack + kGranule - 1) / kGranule * kGranule;
    const int64_t span = std::min(limit_, wanted);
    if (span > 0) {
        region_ = file_->map(0, static_cast<size_t>(span));
    }
    if (!region_) {
        refused_ = true;
        return;
    }
    valid_ = std::min(size, span);
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
