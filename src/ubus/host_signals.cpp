#include "ubus/host_signals.h"

#include <dlfcn.h>

#include "bus.h"

namespace tavrik {
namespace {

struct Taken {
    int signal;
    void (*handler)(int); // uloop's, once it was seen where the host had the default
} g_taken[2] = {{SIGINT, nullptr}, {SIGTERM, nullptr}};

void *object_of(void *address) {
    Dl_info info;
    return dladdr(address, &info) ? info.dli_fbase : nullptr;
}

bool is_default(const struct sigaction &action) {
    return !(action.sa_flags & SA_SIGINFO) && action.sa_handler == SIG_DFL;
}

bool is_uloops(const struct sigaction &action) {
    if ((action.sa_flags & SA_SIGINFO) || action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN)
        return false;
    void *object = object_of(reinterpret_cast<void *>(action.sa_handler));
    return object && object == object_of(reinterpret_cast<void *>(uloop_init));
}

// Is the handler that was taken away in force again?
bool stands(const Taken &taken, struct sigaction *now) {
    return taken.handler && !sigaction(taken.signal, nullptr, now) && !(now->sa_flags & SA_SIGINFO) &&
           now->sa_handler == taken.handler;
}

} // namespace

void mend_host_signals() {
    struct sigaction now;
    for (const Taken &taken : g_taken) {
        if (stands(taken, &now)) {
            now.sa_handler = SIG_DFL;
            sigaction(taken.signal, &now, nullptr);
        }
    }
}

void keep_host_signals() {
    struct sigaction now;
    for (Taken &taken : g_taken) {
        if (stands(taken, &now))
            taken.handler = nullptr;
    }
}

HostSignals::HostSignals() {
    // A running uloop would otherwise wait for, and so take away, every child of the host.
    uloop_handle_sigchld = false;
    for (int i = 0; i < 2; i++)
        sigaction(g_taken[i].signal, nullptr, &before_[i]);
    sigaction(SIGPIPE, nullptr, &pipe_before_);
}

HostSignals::~HostSignals() {
    for (int i = 0; i < 2; i++) {
        struct sigaction now;
        sigaction(g_taken[i].signal, nullptr, &now);
        if (is_default(before_[i]) && is_uloops(now)) {
            g_taken[i].handler = now.sa_handler;
            sigaction(g_taken[i].signal, &before_[i], nullptr);
        }
    }
    struct sigaction pipe;
    sigaction(SIGPIPE, nullptr, &pipe);
    if (is_default(pipe_before_) && !(pipe.sa_flags & SA_SIGINFO) && pipe.sa_handler == SIG_IGN)
        sigaction(SIGPIPE, &pipe_before_, nullptr);
}

} // namespace tavrik
