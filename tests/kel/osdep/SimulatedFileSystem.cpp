#include "kel/osdep/SimulatedFileSystem.h"

#include <algorithm>
#include <cerrno>

#include "zq/kel/OSException.h"

namespace zq {
namespace test {

using kel::NString;
using kel::WString;
using kel::osdep::File;
using kel::osdep::FileSystem;
using kel::osdep::PosixError;

namespace {

std::string narrow(const WString& path) { return NString(path).c_str(); }

std::string parentOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

[[noreturn]] void fail(int error, const char* what) {
    throw PosixError(error, what, __LINE__, __FILE__);
}

}  // namespace

class SimulatedFile : public File {
  public:
    using Node = SimulatedFileSystem::Node;

    SimulatedFile(SimulatedFileSystem& fs, std::string path, std::shared_ptr<Node> node,
                  uint32_t flags, uint64_t generation)
        : fs_(fs),
          path_(std::move(path)),
          node_(std::move(node)),
          flags_(flags),
          generation_(generation) {}

    size_t readAt(int64_t offset, void* buffer, size_t count) override {
        const auto hold = enter(FileSystem::kRead, SimulatedFileSystem::kReadCall,
                                "read " + path_ + " " + span(offset, count));
        const std::string& data = node_->data;
        if (static_cast<uint64_t>(offset) >= data.size()) {
            return 0;
        }
        const size_t got = std::min(count, data.size() - static_cast<size_t>(offset));
        data.copy(static_cast<char*>(buffer), got, static_cast<size_t>(offset));
        return got;
    }

    void writeAt(int64_t offset, const void* buffer, size_t count) override {
        std::lock_guard<std::mutex> hold(fs_.mutex_);
        usable(FileSystem::kWrite);
        const SimulatedFileSystem::Fault fault = fs_.enter(
            SimulatedFileSystem::kWriteCall, "write " + path_ + " " + span(offset, count));
        const char* bytes = static_cast<const char*>(buffer);
        if (fault.error != 0) {
            put(static_cast<size_t>(offset), bytes, std::min(count, fault.tornBytes));
            fail(fault.error, "simulated write");
        }
        put(static_cast<size_t>(offset), bytes, count);
    }

    void sync() override {
        const auto hold = enter(0, SimulatedFileSystem::kSyncCall, "sync " + path_);
        node_->synced = node_->data;
    }

    void truncate(int64_t length) override {
        const auto hold = enter(FileSystem::kWrite, SimulatedFileSystem::kTruncateCall,
                                "truncate " + path_ + " " + std::to_string(length));
        node_->data.resize(static_cast<size_t>(std::max<int64_t>(length, 0)), '\0');
        ++node_->changes;
    }

    int64_t size() override {
        const auto hold = enter(0, SimulatedFileSystem::kSizeCall, "size " + path_);
        return static_cast<int64_t>(node_->data.size());
    }

    Identity identity() override {
        const auto hold = enter(0, SimulatedFileSystem::kSizeCall, "identity " + path_);
        Identity id;
        id.inode = reinterpret_cast<uintptr_t>(node_.get());
        id.changed = node_->changes;
        return id;
    }

    void changeOwner(uint32_t user, uint32_t group) override {
        const auto hold = enter(0, SimulatedFileSystem::kChownCall, "chown " + path_);
        node_->owner = user;
        node_->group = group;
    }

    void changeMode(uint32_t permissions) override {
        const auto hold = enter(0, SimulatedFileSystem::kChmodCall, "chmod " + path_);
        node_->permissions = permissions;
    }

    void close() override {
        if (closed_) {
            return;
        }
        closed_ = true;
        std::lock_guard<std::mutex> hold(fs_.mutex_);
        fs_.enterOrThrow(SimulatedFileSystem::kCloseCall, "close " + path_);
    }

  private:
    // Locks the file system, checks this file allows `access`, and counts
    // and records the call, throwing the fault planned for it.
    std::unique_lock<std::mutex> enter(uint32_t access, SimulatedFileSystem::Op op,
                                       const std::string& what) {
        std::unique_lock<std::mutex> hold(fs_.mutex_);
        usable(access);
        fs_.enterOrThrow(op, what);
        return hold;
    }

    static std::string span(int64_t offset, size_t count) {
        return std::to_string(offset) + "+" + std::to_string(count);
    }

    void put(size_t offset, const char* bytes, size_t count) {
        std::string& data = node_->data;
        if (data.size() < offset + count) {
            data.resize(offset + count, '\0');
        }
        data.replace(offset, count, bytes, count);
        ++node_->changes;
    }

    void usable(uint32_t access) const {
        if (closed_) {
            fail(EBADF, "file is closed");
        }
        if (generation_ != fs_.generation_) {
            fail(EIO, "file did not survive the crash");
        }
        if (access != 0 && (flags_ & access) == 0) {
            fail(EBADF, "file not open for this access");
        }
    }

    SimulatedFileSystem& fs_;
    std::string path_;
    std::shared_ptr<Node> node_;
    uint32_t flags_;
    uint64_t generation_;
    bool closed_ = false;
};

SimulatedFileSystem::SimulatedFileSystem() {
    live_["/"] = Entry{};
    durable_["/"] = Entry{};
}

SimulatedFileSystem::~SimulatedFileSystem() = default;

void SimulatedFileSystem::failCall(Op op, uint64_t nth, int error, size_t tornBytes) {
    std::lock_guard<std::mutex> hold(mutex_);
    rules_.push_back(Rule{op, counts_[op] + nth, error, tornBytes});
}

void SimulatedFileSystem::stopAfter(uint64_t nth) {
    std::lock_guard<std::mutex> hold(mutex_);
    stopAt_ = counts_[kAnyCall] + nth;
}

bool SimulatedFileSystem::stopped() const {
    std::lock_guard<std::mutex> hold(mutex_);
    return stopped_;
}

uint64_t SimulatedFileSystem::calls(Op op) const {
    std::lock_guard<std::mutex> hold(mutex_);
    return counts_[op];
}

std::vector<std::string> SimulatedFileSystem::journal() const {
    std::lock_guard<std::mutex> hold(mutex_);
    return journal_;
}

void SimulatedFileSystem::clearJournal() {
    std::lock_guard<std::mutex> hold(mutex_);
    journal_.clear();
}

void SimulatedFileSystem::crash() {
    std::lock_guard<std::mutex> hold(mutex_);
    live_ = durable_;
    for (auto& named : live_) {
        if (named.second.node != nullptr) {
            named.second.node->data = named.second.node->synced;
        }
    }
    ++generation_;
    stopped_ = false;
    stopAt_ = 0;
    rules_.clear();
}

std::string SimulatedFileSystem::contents(const std::string& path) const {
    std::lock_guard<std::mutex> hold(mutex_);
    const Entry* entry = find(path);
    return entry != nullptr && entry->node != nullptr ? entry->node->data : std::string();
}

void SimulatedFileSystem::putFile(const std::string& path, const std::string& bytes) {
    std::lock_guard<std::mutex> hold(mutex_);
    requireParent(path);
    auto node = std::make_shared<Node>();
    node->data = node->synced = bytes;
    node->permissions = 0644;
    live_[path] = durable_[path] = Entry{node};
}

bool SimulatedFileSystem::exists(const std::string& path) const {
    std::lock_guard<std::mutex> hold(mutex_);
    return find(path) != nullptr;
}

SimulatedFileSystem::Fault SimulatedFileSystem::enter(Op op, const std::string& what) {
    journal_.push_back(what);
    const uint64_t call = ++counts_[kAnyCall];
    const uint64_t ofKind = ++counts_[op];
    if (stopAt_ != 0 && call >= stopAt_) {
        stopped_ = true;
    }
    if (stopped_) {
        return Fault{EIO, 0};
    }
    for (auto rule = rules_.begin(); rule != rules_.end(); ++rule) {
        if ((rule->op == kAnyCall && rule->at == call) || (rule->op == op && rule->at == ofKind)) {
            const Fault fault{rule->error, rule->tornBytes};
            rules_.erase(rule);
            return fault;
        }
    }
    return Fault{};
}

void SimulatedFileSystem::enterOrThrow(Op op, const std::string& what) {
    const Fault fault = enter(op, what);
    if (fault.error != 0) {
        fail(fault.error, "simulated fault");
    }
}

const SimulatedFileSystem::Entry* SimulatedFileSystem::find(const std::string& path) const {
    const auto found = live_.find(path);
    return found != live_.end() ? &found->second : nullptr;
}

void SimulatedFileSystem::requireParent(const std::string& path) const {
    const Entry* parent = find(parentOf(path));
    if (parent == nullptr) {
        fail(ENOENT, "no parent directory");
    }
    if (parent->node != nullptr) {
        fail(ENOTDIR, "parent is a file");
    }
}

std::unique_ptr<File> SimulatedFileSystem::open(const WString& path, uint32_t flags,
                                                uint32_t permissions) {
    const std::string name = narrow(path);
    std::lock_guard<std::mutex> hold(mutex_);
    enterOrThrow(kOpenCall, "open " + name);
    const Entry* entry = find(name);
    if (entry == nullptr) {
        if ((flags & kCreate) == 0) {
            fail(ENOENT, "open");
        }
        requireParent(name);
        auto node = std::make_shared<Node>();
        node->permissions = permissions & 0777;
        live_[name] = Entry{node};
        entry = find(name);
    } else if ((flags & kCreate) != 0 && (flags & kExclusive) != 0) {
        fail(EEXIST, "open");
    } else if (entry->node == nullptr) {
        if ((flags & kWrite) != 0) {
            fail(EISDIR, "open");
        }
        fail(ENOTSUP, "directories cannot be opened here");
    }
    if ((flags & kTruncate) != 0) {
        entry->node->data.clear();
    }
    return std::unique_ptr<File>(new SimulatedFile(*this, name, entry->node, flags, generation_));
}

FileSystem::Status SimulatedFileSystem::stat(const WString& path) {
    const std::string name = narrow(path);
    std::lock_guard<std::mutex> hold(mutex_);
    enterOrThrow(kStatCall, "stat " + name);
    Status status;
    const Entry* entry = find(name);
    if (entry != nullptr) {
        status.exists = true;
        status.directory = entry->node == nullptr;
        status.regular = !status.directory;
        status.size = status.regular ? static_cast<int64_t>(entry->node->data.size()) : 0;
        status.permissions = status.regular ? entry->node->permissions : 0777;
        if (status.regular) {
            status.inode = reinterpret_cast<uintptr_t>(entry->node.get());
            status.modifiedNanoseconds = entry->node->changes;
        }
    }
    return status;
}

bool SimulatedFileSystem::mayWrite(const WString& path) {
    const Status status = stat(path);
    return status.exists && (status.permissions & 0222) != 0;
}

void SimulatedFileSystem::rename(const WString& from, const WString& to) {
    const std::string source = narrow(from);
    const std::string target = narrow(to);
    std::lock_guard<std::mutex> hold(mutex_);
    enterOrThrow(kRenameCall, "rename " + source + " " + target);
    const Entry* entry = find(source);
    if (entry == nullptr) {
        fail(ENOENT, "rename");
    }
    if (entry->node == nullptr) {
        fail(ENOTSUP, "directories cannot be renamed here");
    }
    requireParent(target);
    const Entry* replaced = find(target);
    if (replaced != nullptr && replaced->node == nullptr) {
        fail(EISDIR, "rename");
    }
    const Entry moved = *entry;
    live_.erase(source);
    live_[target] = moved;
}

void SimulatedFileSystem::unlink(const WString& path) {
    const std::string name = narrow(path);
    std::lock_guard<std::mutex> hold(mutex_);
    enterOrThrow(kUnlinkCall, "unlink " + name);
    const Entry* entry = find(name);
    if (entry == nullptr) {
        fail(ENOENT, "unlink");
    }
    if (entry->node == nullptr) {
        fail(EISDIR, "unlink");
    }
    live_.erase(name);
}

void SimulatedFileSystem::makeDirectory(const WString& path, uint32_t) {
    const std::string name = narrow(path);
    std::lock_guard<std::mutex> hold(mutex_);
    enterOrThrow(kMkdirCall, "mkdir " + name);
    if (find(name) != nullptr) {
        fail(EEXIST, "mkdir");
    }
    requireParent(name);
    live_[name] = durable_[name] = Entry{};
}

std::vector<WString> SimulatedFileSystem::listDirectory(const WString& path) {
    const std::string name = narrow(path);
    std::lock_guard<std::mutex> hold(mutex_);
    enterOrThrow(kListCall, "list " + name);
    std::vector<WString> names;
    for (const auto& named : live_) {
        if (named.first != "/" && parentOf(named.first) == name) {
            names.emplace_back(named.first.substr(name == "/" ? 1 : name.size() + 1).c_str());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

void SimulatedFileSystem::syncDirectory(const WString& path) {
    const std::string name = narrow(path);
    std::lock_guard<std::mutex> hold(mutex_);
    enterOrThrow(kSyncDirCall, "syncdir " + name);
    for (auto named = durable_.begin(); named != durable_.end();) {
        const bool inside = named->first != "/" && parentOf(named->first) == name;
        named = inside && live_.count(named->first) == 0 ? durable_.erase(named) : std::next(named);
    }
    for (const auto& named : live_) {
        if (named.first != "/" && parentOf(named.first) == name) {
            durable_[named.first] = named.second;
        }
    }
}

}  // namespace test
}  // namespace zq
