// Threads of the library.
#pragma once

#include <pthread.h>

namespace tavrik {

// Starts a thread with all signals blocked; `name`, at most 15 characters, is its name, and in upper case its tag in
// the service log. Detached unless `handle` is given. 0 or an errno value.
int start_thread(const char *name, void *(*run)(void *), void *argument, pthread_t *handle = nullptr);

} // namespace tavrik
