// Writing where no MSG_NOSIGNAL is to be had: the reader may be gone, and the host may keep SIGPIPE at its default.
#pragma once

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

namespace tavrik {

// The calling thread's signal mask with SIGPIPE in it. What a write raises in between goes nowhere; errno is kept.
class SigpipeMask {
  public:
    void block() {
        const sigset_t pipe = only_pipe();
        pthread_sigmask(SIG_BLOCK, &pipe, &before_);
        was_pending_ = sigismember(&before_, SIGPIPE) == 1 && pending();
    }
    void restore() const {
        const int saved_errno = errno;
        const sigset_t pipe = only_pipe();
        const timespec now = {};
        if (!was_pending_ && pending())
            while (sigtimedwait(&pipe, nullptr, &now) < 0 && errno == EINTR) {
            }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
        errno = saved_errno;
    }

  private:
    static sigset_t only_pipe() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGPIPE);
        return set;
    }
    static bool pending() {
        sigset_t set;
        return !sigpending(&set) && sigismember(&set, SIGPIPE) == 1;
    }

    sigset_t before_;
    bool was_pending_;
};

class SigpipeBlocked {
  public:
    SigpipeBlocked() { mask_.block(); }
    ~SigpipeBlocked() { mask_.restore(); }
    SigpipeBlocked(const SigpipeBlocked &) = delete;
    SigpipeBlocked &operator=(const SigpipeBlocked &) = delete;

  private:
    SigpipeMask mask_;
};

} // namespace tavrik
