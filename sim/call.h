#pragma once

#include <string>

namespace tavrik::sim {

// Makes one control call and prints its result, or the part of it that the JSON pointer `print` names. Returns the exit
// code: 0 done, 1 refused or not reached, 2 bad JSON.
int call(const std::string &sim, const std::string &verb, const std::string &arguments, const std::string &print);

} // namespace tavrik::sim
