#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

#include "module.h"

namespace tavrik::sim {

// What the sandbox puts at its own places below /run/tavrik-sim.
inline constexpr char sandbox_programs[] = "/run/tavrik-sim/bin";

// Moves the calling process into a user, mount and network namespace of its own. Nothing works in there before
// map_ids() was called for it from outside. Throws std::system_error.
void enter_namespaces();

// Makes the caller of enter_namespaces() root of its user namespace. Root's other ids stay what they are, where this
// process may grant them; for an ordinary user there are no others. Throws std::system_error.
void map_ids(pid_t child);

// Puts the paths of a module in place and brings up the loopback interface. Returns the FIFOs to listen on.
// Throws std::system_error.
std::vector<Tap> build_sandbox();

} // namespace tavrik::sim
