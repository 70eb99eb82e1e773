#include "ubus/host_signals.h"

#include <dlfcn.h>

#include "bus.h"
#include "core/sync.h"

namespace tavrik {
namespace {

Mutex g_mutex; // guards what follows

struct Watched {
    int signal;
    bool host_has_default; // seen before uloop was initialised: a handler of uloop's that stands later is not wanted
    bool host_has_uloops;  // the host runs uloop itself
    void (*strange)(int);  // the handler that was last found not to be uloop's
} g_watched[2] = {{SIGINT, false, false, nullptr}, {SIGTERM, false, false, nullptr}};

void *object_of(void *address) {
    Dl_info info;
    return dladdr(address, &info) ? info.dli_fbase : nullptr;
}

bool is_default(const struct sigaction &action) {
    return !(action.sa_flags & SA_SIGINFO) && action.sa_handler == SIG_DFL;
}

bool is_uloops(Watched &watched, const struct sigaction &action) {
    if ((action.sa_flags & SA_SIGINFO) || action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN ||
        action.sa_handler == watched.strange)
        return false;
    void *object = object_of(reinterpret_cast<void *>(action.sa_handler));
    if (object && object == object_of(reinterpret_cast<void *>(uloop_init)))
        return true;
    watched.strange = action.sa_handler;
    return false;
}

// Is a handler of uloop's in force that the host did not ask for?
bool must_go(Watched &watched) {
    struct sigaction now;
    return watched.host_has_default && !sigaction(watched.signal, nullptr, &now) && is_uloops(watched, now);
}

} // namespace

void mend_host_signals() {
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    Lock lock(g_mutex);
    for (Watched &watched : g_watched)
        if (must_go(watched))
            sigaction(watched.signal, &standard, nullptr);
}

void keep_host_signals() {
    Lock lock(g_mutex);
    for (Watched &watched : g_watched)
        if (must_go(watched)) {
            watched.host_has_default = false;
            watched.host_has_uloops = true;
        }
}

HostSignals::HostSignals() {
    // A running uloop would otherwise wait for, and so take away, every child of the host.
    uloop_handle_sigchld = false;
    Lock lock(g_mutex);
    for (Watched &watched : g_watched) {
        struct sigaction before;
        if (sigaction(watched.signal, nullptr, &before))
            continue;
        if (is_default(before))
            watched.host_has_uloops = false;
        else if (!watched.host_has_default && is_uloops(watched, before))
            watched.host_has_uloops = true;
        // "Ignored" may be system() at work in another thread, and the default be back before uloop looks. A host that
        // ignores the signal itself loses nothing: uloop then puts no handler there.
        if (is_default(before) || (before.sa_handler == SIG_IGN && !watched.host_has_uloops))
            watched.host_has_default = true;
    }
    sigaction(SIGPIPE, nullptr, &pipe_before_);
}

HostSignals::~HostSignals() {
    mend_host_signals();
    struct sigaction pipe;
    sigaction(SIGPIPE, nullptr, &pipe);
    if (is_default(pipe_before_) && !(pipe.sa_flags & SA_SIGINFO) && pipe.sa_handler == SIG_IGN)
        sigaction(SIGPIPE, &pipe_before_, nullptr);
}

} // namespace tavrik
