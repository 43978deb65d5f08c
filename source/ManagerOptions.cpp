#include "source/ManagerOptions.h"

#include <mutex>

namespace zq {
namespace orvane {

namespace {

std::mutex overrideMutex;
std::unique_ptr<Options::Values> overrideValues;
kel::osdep::FileSystem* overrideFileSystem = nullptr;
bool forReading = false;

}  // namespace

void overrideManagerOptions(const Options::Values& values) {
    std::lock_guard<std::mutex> hold(overrideMutex);
    overrideValues = std::make_unique<Options::Values>(values);
}

void clearManagerOptionsOverride() {
    std::lock_guard<std::mutex> hold(overrideMutex);
    overrideValues.reset();
}

void overrideManagerFileSystem(kel::osdep::FileSystem* fs) {
    std::lock_guard<std::mutex> hold(overrideMutex);
    overrideFileSystem = fs;
}

void clearManagerFileSystemOverride() { overrideManagerFileSystem(nullptr); }

kel::osdep::FileSystem& managerFileSystem() {
    std::lock_guard<std::mutex> hold(overrideMutex);
    return overrideFileSystem != nullptr ? *overrideFileSystem : kel::osdep::FileSystem::posix();
}

void openManagersForReading(bool readOnly) {
    std::lock_guard<std::mutex> hold(overrideMutex);
    forReading = readOnly;
}

bool managersOpenForReading() {
    std::lock_guard<std::mutex> hold(overrideMutex);
    return forReading;
}

std::unique_ptr<Options> loadManagerOptions(const kel::WString& optionsFile,
                                            kel::StatusChain& status) {
    std::lock_guard<std::mutex> hold(overrideMutex);
    if (overrideValues) {
        return std::make_unique<Options>(*overrideValues, status);
    }
    return std::make_unique<Options>(Options::findOptionsFile(optionsFile), status);
}

}  // namespace orvane
}  // namespace zq
