#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "control/verbs.h"

namespace tavrik::sim {

// What a scenario file says, checked whole before anything is done.
struct Scenario {
    struct Call {
        std::string place; // in the file, for messages
        std::optional<int64_t> at_ms;
        Action action;
    };

    nlohmann::json state = nlohmann::json::object();
    nlohmann::json rules = nlohmann::json::array();
    std::vector<Call> calls;

    // Throws std::runtime_error that says where in the file something is wrong.
    static Scenario load(const std::string &path, Context &context);
};

} // namespace tavrik::sim
