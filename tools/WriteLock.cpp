#include "WriteLock.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

#include "StoreFiles.h"
#include "Tool.h"
#include "kel/osdep/Mutex.h"
#include "kel/osdep/Path.h"
#include "kel/osdep/SharedFiles.h"

namespace orvane_tool {

using zq::kel::WString;

namespace {

std::string lockFilePath() {
    using namespace zq::kel::osdep;
    return zq::kel::NString(join(sharedDirectory(WString(L"mutex")), WString(kProcessLockName)))
        .c_str();
}

// The pid of the flock on the file (device, inode) in /proc/locks; 0 when
// none is listed. Lines of waiters ("->") name no holder.
long lockHolderPid(const struct stat& file) {
    std::ifstream locks("/proc/locks");
    std::string line;
    while (std::getline(locks, line)) {
        if (line.find("->") != std::string::npos) continue;
        std::istringstream fields(line);
        std::string id, kind, mode, access, where;
        long pid = 0;
        if (!(fields >> id >> kind >> mode >> access >> pid >> where)) continue;
        unsigned major = 0, minor = 0;
        uintmax_t inode = 0;
        if (kind != "FLOCK" ||
            std::sscanf(where.c_str(), "%x:%x:%" SCNuMAX, &major, &minor, &inode) != 3) {
            continue;
        }
        if (inode == file.st_ino && major == major(file.st_dev) && minor == minor(file.st_dev)) {
            return pid;
        }
    }
    return 0;
}

std::string processName(long pid) {
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

}  // namespace

std::string WriteLock::holder() {
    struct stat file;
    const long pid = ::stat(lockFilePath().c_str(), &file) == 0 ? lockHolderPid(file) : 0;
    if (pid <= 0) return "another process";
    const std::string name = processName(pid);
    return "process " + std::to_string(pid) + (name.empty() ? "" : " (" + name + ")");
}

WriteLock::WriteLock(double seconds)
    : mutex_(std::make_unique<zq::kel::osdep::Mutex>(WString(kProcessLockName))) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(seconds));
    bool said = false;
    std::string who;
    while (!mutex_->tryLock()) {
        const bool late = Clock::now() >= deadline;
        if (!said || late) who = holder();
        if (late) {
            char limit[32];
            std::snprintf(limit, sizeof limit, "%g", seconds);
            throw ToolError(kExitTimeout, seconds <= 0
                                              ? "the registry's lock is held by " + who +
                                                    " (--wait SECONDS waits for it)"
                                              : "gave up after " + std::string(limit) +
                                                    " s waiting for the registry's lock, held by " +
                                                    who + " (--wait sets the limit)");
        }
        if (!said) {
            std::fprintf(stderr, "orvane: waiting for the registry's lock, held by %s\n",
                         who.c_str());
            said = true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

WriteLock::~WriteLock() { mutex_->unlock(); }

}  // namespace orvane_tool
