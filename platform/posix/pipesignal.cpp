// Blocking of SIGPIPE, thread by thread.
#include "platform/posix/pipesignal.h"

#include <errno.h>
#include <signal.h>
#include <time.h>

namespace posix {
namespace {

thread_local bool t_blocked_for_good = false;

}  // namespace

void BlockPipeSignalForGood() {
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    t_blocked_for_good = true;
}

CPipeGuard::CPipeGuard() : m_active(!t_blocked_for_good) {
    if (!m_active) return;
    sigset_t pipe, pending, old;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    sigpending(&pending);
    m_was_pending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipe, &old);
    m_was_blocked = sigismember(&old, SIGPIPE) == 1;
}

CPipeGuard::~CPipeGuard() {
    if (!m_active) return;
    sigset_t pipe, pending;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    sigpending(&pending);
    if (!m_was_pending && sigismember(&pending, SIGPIPE) == 1) {
        const timespec now{};
        while (sigtimedwait(&pipe, nullptr, &now) < 0 && errno == EINTR) {
        }
    }
    if (!m_was_blocked) pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);
}

}  // namespace posix
