#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "model/modem.h"

namespace tavrik::sim {

// A text that AT replies take from the state, beside its fields as they are.
using View = std::string (*)(const ModemState &state);
// By the name of a place in a rule; null when there is none.
View find_view(std::string_view name);

// What the modem says unasked when its state has changed, in order, without line ends.
std::vector<std::string> reports(const ModemState &before, const ModemState &after);

} // namespace tavrik::sim
