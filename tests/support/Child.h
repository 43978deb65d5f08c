#ifndef ZQ_TESTS_SUPPORT_CHILD_H
#define ZQ_TESTS_SUPPORT_CHILD_H

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>

namespace zq {
namespace test {

// The exit code of the child `pid`, or 128 + the signal that ended it.
inline int exitCodeOf(pid_t pid) {
    int result = 0;
    ::waitpid(pid, &result, 0);
    return WIFEXITED(result) ? WEXITSTATUS(result) : 128 + WTERMSIG(result);
}

// As exitCodeOf, but a child still running after `seconds` is killed (and
// reported as 128 + SIGKILL): a hung child fails its test instead of hanging it.
inline int exitCodeWithin(pid_t pid, int seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    int result = 0;
    for (;;) {
        const pid_t done = ::waitpid(pid, &result, WNOHANG);
        if (done < 0) return -1;
        if (done == pid) break;
        if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &result, 0);
            break;
        }
        ::usleep(10000);
    }
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

// As inChild, but `body` must end within `seconds`: the child's alarm ends a
// hung body, and the parent kills a child that outlives even that.
inline int inChildWithin(int seconds, const std::function<int()>& body) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(static_cast<unsigned>(seconds));
        int code = 99;
        try {
            code = body();
        } catch (...) {
        }
        ::_exit(code);
    }
    return exitCodeWithin(pid, seconds + 5);
}

}  // namespace test
}  // namespace zq

#endif  // ZQ_TESTS_SUPPORT_CHILD_H
