// Locks, deadlines and descriptors. No std::mutex and no destructor at exit: the library needs libc alone.
#pragma once

#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <time.h>
#include <unistd.h>

namespace tavrik {

// May be static: it needs no constructor and no destructor.
class Mutex {
  public:
    void lock() { pthread_mutex_lock(&mutex_); }
    void unlock() { pthread_mutex_unlock(&mutex_); }
    pthread_mutex_t *native() { return &mutex_; }

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

class Lock {
  public:
    explicit Lock(Mutex &mutex) : mutex_(mutex) { mutex_.lock(); }
    ~Lock() { mutex_.unlock(); }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

  private:
    Mutex &mutex_;
};

inline int64_t monotonic_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

inline void sleep_ms(int ms) {
    timespec left = {ms / 1000, ms % 1000 * 1000000L};
    while (nanosleep(&left, &left) && errno == EINTR) {
    }
}

// A moment on CLOCK_MONOTONIC after which nobody waits any more.
class Deadline {
  public:
    static Deadline in(int64_t ms) { return Deadline(monotonic_ms() + ms); }
    static Deadline at(int64_t ms) { return Deadline(ms); }
    static Deadline never() { return Deadline(INT64_MAX); }
    static Deadline sooner(Deadline a, Deadline b) { return a.at_ < b.at_ ? a : b; }

    bool is_never() const { return at_ == INT64_MAX; }
    bool passed() const { return !is_never() && monotonic_ms() >= at_; }
    int64_t at_ms() const { return at_; }
    // For poll(): -1 without limit, else what is left, 0 at the least.
    int poll_ms() const {
        if (is_never())
            return -1;
        const int64_t left = at_ - monotonic_ms();
        return left <= 0 ? 0 : left > INT32_MAX ? INT32_MAX : int(left);
    }
    timespec as_timespec() const { return {time_t(at_ / 1000), long(at_ % 1000) * 1000000}; }

  private:
    explicit Deadline(int64_t at) : at_(at) {}
    int64_t at_;
};

// May be static. `make()` comes before its first use, and again in a forked child, where nobody waits.
class Condition {
  public:
    void make() {
        pthread_condattr_t monotonic;
        pthread_condattr_init(&monotonic);
        pthread_condattr_setclock(&monotonic, CLOCK_MONOTONIC);
        pthread_cond_init(&condition_, &monotonic);
        pthread_condattr_destroy(&monotonic);
    }
    // False when the deadline passed. The caller has the mutex, and looks itself whether what it waits for is there.
    bool wait(Mutex &mutex, Deadline deadline = Deadline::never()) {
        if (deadline.is_never())
            return !pthread_cond_wait(&condition_, mutex.native());
        const timespec until = deadline.as_timespec();
        return pthread_cond_timedwait(&condition_, mutex.native(), &until) != ETIMEDOUT;
    }
    void wake_one() { pthread_cond_signal(&condition_); }
    void wake_all() { pthread_cond_broadcast(&condition_); }

  private:
    pthread_cond_t condition_;
};

// Owns a descriptor. close() is not repeated on EINTR: Linux has released the number by then.
class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            const int saved = errno;
            close(fd_);
            errno = saved;
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

} // namespace tavrik
