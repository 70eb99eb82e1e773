#pragma once

#include <functional>
#include <utility>

#include "bus.h"

namespace tavrik::sim {

// A timer of the event loop. It must not be destroyed by what it calls.
class Timer : uloop_timeout {
  public:
    explicit Timer(std::function<void()> fire) : uloop_timeout{}, fire_(std::move(fire)) {
        cb = [](uloop_timeout *timer) { static_cast<Timer *>(timer)->fire_(); };
    }
    ~Timer() { stop(); }
    Timer(const Timer &) = delete;
    Timer &operator=(const Timer &) = delete;

    void start(int ms) { uloop_timeout_set(this, ms); }
    void stop() { uloop_timeout_cancel(this); }
    bool running() const { return pending; }

  private:
    std::function<void()> fire_;
};

// A watched descriptor, which it does not own. It must not be destroyed by what it calls.
class Watch : uloop_fd {
  public:
    explicit Watch(std::function<void()> ready) : uloop_fd{}, ready_(std::move(ready)) {
        cb = [](uloop_fd *watched, unsigned) { static_cast<Watch *>(watched)->ready_(); };
    }
    ~Watch() { stop(); }
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;

    // `flags`: ULOOP_READ, ULOOP_WRITE; 0 stops. The descriptor is non-blocking already.
    void start(int watched, unsigned wanted) {
        if (!wanted)
            return stop();
        if (registered && fd == watched && wanted == wanted_)
            return;
        fd = watched;
        wanted_ = wanted;
        uloop_fd_add(this, wanted | ULOOP_BLOCKING);
    }
    void stop() { uloop_fd_delete(this); }
    // The other end is gone; the loop watches no longer.
    bool hung_up() const { return error; }

  private:
    std::function<void()> ready_;
    unsigned wanted_ = 0;
};

} // namespace tavrik::sim
