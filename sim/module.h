#pragma once

#include <string>
#include <vector>

namespace tavrik::sim {

// The private control socket (SOCK_STREAM) speaks lines of JSON, a request and its reply at a time:
//   {"verb": "state", "args": {…}}      ->  {"result": {…}}  or  {"error": "what was wrong"}
// "args" may be missing. A client may send several requests on one connection; replies come in their order.

// A FIFO of the sandbox, held open for reading and writing so that a writer never blocks or fails: /dev/kmsg, files
// below /sys/power, and one to which stand-ins such as `reboot` write their command line. Each line that arrives is
// recorded under `kind`.
struct Tap {
    std::string kind; // "kmsg", "program", "wake_lock", …
    int fd = -1;      // non-blocking
};

// What the module process is to serve. All paths are seen from inside the sandbox.
struct ModuleOptions {
    std::string scenario;             // path of a scenario file, empty for none
    std::vector<std::string> without; // services that are not started: "at", "atind", "ril", "bus"
    std::string control_path;         // private control socket to listen on; its folder exists
    std::string at_path;              // "/tmp/atcmdsdk"
    std::string atind_path;           // "/tmp/atcmdsdkind"
    std::string bus_path;             // socket of the bus; its folder, and the link at the other usual path, exist
    std::string bus_daemon;           // program that serves the bus, started (`-s bus_path`) by the module process
    std::vector<Tap> taps;            // lines to record
    int ready_fd = -1; // gets one byte once everything listens and the calls of the scenario without a time were made
};

// The module process: called in a process of its own (a session of its own, stdin /dev/null, stdout on stderr, default
// signal dispositions, nothing blocked). Starts and supervises the bus daemon, with PR_SET_PDEATHSIG. Runs until
// SIGTERM; returns the exit code: 0, or another after it has said on stderr what failed.
int run_module(const ModuleOptions &options);

} // namespace tavrik::sim
