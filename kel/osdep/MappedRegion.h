#ifndef ZQ_KEL_OSDEP_MAPPEDREGION_H
#define ZQ_KEL_OSDEP_MAPPEDREGION_H

#include <cstddef>
#include <cstdint>

namespace zq {
namespace kel {
namespace osdep {

// A part of a file mapped read-only and shared: it shows what any process
// writes to the file. Bytes past the file's end have no page behind them,
// also when the file was cut short after the map was made, so they are only
// read through copy(). Unmapped when destroyed; the File that made it may be
// closed first.
class MappedRegion {
  public:
    MappedRegion(const MappedRegion&) = delete;
    MappedRegion& operator=(const MappedRegion&) = delete;
    virtual ~MappedRegion() = default;

    // Where in the file the region starts, and how many bytes it spans.
    int64_t offset() const { return offset_; }
    size_t length() const { return length_; }

    // Copies `count` bytes from file offset `at`, which lie in the region.
    // False when a page is gone (the file is shorter now): a read of the
    // file tells what is there.
    bool copy(int64_t at, void* buffer, size_t count) const;

  protected:
    MappedRegion(const unsigned char* bytes, int64_t offset, size_t length)
        : bytes_(bytes), offset_(offset), length_(length) {}
    const unsigned char* bytes() const { return bytes_; }

  private:
    const unsigned char* bytes_;
    int64_t offset_;
    size_t length_;
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_MAPPEDREGION_H
