#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

#include "module.h"

namespace tavrik::sim {

// What the sandbox puts at its own places below /run/tavrik-sim.
inline constexpr char sandbox_programs[] = "/run/tavrik-sim/bin";

// As fork(), with the child in a user, mount and network namespace of its own, where it can do nothing before map_ids()
// was called for it. Only a single-threaded process may change its user namespace, and one that a sanitizer watches is
// not; it may start one there.
pid_t fork_into_namespaces();

// Makes the child root of its user namespace. Root's other ids stay what they are, where this process may grant them;
// for an ordinary user there are no others. Throws std::system_error.
void map_ids(pid_t child);

// Called in the child: cuts its mounts off from the host's. Some systems grant a user namespace and nothing in it; that
// shows here. Throws std::system_error.
void part_from_host();

// Puts the paths of a module in place and brings up the loopback interface. Returns the FIFOs to listen on.
// Throws std::system_error.
std::vector<Tap> build_sandbox();

} // namespace tavrik::sim
