#pragma once

#include <csignal>
#include <string>
#include <sys/types.h>

#include "state.h"
#include "supervisor.h"

namespace tavrik::sim {

// What the caller gave us and the program gets back.
struct Inherited {
    sigset_t mask;
    struct sigaction sigchld;
    mode_t umask_bits;
    std::string folder;
};

// Sent by the outer process once the inner one has its ids; every other byte is a signal to pass on.
inline constexpr char mapped = 'm';

// The signals that both processes take by hand.
sigset_t handled_signals();

void say_refused(const char *why);

// Ends this process as another one ended, without a second core file; returns the exit code where there was no signal.
int end_like(int status);

// The inner process: sets the sandbox up, starts the module process and the program, and takes everything down when the
// program ends or the other end of `outer` closes.
[[noreturn]] void keep_sandbox(const RunOptions &options, const StateFolder &state, const Inherited &inherited,
                               int outer);

} // namespace tavrik::sim
