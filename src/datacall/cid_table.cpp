// The contexts of the profiles. The table is exported and read by applications as it is, so its words are written one
// by one, atomically; the lock keeps the words of a row, and all rows of a clearing, together among the writers.
#include "datacall/cid_table.h"

#include "core/sync.h"
#include "tavrik_sdk.h"

#include <stddef.h>

static_assert(sizeof(Tavrik_IdxCid) == 8 && offsetof(Tavrik_IdxCid, reconnect) == 4 && sizeof g_idx_cid == 120,
              "layout");

Tavrik_IdxCid g_idx_cid[TAVRIK_IDX_CID_COUNT];

namespace tavrik {
namespace {

Mutex g_mutex;

bool has_row(int profile_idx) {
    return profile_idx >= 0 && profile_idx < TAVRIK_IDX_CID_COUNT;
}

} // namespace

int context_of(int profile_idx) {
    return has_row(profile_idx) ? __atomic_load_n(&g_idx_cid[profile_idx].cid, __ATOMIC_RELAXED) : 0;
}

void set_context(int profile_idx, int cid) {
    if (!has_row(profile_idx) || cid < 0 || cid > TAVRIK_IDX_CID_COUNT)
        return;
    const Lock lock(g_mutex);
    __atomic_store_n(&g_idx_cid[profile_idx].cid, cid, __ATOMIC_RELAXED);
    __atomic_store_n(&g_idx_cid[profile_idx].reconnect, uint8_t(0), __ATOMIC_RELAXED);
}

void clear_contexts() {
    const Lock lock(g_mutex);
    for (Tavrik_IdxCid &row : g_idx_cid) {
        __atomic_store_n(&row.cid, 0, __ATOMIC_RELAXED);
        __atomic_store_n(&row.reconnect, uint8_t(0), __ATOMIC_RELAXED);
    }
}

} // namespace tavrik
