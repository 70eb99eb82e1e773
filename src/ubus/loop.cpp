#include "ubus/loop.h"

#include <poll.h>
#include <sys/eventfd.h>

#include "core/log.h"
#include "core/thread.h"
#include "tavrik_sdk.h"
#include "ubus/hold.h"
#include "ubus/context_pool.h"
#include "ubus/host_signals.h"

using namespace tavrik;

namespace {

enum class ThreadState { none, running, asked_to_stop, left };

struct {
    Mutex start_stop; // one start or stop at a time; never taken by the loop thread
    Mutex mutex;      // guards what follows
    bool initialised;
    ThreadState state;
    pthread_t thread;
    int wake = -1;
} g_loop;

// The thread waits outside uloop, whose lists have no lock, and enters it under the bus lock when something happened.
void *run_loop(void *) {
    for (;;) {
        {
            BusHold hold(Deadline::in(kBusSetupMs));
            if (hold)
                uloop_run_timeout(0);
        }
        int wake;
        {
            Lock lock(g_loop.mutex);
            if (g_loop.state == ThreadState::asked_to_stop) {
                g_loop.state = ThreadState::left;
                return nullptr;
            }
            wake = g_loop.wake;
        }
        pollfd wait = {wake, POLLIN, 0};
        poll(&wait, 1, -1);
        eventfd_t count;
        if (wait.revents)
            eventfd_read(wake, &count);
    }
}

// Takes the thread's end in, once it was asked to stop or has left. The caller has start_stop.
void join_loop() {
    {
        Lock lock(g_loop.mutex);
        if (g_loop.state == ThreadState::none)
            return;
    }
    pthread_join(g_loop.thread, nullptr);
    Lock lock(g_loop.mutex);
    g_loop.state = ThreadState::none;
    close(g_loop.wake);
    g_loop.wake = -1;
}

int initialise() {
    if (g_loop.initialised)
        return 0;
    BusHold hold(Deadline::in(kBusSetupMs));
    if (!hold)
        return -1;
    HostSignals keep;
    if (uloop_init())
        return -1;
    g_loop.initialised = true;
    return 0;
}

} // namespace

bool tavrik::on_loop_thread() {
    Lock lock(g_loop.mutex);
    return g_loop.state != ThreadState::none && pthread_equal(g_loop.thread, pthread_self());
}

void tavrik::wake_loop() {
    Lock lock(g_loop.mutex);
    if (g_loop.wake >= 0)
        eventfd_write(g_loop.wake, 1);
}

int tavrik_ubus_init(void) {
    Lock one(g_loop.start_stop);
    return initialise();
}

void tavrik_ubus_deinit(void) {
    tavrik_ubus_thread_deinit();
    if (on_loop_thread())
        return; // the thread cannot wait for its own end, and uloop is still in use below this call
    Lock one(g_loop.start_stop);
    join_loop();
    drain_pool();
    BusHold hold(Deadline::in(kBusSetupMs));
    if (!hold)
        return;
    uloop_done(); // connecting has initialised it even where nobody asked for it
    g_loop.initialised = false;
}

int tavrik_ubus_thread_init(void) {
    if (on_loop_thread()) {
        Lock lock(g_loop.mutex);
        if (g_loop.state == ThreadState::asked_to_stop)
            g_loop.state = ThreadState::running;
        return 0;
    }
    Lock one(g_loop.start_stop);
    {
        Lock lock(g_loop.mutex);
        if (g_loop.state == ThreadState::asked_to_stop)
            g_loop.state = ThreadState::running; // it has not left yet: the stop is revoked
        if (g_loop.state == ThreadState::running)
            return 0;
    }
    join_loop();
    const int wake = initialise() ? -1 : eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    Lock lock(g_loop.mutex);
    g_loop.wake = wake;
    if (wake < 0 || start_thread("tavrikuloop", run_loop, nullptr, &g_loop.thread)) {
        if (wake >= 0)
            close(wake);
        g_loop.wake = -1;
        TAVRIK_LOG_ERROR("Failed to create thread for uloop_run");
        return -1;
    }
    g_loop.state = ThreadState::running;
    return 0;
}

void tavrik_ubus_thread_deinit(void) {
    Lock lock(g_loop.mutex);
    if (g_loop.state == ThreadState::running) {
        g_loop.state = ThreadState::asked_to_stop;
        eventfd_write(g_loop.wake, 1);
    }
}

ubus_context *tavrik_get_ubus_ctx(void) {
    return connect_context(Deadline::in(kBusSetupMs));
}

void tavrik_free_ubus_ctx(ubus_context *context) {
    if (!context)
        return;
    BusHold hold(Deadline::never());
    ubus_free(context);
}
