#include "ubus/host_signals.h"

#include <dlfcn.h>

#include "bus.h"

namespace tavrik {
namespace {

struct Watched {
    int signal;
    bool host_has_default; // seen before uloop was initialised: a handler of uloop's that stands later is not wanted
    void (*strange)(int);  // the handler that was last found not to be uloop's
} g_watched[2] = {{SIGINT, false, nullptr}, {SIGTERM, false, nullptr}};

void *object_of(void *address) {
    Dl_info info;
    return dladdr(address, &info) ? info.dli_fbase : nullptr;
}

bool is_default(const struct sigaction &action) {
    return !(action.sa_flags & SA_SIGINFO) && action.sa_handler == SIG_DFL;
}

// Is a handler of uloop's in force that the host did not ask for?
bool must_go(Watched &watched) {
    struct sigaction now;
    if (!watched.host_has_default || sigaction(watched.signal, nullptr, &now) || (now.sa_flags & SA_SIGINFO) ||
        now.sa_handler == SIG_DFL || now.sa_handler == SIG_IGN || now.sa_handler == watched.strange)
        return false;
    void *object = object_of(reinterpret_cast<void *>(now.sa_handler));
    if (object && object == object_of(reinterpret_cast<void *>(uloop_init)))
        return true;
    watched.strange = now.sa_handler;
    return false;
}

} // namespace

void mend_host_signals() {
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    for (Watched &watched : g_watched)
        if (must_go(watched))
            sigaction(watched.signal, &standard, nullptr);
}

void keep_host_signals() {
    for (Watched &watched : g_watched)
        if (must_go(watched))
            watched.host_has_default = false;
}

HostSignals::HostSignals() {
    // A running uloop would otherwise wait for, and so take away, every child of the host.
    uloop_handle_sigchld = false;
    for (Watched &watched : g_watched) {
        struct sigaction before;
        if (!sigaction(watched.signal, nullptr, &before) && is_default(before))
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
