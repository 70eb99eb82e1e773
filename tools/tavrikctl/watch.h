// Events as they happen, for the verbs that print some or all of them.
#pragma once

#include "command.h"

#include <initializer_list>

namespace tavrikctl {

// Prints the events of these slots of the library (see add_ind_cb) until the end that the arguments set.
bool watch(const std::string &verb, std::initializer_list<int> slots, const Arguments &arguments, Output &output);

// The arguments that it knows: --for and --count.
std::vector<Parameter> watch_options();

} // namespace tavrikctl
