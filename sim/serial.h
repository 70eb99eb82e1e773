#pragma once

#include <string>

namespace tavrik::sim {

// The module's program "serial_atcmd": sends one command to the AT server, on a connection of its own, and prints what
// comes up to the final line. Waits as long as that takes. Returns the exit code.
int serial_atcmd(const std::string &command);

} // namespace tavrik::sim
