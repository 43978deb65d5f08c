#ifndef ZQ_KEL_OSDEP_SYNCWORKER_H
#define ZQ_KEL_OSDEP_SYNCWORKER_H

#include <functional>

namespace zq {
namespace kel {
namespace osdep {

// A thread of the process that waits for one job at a time, so that a commit
// can sync two files at once without starting and joining a thread for each.
// It ends after a second without work, before every fork (parent and child
// start a new one when they next need it), and when the library is unloaded
// or the process exits. No signal handler of the application ever runs on
// it.
class SyncWorker {
  public:
    // Runs `there` on the worker while the calling thread runs `here`, and
    // returns when both are done. False, with neither run, when no worker is
    // to be had: it is busy with another caller's job, cannot be started, or
    // the library is going away. Neither job may throw.
    static bool runAlongside(const std::function<void()>& there, const std::function<void()>& here);

    // How long an idle worker waits for work before it ends.
    static constexpr int kIdleMilliseconds = 1000;
};

}  // namespace osdep
}  // namespace kel
}  // namespace zq

#endif  // ZQ_KEL_OSDEP_SYNCWORKER_H
