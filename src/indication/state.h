// What the files of the indication channel share: one lock, and what it guards.
//
// A callback runs outside the lock; meanwhile a Run on its thread's stack tells that it does. Who deregisters clears
// the slots and then waits for the runs in them. The lock is held over no callback, join or connect.
#pragma once

#include "core/log.h"
#include "core/sync.h"
#include "indication/parsers.h"
#include "tavrik_sdk.h"

#include <stddef.h>

namespace tavrik {

constexpr unsigned kAllSlots = (1u << kSlotCount) - 1;
// Beside the slots: what a thread waits for that waits for the loop thread.
constexpr int kLoopThread = kSlotCount;

constexpr size_t kReadSize = 512;

// The indication thread: its connection, and what it has read and not handed on yet.
struct Reader {
    pthread_t thread;
    int socket; // -1 once a successor has it, or nobody needs it any more
    int wake;
    bool adopted;  // the thread has begun: it is in the list of readers
    bool stop;     // it delivers nothing more and ends
    bool detached; // nobody joins it: it frees this itself
    bool lost;     // the server has closed the connection
    Reader *next;

    // Touched without the lock by the thread, and under the lock by others while the thread is inside a callback.
    size_t used;   // bytes in the buffer; behind them what the next read brings
    size_t passed; // of these, what may be handed on
    size_t done;   // of these, what has been
    char buffer[2 * kReadSize + 1];
};

struct Wait {
    unsigned slots;
    uint64_t newest; // a run that began later is none of its: it can only be the callback of a later registration
    pthread_t thread;
    Wait *next;
};

struct Run {
    int slot;
    uint64_t number; // counts up from 1; 0 for the loop thread's
    Reader *reader;  // of the thread, if it is an indication thread
    pthread_t thread;
    bool left_behind;
    const Wait *excused; // this wait does not wait for it
    Run *next;
};

struct Registry {
    Mutex starting; // one start of the thread at a time: taken before `mutex`, and held while connecting
    Mutex mutex;
    Condition changed; // a run or a wait has come or gone, or a reader was stopped
    Tavrik_IndicationCb callbacks[kSlotCount];
    Tavrik_IndicationHandler handlers[kSlotCount];
    int count;
    bool initialised;
    unsigned generation; // counts the full teardowns
    Reader *reader;      // the running one
    Reader *readers;     // with those that were stopped inside a callback
    Run *runs;
    uint64_t newest; // number of the run that began last
    Wait *waits;
};

extern Registry g_registry;

void set_up_registry();

class RegistryLock : public Lock {
  public:
    RegistryLock() : Lock((set_up_registry(), g_registry.mutex)) {}
};

// All below is in channel.cpp. Those that say "locked" want the lock held.

// Starts the thread unless it runs, or a full teardown came after `generation`. False on failure.
bool start_indication_thread(unsigned generation, pthread_t *thread);
// Locked: takes the running reader away and stops it; NULL without one. The caller ends it with end_reader().
Reader *take_reader();
void end_reader(Reader *reader);
// Locked: a stopped reader that its thread frees, and nobody waits for.
void abandon(Reader *reader);
void free_reader(Reader *reader);
// Locked, with the running reader's thread inside a callback: leaves that thread to itself; a new one goes on with its
// connection behind the line it is at. False without a new one.
bool replace_reader();

// And these in delivery.cpp.

// Locked: puts a node in front of its list, or takes it out and tells all who wait for a change.
template <class Node>
void push(Node *&list, Node &node) {
    node.next = list;
    list = &node;
}
template <class Node>
void remove(Node *&list, Node &node) {
    Node **link = &list;
    while (*link && *link != &node)
        link = &(*link)->next;
    if (*link) // after fork it is not there
        *link = node.next;
    g_registry.changed.wake_all();
}

// Locked: publishes that the thread waits for these slots. Two threads that wait for each other's callback do not.
void enter(Wait &wait);
void leave(Wait &wait);
// Waits until no callback of these slots, up to the run `newest`, runs on any other thread; one that takes too long is
// left behind.
void wait_for_callbacks(unsigned slots, uint64_t newest, Site site);
// Locked: is the reader's thread inside a callback?
bool inside_callback(const Reader *reader);

} // namespace tavrik
