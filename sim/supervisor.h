#pragma once

#include <string>
#include <vector>

namespace tavrik::sim {

struct RunOptions {
    std::string name;                 // of the sandbox, empty for a free one
    std::string scenario;             // path, empty for none
    std::vector<std::string> without; // services that are not started
    std::vector<std::string> program; // and its arguments
};

inline constexpr int exit_simulator_failed = 2;

// Runs a program in a sandbox of its own and ends as it ended: returns its exit code, or dies by its signal.
// Throws std::exception where nothing could be started.
int run(const RunOptions &options);

} // namespace tavrik::sim
