// Shell commands without the side effects of system() and popen(): the host's signal dispositions stay as they are,
// its children are not waited for, and nothing but stdin, stdout and stderr is inherited from the library.
#pragma once

namespace tavrik {

// Runs `sh -c command` to its end. Its wait status, -1 when it could not be started.
int run_shell(const char *command);

// The same; `buffer` is cleared and then holds the last line that the command printed, line feed included. A line
// longer than the buffer counts as several. 0, or -1 when the command could not be started.
int run_shell_for_line(const char *command, char *buffer, int size);

// The same for the first line, cut to `size` - 1 characters and without its line end. After `limit_ms` the command,
// with all that it has started, is killed and counts as one that printed nothing. 1 with a line, 0 without, -1 with
// errno set.
int run_shell_for_first_line(const char *command, char *buffer, int size, int limit_ms);

} // namespace tavrik
