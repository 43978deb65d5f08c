#ifndef ZQ_TESTS_KEL_OSDEP_SIMULATEDFILESYSTEM_H
#define ZQ_TESTS_KEL_OSDEP_SIMULATEDFILESYSTEM_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kel/osdep/FileSystem.h"

namespace zq {
namespace test {

// An in-memory file system for tests of code that stands on FileSystem.
//
// Faults: every primitive call (on the file system or on an open file) is
// counted, and any one of them can be made to fail with a chosen errno; a
// write can be torn (some bytes land, then the error). stopAfter() freezes the
// world: from that call on everything fails with EIO, as if the power went.
//
// Durability: crash() keeps only what a real disk would have to keep: file
// bytes up to their last sync, and names (creations, renames, removals) up to
// the last sync of their directory. Files open before the crash fail with
// EIO afterwards. Directories themselves are always durable.
//
// journal() records every call as one line, e.g. "write /d/f 16+8",
// "sync /d/f", "rename /d/a /d/b", so a test can check the order of steps.
//
// Safe for concurrent use; one mutex guards all state.
class SimulatedFileSystem : public kel::osdep::FileSystem {
  public:
    enum Op {
        kAnyCall,
        kOpenCall,
        kReadCall,
        kWriteCall,
        kSyncCall,
        kTruncateCall,
        kSizeCall,
        kChownCall,
        kChmodCall,
        kCloseCall,
        kStatCall,
        kRenameCall,
        kUnlinkCall,
        kMkdirCall,
        kListCall,
        kSyncDirCall,
        kOpCount
    };

    SimulatedFileSystem();
    ~SimulatedFileSystem() override;

    // The `nth` call of `op` from now (1 = the next) fails with `error`; a
    // write first lets `tornBytes` of its bytes land.
    void failCall(Op op, uint64_t nth, int error, size_t tornBytes = 0);
    // Calls from the `nth` call from now on (of any kind) fail with EIO.
    void stopAfter(uint64_t nth);
    bool stopped() const;
    uint64_t calls(Op op = kAnyCall) const;
    std::vector<std::string> journal() const;
    void clearJournal();

    // Loses everything not yet durable and lifts any stop.
    void crash();

    // Direct access for tests, outside the counting: the current bytes of a
    // file (empty when missing), a durable file with these bytes, existence.
    std::string contents(const std::string& path) const;
    void putFile(const std::string& path, const std::string& bytes);
    bool exists(const std::string& path) const;

    std::unique_ptr<kel::osdep::File> open(const kel::WString& path, uint32_t flags,
                                           uint32_t permissions = 0666) override;
    Status stat(const kel::WString& path) override;
    void rename(const kel::WString& from, const kel::WString& to) override;
    void unlink(const kel::WString& path) override;
    void makeDirectory(const kel::WString& path, uint32_t permissions) override;
    std::vector<kel::WString> listDirectory(const kel::WString& path) override;
    void syncDirectory(const kel::WString& path) override;
    // A file whose permissions grant no write bit may not be written.
    bool mayWrite(const kel::WString& path) override;

    struct Node {
        std::string data;
        std::string synced;
        uint32_t permissions = 0;
        uint32_t owner = 0;
        uint32_t group = 0;
        int64_t changes = 0;  // stands in for the modification time
    };
    struct Entry {
        std::shared_ptr<Node> node;  // null for a directory
    };

  private:
    friend class SimulatedFile;
    struct Rule {
        Op op;
        uint64_t at;
        int error;
        size_t tornBytes;
    };

    struct Fault {
        int error = 0;
        size_t tornBytes = 0;
    };
    // Counts and records a call and returns the fault planned for it.
    Fault enter(Op op, const std::string& what);
    // The same, throwing the fault.
    void enterOrThrow(Op op, const std::string& what);
    const Entry* find(const std::string& path) const;
    void requireParent(const std::string& path) const;

    mutable std::mutex mutex_;
    std::map<std::string, Entry> live_;
    std::map<std::string, Entry> durable_;
    std::vector<Rule> rules_;
    std::vector<std::string> journal_;
    uint64_t counts_[kOpCount] = {};
    uint64_t stopAt_ = 0;  // 0: no stop planned
    bool stopped_ = false;
    uint64_t generation_ = 0;  // crash() ends every file opened before it
};

}  // namespace test
}  // namespace zq

#endif  // ZQ_TESTS_KEL_OSDEP_SIMULATEDFILESYSTEM_H
