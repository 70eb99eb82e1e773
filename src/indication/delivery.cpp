// The way of a record to the application's callback, and the wait for callbacks to end.
#include "indication/state.h"
#include "ubus/loop.h"

#include <pthread.h>

using namespace tavrik;

namespace tavrik {

Registry g_registry;

} // namespace tavrik

namespace {

constexpr int kPatienceMs = 2000;

// A child after fork has none of the threads, unless it was forked in a callback: that thread then ends behind it. The
// connections are the parent's: with a second owner the server would not see the parent close them.
void after_fork() {
    g_registry.starting = Mutex();
    g_registry.mutex = Mutex();
    g_registry.changed.make();
    g_registry.runs = nullptr;
    g_registry.waits = nullptr;
    if (g_registry.reader && !g_registry.reader->adopted)
        free_reader(g_registry.reader);
    g_registry.reader = nullptr;
    while (Reader *reader = g_registry.readers) {
        g_registry.readers = reader->next;
        if (pthread_equal(reader->thread, pthread_self()))
            abandon(reader);
        else
            free_reader(reader);
    }
}

void set_up() {
    g_registry.changed.make();
    pthread_atfork(nullptr, nullptr, after_fork);
}

bool concerns(const Run &run, const Wait &wait) {
    return wait.slots >> run.slot & 1 && run.number <= wait.newest && !run.left_behind && run.excused != &wait;
}

// Is `thread` inside something that `wait` waits for?
bool holds_up(pthread_t thread, const Wait &wait) {
    for (const Run *run = g_registry.runs; run; run = run->next)
        if (concerns(*run, wait) && pthread_equal(run->thread, thread))
            return true;
    return false;
}

void excuse(pthread_t thread, const Wait &wait) {
    for (Run *run = g_registry.runs; run; run = run->next)
        if (concerns(*run, wait) && pthread_equal(run->thread, thread))
            run->excused = &wait;
}

Run *awaited(const Wait &wait) {
    for (Run *run = g_registry.runs; run; run = run->next)
        if (concerns(*run, wait) && !pthread_equal(run->thread, wait.thread))
            return run;
    return nullptr;
}

// Of the calling thread, if it is an indication thread.
Reader *own_reader() {
    Reader *reader = g_registry.readers;
    while (reader && !pthread_equal(reader->thread, pthread_self()))
        reader = reader->next;
    return reader;
}

// With all that the thread is inside: a callback may have reported a line itself.
void leave_behind(const Run &hanging) {
    for (Run *run = g_registry.runs; run; run = run->next)
        if (pthread_equal(run->thread, hanging.thread))
            run->left_behind = true;
}

// Callbacks of indication threads come one at a time, also when a thread that was stopped inside one has a successor.
bool predecessor_runs(const Reader *reader) {
    for (const Run *run = g_registry.runs; run; run = run->next)
        if (run->reader && run->reader != reader && !run->left_behind)
            return true;
    return false;
}

} // namespace

void tavrik::set_up_registry() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, set_up);
}

bool tavrik::deliver(Slot slot, int event, void *record) {
    Run run = {slot, 0, nullptr, pthread_self(), false, nullptr, nullptr};
    Tavrik_IndicationHandler handler;
    {
        RegistryLock lock;
        const Reader *const reader = run.reader = own_reader();
        while (reader && !reader->stop && predecessor_runs(reader))
            g_registry.changed.wait(g_registry.mutex);
        handler = g_registry.handlers[slot];
        if (!handler || (reader && reader->stop))
            return false;
        run.number = ++g_registry.newest;
        push(g_registry.runs, run);
    }
    handler(event, record);
    RegistryLock lock;
    remove(g_registry.runs, run);
    return true;
}

bool tavrik::inside_callback(const Reader *reader) {
    for (const Run *run = g_registry.runs; run; run = run->next)
        if (run->reader == reader)
            return true;
    return false;
}

void tavrik::enter(Wait &wait) {
    wait.thread = pthread_self();
    for (const Wait *other = g_registry.waits; other; other = other->next) {
        if (!holds_up(other->thread, wait) || !holds_up(wait.thread, *other))
            continue;
        excuse(other->thread, wait);
        excuse(wait.thread, *other);
    }
    push(g_registry.waits, wait);
    g_registry.changed.wake_all();
}

void tavrik::leave(Wait &wait) {
    for (Run *run = g_registry.runs; run; run = run->next)
        if (run->excused == &wait)
            run->excused = nullptr;
    remove(g_registry.waits, wait);
}

void tavrik::wait_for_callbacks(unsigned slots, uint64_t newest, Site site) {
    // So that the loop thread and one that waits for its end do not wait for each other.
    Run loop = {kLoopThread, 0, nullptr, pthread_self(), false, nullptr, nullptr};
    const bool on_loop = on_loop_thread();
    int left_behind = 0;
    bool served = true;
    {
        RegistryLock lock;
        if (on_loop)
            push(g_registry.runs, loop);
        Wait wait = {slots, newest, {}, nullptr};
        enter(wait);
        const Deadline deadline = Deadline::in(kPatienceMs);
        bool patient = true;
        while (Run *run = awaited(wait)) {
            if (patient) {
                patient = g_registry.changed.wait(g_registry.mutex, deadline);
                continue;
            }
            leave_behind(*run);
            ++left_behind;
            g_registry.changed.wake_all();
            if (run->reader && run->reader == g_registry.reader)
                served = replace_reader();
        }
        leave(wait);
        if (on_loop)
            remove(g_registry.runs, loop);
    }
    if (left_behind)
        log(Level::error, site, "callback does not end, left behind");
    if (!served)
        log(Level::error, site, "no indication thread for the other callbacks");
}
