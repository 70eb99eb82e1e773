#pragma once

#include <string>
#include <vector>

#include "control/waiting.h"
#include "services/context.h"

namespace tavrik::sim {

// A control call whose arguments have been checked.
using Action = std::function<void(Done)>;

// Throws std::invalid_argument for an unknown verb or bad arguments.
Action prepare(Context &context, const std::string &verb, const nlohmann::json &args);

// Prepares and makes a call; whatever is wrong with it is its outcome.
void call(Context &context, const std::string &verb, const nlohmann::json &args, const Done &done);

std::vector<const char *> verb_names();

} // namespace tavrik::sim
