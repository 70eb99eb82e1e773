#include "model/clock.h"

#include <algorithm>

namespace tavrik::sim {

void Clock::after(int64_t ms, std::function<void()> action) {
    due_.emplace(now() + ms, std::move(action));
    if (on_plan)
        on_plan();
}

void Clock::advance(int64_t ms) {
    int64_t target = now() + ms;
    while (!due_.empty() && due_.begin()->first <= target) {
        // What runs now may plan more, even for a moment before the target.
        auto node = due_.extract(due_.begin());
        offset_ += std::max<int64_t>(0, node.key() - now());
        node.mapped()();
    }
    offset_ += std::max<int64_t>(0, target - now());
    if (on_plan) // what is left is nearer now
        on_plan();
}

void Clock::reset() {
    due_.clear();
    offset_ = -read();
}

int64_t Clock::next() const {
    return due_.empty() ? -1 : std::max<int64_t>(0, due_.begin()->first - now());
}

} // namespace tavrik::sim
