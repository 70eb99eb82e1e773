// Writing where no MSG_NOSIGNAL is to be had: the reader may be gone, and the host may keep SIGPIPE at its default.
#pragma once

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

namespace tavrik {

// While it lives a SIGPIPE that the calling thread raises goes nowhere. errno is kept.
class SigpipeBlocked {
  public:
    SigpipeBlocked() {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
        was_pending_ = sigismember(&before_, SIGPIPE) == 1 && pending();
    }
    ~SigpipeBlocked() {
        const int saved_errno = errno;
        const timespec now = {};
        if (!was_pending_ && pending())
            while (sigtimedwait(&pipe_, nullptr, &now) < 0 && errno == EINTR) {
            }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
        errno = saved_errno;
    }
    SigpipeBlocked(const SigpipeBlocked &) = delete;
    SigpipeBlocked &operator=(const SigpipeBlocked &) = delete;

  private:
    static bool pending() {
        sigset_t set;
        return !sigpending(&set) && sigismember(&set, SIGPIPE) == 1;
    }

    sigset_t pipe_, before_;
    bool was_pending_;
};

} // namespace tavrik
