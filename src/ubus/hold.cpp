#include "ubus/hold.h"

#include <signal.h>
#include <sys/socket.h>

#include "core/sigpipe.h"
#include "core/thread.h"
#include "tavrik_sdk.h"
#include "ubus/host_signals.h"

namespace tavrik {
namespace {

struct {
    Mutex mutex;
    Condition released;
    pthread_t owner;
    unsigned depth;   // how often the owner has taken it, 0 when free
    unsigned waiting; // threads in the wait below
    SigpipeMask pipe; // of the owner
} g_lock;

// The one guarded socket: only the thread that holds the lock can have one.
struct {
    Mutex mutex;
    Condition changed;
    bool running;
    int socket = -1;
    bool fired;
    int64_t at_ms;          // when the guarded socket is shut down
    int64_t asleep_till_ms; // the thread looks again then, at the latest
} g_watchdog;

pthread_once_t g_once = PTHREAD_ONCE_INIT;

void make_conditions() {
    g_lock.released.make();
    g_watchdog.changed.make();
}

// A child after fork has neither the watchdog nor the thread that may have held the lock.
void after_fork() {
    g_lock.mutex = Mutex();
    g_lock.depth = 0;
    g_lock.waiting = 0;
    g_watchdog.mutex = Mutex();
    g_watchdog.running = false;
    g_watchdog.socket = -1;
    make_conditions();
}

void set_up() {
    make_conditions();
    pthread_atfork(nullptr, nullptr, after_fork);
}

bool acquire(Deadline deadline) {
    pthread_once(&g_once, set_up);
    {
        Lock lock(g_lock.mutex);
        if (g_lock.depth && pthread_equal(g_lock.owner, pthread_self())) {
            g_lock.depth++;
            return true;
        }
        while (g_lock.depth) {
            g_lock.waiting++;
            const bool in_time = g_lock.released.wait(g_lock.mutex, deadline);
            g_lock.waiting--;
            if (!in_time && g_lock.depth)
                return false;
        }
        g_lock.depth = 1;
        g_lock.owner = pthread_self();
    }
    g_lock.pipe.block();
    return true;
}

void release() {
    if (g_lock.depth == 1) { // only the owner gets here, so this needs no lock
        const SigpipeMask pipe = g_lock.pipe;
        {
            Lock lock(g_lock.mutex);
            g_lock.depth = 0;
            if (g_lock.waiting)
                g_lock.released.wake_one();
        }
        pipe.restore();
        return;
    }
    Lock lock(g_lock.mutex);
    g_lock.depth--;
}

void *watch(void *) {
    Lock lock(g_watchdog.mutex);
    for (;;) {
        if (g_watchdog.socket >= 0 && monotonic_ms() >= g_watchdog.at_ms) {
            shutdown(g_watchdog.socket, SHUT_RDWR);
            g_watchdog.fired = true;
            g_watchdog.socket = -1;
        }
        // After a guard that ended in time the thread sleeps on till that guard's deadline: a program that sends a
        // request every few milliseconds then wakes it once in a time limit, not at each request.
        if (g_watchdog.socket >= 0)
            g_watchdog.asleep_till_ms = g_watchdog.at_ms;
        else if (g_watchdog.asleep_till_ms <= monotonic_ms())
            g_watchdog.asleep_till_ms = INT64_MAX;
        g_watchdog.changed.wait(g_watchdog.mutex, Deadline::at(g_watchdog.asleep_till_ms));
    }
    return nullptr;
}

} // namespace

BusHold::BusHold(Deadline deadline) : held_(acquire(deadline)) {
}

BusHold::~BusHold() {
    if (guarding_)
        cut();
    if (held_)
        release();
}

bool BusHold::guard(int socket, Deadline deadline) {
    Lock lock(g_watchdog.mutex);
    g_watchdog.socket = socket;
    g_watchdog.fired = false;
    g_watchdog.at_ms = deadline.at_ms();
    if (!g_watchdog.running) {
        if (start_thread("tavrikbuswatch", watch, nullptr)) {
            g_watchdog.socket = -1;
            return false;
        }
        g_watchdog.running = true;
    } else if (g_watchdog.at_ms < g_watchdog.asleep_till_ms) {
        g_watchdog.changed.wake_one();
    }
    guarding_ = true;
    return true;
}

bool BusHold::cut() {
    Lock lock(g_watchdog.mutex);
    guarding_ = false;
    g_watchdog.socket = -1;
    return g_watchdog.fired;
}

} // namespace tavrik

void tavrik_ubus_lock(void) {
    tavrik::acquire(tavrik::Deadline::never());
    tavrik::mend_host_signals();
}

void tavrik_ubus_unlock(void) {
    {
        tavrik::Lock lock(tavrik::g_lock.mutex);
        if (!tavrik::g_lock.depth || !pthread_equal(tavrik::g_lock.owner, pthread_self()))
            return; // without its lock: somebody else's would be released
    }
    tavrik::keep_host_signals();
    tavrik::release();
}
