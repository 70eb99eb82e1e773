// Contexts of libubus: set up on a thread that may be left behind, kept for the next request, freed under the lock.
#pragma once

#include "bus.h"
#include "core/sync.h"

namespace tavrik {

struct PooledContext {
    ubus_context *context;
    PooledContext *next;
};

// A context that is connected and greeted, or NULL: the daemon did not answer until `deadline`, or no memory.
PooledContext *take_context(Deadline deadline);
// `clean`: no exchange was cut short, so the context may serve again.
void give_context(PooledContext *pooled, bool clean);

// ubus_connect on a thread of its own, because nothing bounds it.
ubus_context *connect_context(Deadline deadline);

void drain_pool();

} // namespace tavrik
