#ifndef ORVANE_TOOLS_WRITELOCK_H
#define ORVANE_TOOLS_WRITELOCK_H

#include <memory>
#include <string>

namespace zq {
namespace kel {
namespace osdep {
class Mutex;
}
}  // namespace kel
}  // namespace zq

namespace orvane_tool {

// Holds the registry's process lock for a writing command, taken before
// anything is read or opened, so that the library's own waits for it
// (open, transaction) never block. Waits at most `seconds` (0: not at all),
// saying once on standard error which process holds it; a ToolError with
// kExitTimeout when it stays held.
class WriteLock {
  public:
    explicit WriteLock(double seconds);
    ~WriteLock();
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;

    // "process 812 (pumpd)", or "another process" when /proc/locks does not
    // name the holder of the lock file.
    static std::string holder();

  private:
    std::unique_ptr<zq::kel::osdep::Mutex> mutex_;
};

}  // namespace orvane_tool

#endif  // ORVANE_TOOLS_WRITELOCK_H
