// The stores under comparison behind one small interface, each used the way
// its own documentation recommends for durable small records.
#ifndef ORVANE_BENCH_COMPARE_STORES_H
#define ORVANE_BENCH_COMPARE_STORES_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace compare {

// A setting: ten values of mixed types. Orvane holds it as a bucket of ten
// typed values; the peers hold one record per setting (see encode()).
struct Setting {
    int32_t speed = 0;
    uint16_t port = 0;
    bool enabled = false;
    double gain = 0;
    std::string label;  // a wide string in Orvane
    std::string host;
    int64_t serial = 0;
    uint8_t mode = 0;
    float limit = 0;
    int32_t points[4] = {};
};

Setting makeSetting(int index, int32_t speed);
// Full path of setting `index`: 100 settings to a group, as a controller
// groups them by device.
std::string settingName(int index);

// The peers' record: per value a type byte, the name and the value, so it
// carries what an Orvane bucket carries (about 200 bytes).
std::vector<unsigned char> encode(const Setting& setting);
// Throws on a record that does not decode.
Setting decode(const unsigned char* bytes, size_t size);

class Store {
  public:
    virtual ~Store() = default;
    virtual const char* name() const = 0;
    // Opens the store in `directory`, creating it when empty.
    virtual void open(const std::string& directory) = 0;
    // One durable transaction writing these settings (new or changed).
    virtual void commit(const std::vector<int>& indexes, int32_t speed) = 0;
    // Writes settings 0 .. count-1 into an empty store, in one transaction.
    virtual void fill(int count);
    // One durable transaction writing one new record that holds `blob`.
    virtual void commitBlob(const std::vector<unsigned char>& blob) = 0;
    // One durable transaction writing `count` new small records (an Orvane
    // bucket of one value), 1,000 to a group.
    virtual void commitMany(int count) = 0;
    // Reads setting `index` into memory and returns one of its values.
    virtual int32_t read(int index) = 0;
    // The bytes the store keeps on disk.
    virtual uint64_t diskBytes(const std::string& directory) const;
};

// Orvane's file in `directory` may grow to `kilobytes` before a commit
// compacts it (DiskMaxRegistryFileSizeKB); call before the first open.
void limitOrvaneFile(const std::string& directory, int kilobytes);

// Name of record `index` in commitMany().
std::string smallName(int index);

// Store kinds, in table order.
const std::vector<std::string>& storeNames();
std::unique_ptr<Store> makeStore(const std::string& name);

}  // namespace compare

#endif
