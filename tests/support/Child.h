#ifndef ZQ_TESTS_SUPPORT_CHILD_H
#define ZQ_TESTS_SUPPORT_CHILD_H

#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace zq {
namespace test {

// The exit code of the child `pid`, or 128 + the signal that ended it.
inline int exitCodeOf(pid_t pid) {
    int result = 0;
    ::waitpid(pid, &result, 0);
    return WIFEXITED(result) ? WEXITSTATUS(result) : 128 + WTERMSIG(result);
}

// Runs `body` in a forked child, which ends with _exit (skipping the
// parent's handlers) and `body`'s result, or 99 if it throws.
inline int inChild(const std::function<int()>& body) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        int code = 99;
        try {
            code = body();
        } catch (...) {
        }
        ::_exit(code);
    }
    return exitCodeOf(pid);
}

}  // namespace test
}  // namespace zq

#endif  // ZQ_TESTS_SUPPORT_CHILD_H
