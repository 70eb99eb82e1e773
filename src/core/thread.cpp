#include "core/thread.h"

#include "module_log.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>

namespace tavrik {
namespace {

struct ThreadStart {
    void *(*run)(void *);
    void *argument;
    char name[16];
};

void *run_thread(void *argument) {
    const ThreadStart start = *static_cast<ThreadStart *>(argument);
    free(argument);
    prctl(PR_SET_NAME, start.name);
    char tag[sizeof start.name] = {};
    for (int i = 0; start.name[i]; ++i)
        tag[i] = start.name[i] >= 'a' && start.name[i] <= 'z' ? char(start.name[i] - 'a' + 'A') : start.name[i];
    set_service_log_tag(tag);
    return start.run(start.argument);
}

} // namespace

int start_thread(const char *name, void *(*run)(void *), void *argument, pthread_t *handle) {
    auto *start = static_cast<ThreadStart *>(malloc(sizeof(ThreadStart)));
    if (!start)
        return ENOMEM;
    *start = {run, argument, {}};
    strncpy(start->name, name, sizeof start->name - 1);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (!handle)
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    sigset_t all, mask;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &mask);
    pthread_t unused;
    const int error = pthread_create(handle ? handle : &unused, &attributes, run_thread, start);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    pthread_attr_destroy(&attributes);
    if (error)
        free(start);
    return error;
}

} // namespace tavrik
