#include "control/waiting.h"

#include <chrono>

namespace tavrik::sim {

namespace {

int64_t now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace

void Waiting::until(std::function<bool()> ready, int limit_ms, std::function<Outcome(bool)> outcome, Done done) {
    if (ready())
        return done(outcome(true));
    calls_.push_back({std::move(ready), now_ms() + limit_ms, std::move(outcome), std::move(done)});
    timer_.start(1);
}

void Waiting::look() {
    std::list<Call> over;
    for (auto next = calls_.begin(); next != calls_.end();) {
        auto call = next++;
        if (call->ready() || call->deadline <= now_ms())
            over.splice(over.end(), calls_, call);
    }
    // Whoever is told may wait again.
    for (Call &call : over)
        call.done(call.outcome(call.ready()));
    if (!calls_.empty())
        timer_.start(1);
}

} // namespace tavrik::sim
