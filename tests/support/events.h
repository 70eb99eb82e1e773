// What callbacks were told, as texts, waited for by the test.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

class Events {
  public:
    void add(std::string event) {
        const std::lock_guard lock(mutex_);
        events_.push_back(std::move(event));
        changed_.notify_all();
    }
    // All since the last call, as soon as there are so many.
    std::vector<std::string> take(size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(20), [&] { return events_.size() >= count; });
        return std::exchange(events_, {});
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
};
