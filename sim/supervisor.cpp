// Three processes keep a sandbox. The outer one is the caller's child: it stays outside, passes signals in and ends as
// the program ended. The inner one lives in the sandbox, is the parent of the module process and of the program, and
// takes everything down: when the program ends, and when the outer one is gone, however it went.
#include "supervisor.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

#include "keeper.h"
#include "sandbox.h"
#include "state.h"

namespace tavrik::sim {
namespace {

Inherited take_over() {
    Inherited inherited;
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &standard, &inherited.sigchld);
    sigset_t set = handled_signals();
    sigprocmask(SIG_BLOCK, &set, &inherited.mask);
    inherited.umask_bits = umask(022);
    std::error_code none;
    inherited.folder = std::filesystem::current_path(none);
    return inherited;
}

// Passes on what is sent to this process alone. What the terminal sends goes to the whole process group anyway.
int watch(pid_t inner, int lifeline) {
    sigset_t set = handled_signals();
    for (;;) {
        siginfo_t info;
        int sig = sigwaitinfo(&set, &info);
        int status;
        if (sig == SIGCHLD && waitpid(inner, &status, WNOHANG) == inner)
            return status;
        if (sig > 0 && sig != SIGCHLD && info.si_code <= 0) {
            char byte = static_cast<char>(sig);
            send(lifeline, &byte, 1, MSG_NOSIGNAL | MSG_DONTWAIT);
        }
    }
}

} // namespace

int run(const RunOptions &options) {
    Inherited inherited = take_over();
    StateFolder state(options.name);
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) < 0)
        throw std::system_error(errno, std::generic_category(), "socketpair");
    pid_t inner = fork_into_namespaces();
    if (inner == 0) {
        close(sockets[0]);
        keep_sandbox(options, state, inherited, sockets[1]);
    }
    if (inner < 0) {
        say_refused(strerror(errno));
        state.remove();
        return exit_simulator_failed;
    }
    close(sockets[1]);
    try {
        map_ids(inner);
        send(sockets[0], &mapped, 1, MSG_NOSIGNAL);
    } catch (const std::system_error &error) {
        say_refused(error.what());
        shutdown(sockets[0], SHUT_WR);
    }
    int status = watch(inner, sockets[0]);
    state.remove();
    return end_like(status);
}

} // namespace tavrik::sim
