#include "core/shell.h"

#include "core/sync.h"

#include <fcntl.h>
#include <initializer_list>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>

namespace tavrik {
namespace {

// `output` becomes the standard output unless it is -1. -1 with errno set when it cannot be started.
pid_t start(const char *command, int output, bool own_group = false) {
    // A shell expects these at their defaults, whatever the host or the calling library thread has done with them.
    sigset_t defaults, unblocked;
    sigemptyset(&unblocked);
    sigemptyset(&defaults);
    for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGCHLD})
        sigaddset(&defaults, number);

    posix_spawn_file_actions_t actions;
    if ((errno = posix_spawn_file_actions_init(&actions)))
        return -1;
    posix_spawnattr_t attributes;
    if ((errno = posix_spawnattr_init(&attributes))) {
        posix_spawn_file_actions_destroy(&actions);
        return -1;
    }
    posix_spawnattr_setsigmask(&attributes, &unblocked);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(
        &attributes, short(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | (own_group ? POSIX_SPAWN_SETPGROUP : 0)));

    const char *const arguments[] = {"sh", "-c", command, nullptr};
    pid_t pid = -1;
    int error = output < 0 ? 0 : posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    if (!error)
        error = posix_spawn(&pid, "/bin/sh", &actions, &attributes, const_cast<char *const *>(arguments), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    errno = error;
    return error ? -1 : pid;
}

int wait_for(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            return errno == ECHILD ? 0 : -1; // a host that ignores SIGCHLD loses the status, but the command has run
    return status;
}

// False when it had to be killed. There is no descriptor to wait for a child with on the kernels of modules.
bool ends_until(pid_t pid, Deadline deadline) {
    constexpr timespec kPause = {0, 2000000};
    for (;;) {
        const pid_t ended = waitpid(pid, nullptr, WNOHANG);
        if (ended > 0 || (ended < 0 && errno == ECHILD))
            return true;
        if (deadline.passed())
            break;
        nanosleep(&kPause, nullptr);
    }
    kill(-pid, SIGKILL);
    wait_for(pid);
    return false;
}

} // namespace

int run_shell(const char *command) {
    const pid_t pid = start(command, -1);
    return pid < 0 ? -1 : wait_for(pid);
}

int run_shell_for_line(const char *command, char *buffer, int size) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC))
        return -1;
    Fd output(ends[0]), input(ends[1]);
    const pid_t pid = start(command, input.get());
    if (pid < 0)
        return -1;
    input.reset();

    memset(buffer, 0, size_t(size));
    char chunk[256];
    int length = 0;
    ssize_t got;
    while ((got = read(output.get(), chunk, sizeof chunk)) > 0 || (got < 0 && errno == EINTR))
        for (ssize_t i = 0; i < got && size > 1; ++i) {
            buffer[length++] = chunk[i];
            buffer[length] = 0;
            if (chunk[i] == '\n' || length == size - 1)
                length = 0; // the next line overwrites this one
        }
    output.reset();
    return wait_for(pid) < 0 ? -1 : 0;
}

int run_shell_for_first_line(const char *command, char *buffer, int size, int limit_ms) {
    const Deadline deadline = Deadline::in(limit_ms);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC))
        return -1;
    Fd output(ends[0]), input(ends[1]);
    const pid_t pid = start(command, input.get(), true);
    if (pid < 0)
        return -1;
    input.reset();

    char chunk[256];
    int length = 0;
    bool whole = false;
    for (;;) {
        pollfd wait = {output.get(), POLLIN, 0};
        const int ready = poll(&wait, 1, deadline.poll_ms());
        if (ready < 0 && errno == EINTR)
            continue;
        const ssize_t got = ready > 0 ? read(output.get(), chunk, sizeof chunk) : 0;
        if (got <= 0)
            break;
        for (ssize_t i = 0; i < got && !whole; ++i) {
            buffer[length++] = chunk[i];
            whole = chunk[i] == '\n' || length == size - 1;
        }
    }
    buffer[length] = 0;
    output.reset();
    const bool ended = ends_until(pid, deadline);
    if (!ended)
        *buffer = 0;
    buffer[strcspn(buffer, "\n")] = 0;
    return ended && length;
}

} // namespace tavrik
