#include "core/shell.h"

#include "core/sync.h"

#include <fcntl.h>
#include <initializer_list>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>

namespace tavrik {
namespace {

// `output` becomes the standard output unless it is -1.
pid_t start(const char *command, int output) {
    // A shell expects these at their defaults, whatever the host or the calling library thread has done with them.
    sigset_t defaults, unblocked;
    sigemptyset(&unblocked);
    sigemptyset(&defaults);
    for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGPIPE, SIGCHLD})
        sigaddset(&defaults, number);

    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions))
        return -1;
    posix_spawnattr_t attributes;
    if (posix_spawnattr_init(&attributes)) {
        posix_spawn_file_actions_destroy(&actions);
        return -1;
    }
    posix_spawnattr_setsigmask(&attributes, &unblocked);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    const char *const arguments[] = {"sh", "-c", command, nullptr};
    pid_t pid = -1;
    if ((output >= 0 && posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO)) ||
        posix_spawn(&pid, "/bin/sh", &actions, &attributes, const_cast<char *const *>(arguments), environ))
        pid = -1;
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int wait_for(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            return errno == ECHILD ? 0 : -1; // a host that ignores SIGCHLD loses the status, but the command has run
    return status;
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

} // namespace tavrik
