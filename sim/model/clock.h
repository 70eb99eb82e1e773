#pragma once

#include <cstdint>
#include <functional>
#include <map>

namespace tavrik::sim {

// The modem's time in milliseconds since it was switched on, and what is due at some moment of it. It follows a source,
// or stands still without one, and jumps when it is told to.
class Clock {
  public:
    using Source = std::function<int64_t()>;

    explicit Clock(Source source = {}) : source_(std::move(source)), offset_(-read()) {}

    int64_t now() const { return read() + offset_; }
    // Runs `action` once, `ms` from now.
    void after(int64_t ms, std::function<void()> action);
    // Jumps; on the way everything due runs at its own moment.
    void advance(int64_t ms);
    // Runs what is due.
    void run() { advance(0); }
    // Forgets what is planned and begins at 0 again.
    void reset();
    // Milliseconds until something is due, -1 when nothing is.
    int64_t next() const;

    // Told when next() may have become less.
    std::function<void()> on_plan;

  private:
    int64_t read() const { return source_ ? source_() : 0; }

    Source source_;
    int64_t offset_;
    std::multimap<int64_t, std::function<void()>> due_;
};

} // namespace tavrik::sim
