#include "ubus/loop.h"

#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include "core/log.h"
#include "core/thread.h"
#include "tavrik_sdk.h"
#include "ubus/context_pool.h"
#include "ubus/hold.h"
#include "ubus/host_signals.h"

using namespace tavrik;

namespace tavrik {

Mutex g_loop_mutex;

} // namespace tavrik

namespace {

// What a callback on the loop thread gets when the thread shall end.
constexpr int kPatienceMs = 2000;

Mutex g_start_stop;  // one start or stop at a time; never taken by the loop thread
Loop *g_loop;        // the current one
Condition g_changed; // one has left
bool g_uloop;        // uloop is initialised; guarded by the bus lock

// A child after fork has no loop thread.
void after_fork() {
    g_start_stop = Mutex();
    g_loop_mutex = Mutex();
    g_loop = nullptr;
    g_changed.make();
}

void set_up() {
    g_changed.make();
    pthread_atfork(nullptr, nullptr, after_fork);
}

int initialise() {
    BusHold hold(Deadline::in(kBusSetupMs));
    if (!hold)
        return -1;
    if (g_uloop)
        return 0;
    HostSignals keep;
    if (uloop_init())
        return -1;
    g_uloop = true;
    return 0;
}

void release() {
    drain_pool();
    BusHold hold(Deadline::in(kBusSetupMs));
    if (!hold)
        return;
    uloop_done(); // connecting has initialised it even where nobody asked for it
    g_uloop = false;
}

// Locked.
bool is_own(const Loop *loop) {
    return loop && !loop->left && pthread_equal(loop->thread, pthread_self());
}

void free_loop(Loop *loop) {
    close(loop->events);
    close(loop->wake);
    free(loop);
}

// Leaves, if that is what the thread shall do and nothing is pending.
bool leave(Loop &loop) {
    bool abandoned, releases;
    {
        Lock lock(g_loop_mutex);
        if (!loop.stop || loop.pending)
            return false;
        abandoned = loop.abandoned;
        releases = loop.release;
        loop.left = true;
        g_changed.wake_all();
    }
    // From here on `loop` may be another's: who finds that the thread has left waits for its end alone.
    if (releases)
        release();
    if (abandoned)
        free_loop(&loop);
    return true;
}

void *run_loop(void *argument) {
    auto &loop = *static_cast<Loop *>(argument);
    for (;;) {
        {
            BusHold hold(Deadline::in(kBusSetupMs));
            if (hold && g_uloop)
                uloop_run_timeout(0);
        }
        const Deadline next = end_due(loop);
        if (leave(loop))
            return nullptr;
        epoll_event ready[16];
        const int count = epoll_wait(loop.events, ready, sizeof ready / sizeof *ready, next.poll_ms());
        for (int i = 0; i < count; ++i) {
            eventfd_t times;
            if (ready[i].data.ptr)
                serve(loop, *static_cast<PendingRequest *>(ready[i].data.ptr));
            else
                eventfd_read(loop.wake, &times);
        }
    }
}

// The caller has g_start_stop, and there is no loop.
bool start_loop() {
    auto *loop = static_cast<Loop *>(calloc(1, sizeof(Loop)));
    if (!loop)
        return false;
    loop->events = epoll_create1(EPOLL_CLOEXEC);
    loop->wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event watch = {};
    watch.events = EPOLLIN;
    Lock lock(g_loop_mutex); // so that the thread finds its own handle
    if (loop->events < 0 || loop->wake < 0 || epoll_ctl(loop->events, EPOLL_CTL_ADD, loop->wake, &watch) ||
        start_thread("tavrikuloop", run_loop, loop, &loop->thread)) {
        free_loop(loop);
        return false;
    }
    g_loop = loop;
    return true;
}

// Waits until the thread has left, which what is pending and a callback may prevent for `ms`. The caller has
// g_start_stop. True when there is no loop any more that one could wait for.
bool end_loop(int ms) {
    Loop *loop;
    {
        Lock lock(g_loop_mutex);
        loop = g_loop;
        if (!loop)
            return true;
        const Deadline deadline = Deadline::in(ms);
        while (!loop->left && g_changed.wait(g_loop_mutex, deadline)) {
        }
        g_loop = nullptr;
        if (!loop->left) {
            loop->abandoned = true;
            pthread_detach(loop->thread);
            return false;
        }
    }
    pthread_join(loop->thread, nullptr);
    free_loop(loop);
    return true;
}

} // namespace

void tavrik::wake(const Loop &loop) {
    eventfd_write(loop.wake, 1);
}

bool tavrik::on_loop_thread() {
    Lock lock(g_loop_mutex);
    return is_own(g_loop);
}

Loop *tavrik::lock_running_loop() {
    for (;;) {
        g_loop_mutex.lock();
        if (g_loop && !g_loop->left && !g_loop->closing)
            return g_loop;
        g_loop_mutex.unlock();
        const bool running = !tavrik_ubus_thread_init();
        if (!running) {
            g_loop_mutex.lock();
            return nullptr;
        }
    }
}

int tavrik_ubus_init(void) {
    return initialise();
}

void tavrik_ubus_deinit(void) {
    {
        Lock lock(g_loop_mutex);
        if (is_own(g_loop)) { // the thread cannot wait for its own end, and uloop is still in use below this call
            abort_pending(*g_loop);
            g_loop->stop = g_loop->release = true;
            return;
        }
    }
    Lock one(g_start_stop);
    {
        Lock lock(g_loop_mutex);
        if (g_loop) {
            abort_pending(*g_loop);
            g_loop->stop = g_loop->closing = true;
            wake(*g_loop);
        }
    }
    if (!end_loop(kPatienceMs))
        TAVRIK_LOG_ERROR("callback does not end, left behind");
    release();
}

int tavrik_ubus_thread_init(void) {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, set_up);
    const auto revoke_stop = [] { // locked
        g_loop->stop = g_loop->release = false;
        return 0;
    };
    {
        Lock lock(g_loop_mutex);
        if (is_own(g_loop)) {
            if (!g_loop->closing)
                return revoke_stop();
            TAVRIK_LOG_ERROR("the loop thread is being stopped");
            return -1;
        }
    }
    Lock one(g_start_stop);
    {
        Lock lock(g_loop_mutex);
        if (g_loop && !g_loop->left)
            return revoke_stop();
    }
    end_loop(0);
    if (initialise() || !start_loop()) {
        TAVRIK_LOG_ERROR("Failed to create thread for uloop_run");
        return -1;
    }
    return 0;
}

void tavrik_ubus_thread_deinit(void) {
    Lock lock(g_loop_mutex);
    if (g_loop && !g_loop->left) {
        g_loop->stop = true;
        wake(*g_loop);
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
