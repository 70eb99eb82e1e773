#pragma once

#include <functional>
#include <list>
#include <nlohmann/json.hpp>
#include <string>

#include "io/loop.h"

namespace tavrik::sim {

// How a control call ended.
struct Outcome {
    nlohmann::json result = nlohmann::json::object();
    std::string error; // empty when it did what it should
};
using Done = std::function<void(const Outcome &)>;

// Calls that end when something has come true, or at their limit.
class Waiting {
  public:
    Waiting() : timer_([this] { look(); }) {}

    // Looks at once, then every millisecond. `outcome` is asked with whether it came true in time.
    void until(std::function<bool()> ready, int limit_ms, std::function<Outcome(bool in_time)> outcome, Done done);

  private:
    struct Call {
        std::function<bool()> ready;
        int64_t deadline;
        std::function<Outcome(bool)> outcome;
        Done done;
    };

    void look();

    std::list<Call> calls_;
    Timer timer_;
};

} // namespace tavrik::sim
