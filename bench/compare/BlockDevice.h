// What a block device has written since boot, from its counters in /sys:
// what the flash under a store wears, the file system's journal and
// metadata included, and whatever other processes write to the same device.
#ifndef ORVANE_BENCH_COMPARE_BLOCKDEVICE_H
#define ORVANE_BENCH_COMPARE_BLOCKDEVICE_H

#include <cstdint>
#include <memory>
#include <string>

namespace compare {

class BlockDevice {
  public:
    // The device under `path`'s file system, or nullptr with `why` set when
    // it has none with counters (tmpfs, overlay, btrfs's anonymous devices).
    static std::unique_ptr<BlockDevice> under(const std::string& path, std::string& why);

    const std::string& name() const { return name_; }
    // Bytes written since boot.
    uint64_t bytesWritten() const;
    // Puts everything `path`'s file system holds on the device, then waits
    // (up to 3 s) until the counter has stood still for 100 ms, so that the
    // journal's late writes are counted. Returns the counter.
    uint64_t settle(const std::string& path) const;

  private:
    BlockDevice(std::string statPath, std::string name)
        : statPath_(std::move(statPath)), name_(std::move(name)) {}
    std::string statPath_;
    std::string name_;
};

// Sectors written, the 7th field of a /sys/block/<dev>/stat line; -1 when
// the line is too short or not numbers.
int64_t sectorsWrittenField(const std::string& statLine);

// Fails (returns false) when the parser misreads the kernel's lines, or when
// a synced 1 MiB file under `path` does not move the counter by 1 MiB.
bool blockDeviceWorks(const BlockDevice& device, const std::string& path);

}  // namespace compare

#endif
