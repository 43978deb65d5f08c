#include "kel/osdep/DirectoryWatch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "zq/kel/OSException.h"

namespace zq {
namespace kel {
namespace osdep {

namespace {

// What ends a change of a store's files: a commit renames its mark into
// place, a compaction renames its files in, a purge removes and creates.
// Nothing else is asked for: every notice costs each writer a little, for
// every watcher.
constexpr uint32_t kNotices = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF;

}  // namespace

DirectoryWatch::DirectoryWatch(const WString& directory)
    : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    if (fd_ < 0) {
        throw PosixError(errno, "inotify_init1", __LINE__, __FILE__);
    }
    if (::inotify_add_watch(fd_, NString(directory).c_str(), kNotices) < 0) {
        const int error = errno;
        ::close(fd_);
        throw PosixError(error, "inotify_add_watch", __LINE__, __FILE__);
    }
}

DirectoryWatch::~DirectoryWatch() { ::close(fd_); }

bool DirectoryWatch::drain(const std::function<bool(const char* name, Change change)>& matters) {
    alignas(struct inotify_event) char buffer[4096];
    bool any = false;
    for (;;) {
        const ssize_t got = ::read(fd_, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return any;  // EAGAIN: nothing more waits
        }
        for (ssize_t at = 0; at < got;) {
            const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + at);
            const bool lost = (event->mask & (IN_Q_OVERFLOW | IN_IGNORED)) != 0;
            const bool self = (event->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0;
            const Change change = (event->mask & (IN_CREATE | IN_MOVED_TO)) != 0 ? kArrived : kLeft;
            any = any || lost || self || (event->len != 0 && matters(event->name, change));
            at += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
        }
    }
}

bool DirectoryWatch::waitReadable(int timeoutMilliseconds) const {
    struct pollfd one = {fd_, POLLIN, 0};
    for (;;) {
        const int ready = ::poll(&one, 1, timeoutMilliseconds);
        if (ready >= 0) {
            return ready > 0;
        }
        if (errno != EINTR) {
            throw PosixError(errno, "poll", __LINE__, __FILE__);
        }
    }
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
