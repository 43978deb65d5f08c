#include "kel/osdep/FaultGuard.h"

#include <setjmp.h>
#include <signal.h>

#include <atomic>
#include <cstring>
#include <mutex>

namespace zq {
namespace kel {
namespace osdep {

namespace {

// Initial-exec: the handler reads it without the allocation a first access
// to dynamic TLS may make.
__attribute__((tls_model("initial-exec"))) thread_local sigjmp_buf* tGuardedJump = nullptr;

struct sigaction gPrevious;

void passOn(int signal, siginfo_t* info, void* context) {
    if ((gPrevious.sa_flags & SA_SIGINFO) != 0 && gPrevious.sa_sigaction != nullptr) {
        gPrevious.sa_sigaction(signal, info, context);
        return;
    }
    if (gPrevious.sa_handler == SIG_DFL || gPrevious.sa_handler == SIG_IGN) {
        // Returning repeats the faulting access, which the default action
        // then ends as it would have without us.
        ::signal(signal, SIG_DFL);
        return;
    }
    gPrevious.sa_handler(signal);
}

void onBusError(int signal, siginfo_t* info, void* context) {
    sigjmp_buf* jump = tGuardedJump;
    if (jump == nullptr) {
        passOn(signal, info, context);
        return;
    }
    tGuardedJump = nullptr;
    siglongjmp(*jump, 1);
}

void install() {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_sigaction = onBusError;
    // No mask to restore on the jump out: sigsetjmp(.., 0) saves none.
    action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGBUS, &action, &gPrevious);
}

std::once_flag gInstalled;

}  // namespace

bool FaultGuard::copy(void* to, const void* from, size_t count) noexcept {
    std::call_once(gInstalled, install);
    sigjmp_buf jump;
    if (sigsetjmp(jump, 0) != 0) {
        return false;
    }
    tGuardedJump = &jump;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    std::memcpy(to, from, count);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    tGuardedJump = nullptr;
    return true;
}

}  // namespace osdep
}  // namespace kel
}  // namespace zq
