#include "BlockDevice.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace compare {

namespace {

const int kSectorBytes = 512;  // the unit of the counters, whatever the device's

bool readable(const std::string& path) { return ::access(path.c_str(), R_OK) == 0; }

}  // namespace

int64_t sectorsWrittenField(const std::string& statLine) {
    std::istringstream in(statLine);
    int64_t field = -1;
    for (int i = 0; i < 7; ++i) {
        if (!(in >> field) || field < 0) return -1;
    }
    return field;
}

std::unique_ptr<BlockDevice> BlockDevice::under(const std::string& path, std::string& why) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        why = "cannot stat " + path;
        return nullptr;
    }
    const std::string numbers =
        std::to_string(major(info.st_dev)) + ":" + std::to_string(minor(info.st_dev));
    const std::string sys = "/sys/dev/block/" + numbers;
    // A partition has counters of its own, and they leave out its siblings.
    std::string stat = sys + "/stat";
    if (!readable(stat)) stat = sys + "/../stat";
    if (!readable(stat)) {
        why = "the file system under " + path + " (device " + numbers +
              ") is on no block device with counters";
        return nullptr;
    }
    char target[4096];
    const ssize_t n = ::readlink(sys.c_str(), target, sizeof target - 1);
    std::string name = numbers;
    if (n > 0) {
        target[n] = '\0';
        name = target;
        name = name.substr(name.rfind('/') + 1);
    }
    return std::unique_ptr<BlockDevice>(new BlockDevice(stat, name));
}

uint64_t BlockDevice::bytesWritten() const {
    std::ifstream in(statPath_);
    std::string line;
    std::getline(in, line);
    const int64_t sectors = sectorsWrittenField(line);
    if (sectors < 0) throw std::runtime_error("unreadable counters in " + statPath_);
    return static_cast<uint64_t>(sectors) * kSectorBytes;
}

uint64_t BlockDevice::settle(const std::string& path) const {
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY);
    const bool synced = fd >= 0 && ::syncfs(fd) == 0;
    if (fd >= 0) ::close(fd);
    if (!synced) throw std::runtime_error("syncfs " + path);
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::seconds(3);
    uint64_t last = bytesWritten();
    auto still = Clock::now();
    while (Clock::now() < deadline && Clock::now() - still < std::chrono::milliseconds(100)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const uint64_t now = bytesWritten();
        if (now != last) {
            last = now;
            still = Clock::now();
        }
    }
    return last;
}

bool blockDeviceWorks(const BlockDevice& device, const std::string& path) {
    // Kernels before 4.18 have 11 fields, later ones 15 or 17.
    const struct {
        const char* line;
        int64_t sectors;
    } lines[] = {
        {"  755239 37464 36273954 1181400 12370778 380466 302280600 2081731 0 864732 3734967",
         302280600},
        {"1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17", 7},
        {"1 2 3 4 5 6", -1},
        {"1 2 3 4 5 x 7 8 9 10 11", -1},
        {"", -1},
    };
    for (const auto& l : lines) {
        if (sectorsWrittenField(l.line) != l.sectors) return false;
    }
    const std::string file = path + "/block-device-check";
    const std::vector<char> bytes(1 << 20, 'w');
    const uint64_t before = device.settle(path);
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const bool wrote =
        fd >= 0 && ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) &&
        ::fdatasync(fd) == 0;
    if (fd >= 0) ::close(fd);
    ::unlink(file.c_str());
    return wrote && device.bytesWritten() >= before + bytes.size();
}

}  // namespace compare
