// The event loop of the library: uloop's initialisation, and the thread that serves what is asynchronous.
//
// The thread waits outside uloop, whose lists have no lock, for the sockets of requests under way and for work handed
// over, and enters libubus and uloop under the bus lock when something happened. Handlers run with no lock held.
#pragma once

#include "core/sync.h"

namespace tavrik {

struct PendingRequest;

// A loop thread. One that is held up by a callback when it shall end is left behind: it ends by itself later, and
// another may be started meanwhile.
struct Loop {
    pthread_t thread;
    int events;     // epoll: `wake`, and the sockets of requests under way
    int wake;       // eventfd
    bool stop;      // leaves as soon as nothing is pending
    bool release;   // and releases uloop then, because nobody else will
    bool closing;   // another thread waits for its end: nothing new is taken on
    bool left;      // touches nothing any more
    bool abandoned; // nobody waits for its end: it frees this itself
    PendingRequest *pending;
};

// Guards the current loop and all that loops hold, save what a loop thread alone touches. Held over no wait.
extern Mutex g_loop_mutex;

// The running loop thread's, started if need be; NULL when it cannot be had. The caller unlocks g_loop_mutex in either
// case.
Loop *lock_running_loop();
// Locked: makes the thread look again at what it waits for.
void wake(const Loop &loop);

// Is the calling thread the loop thread?
bool on_loop_thread();

// On the loop thread, in async.cpp.

// Serves a request whose socket is ready.
void serve(Loop &loop, PendingRequest &request);
// Ends requests whose limit has passed and those that are aborted. Returns when the next limit passes.
Deadline end_due(Loop &loop);
// Locked: whoever is pending is aborted.
void abort_pending(Loop &loop);

} // namespace tavrik
