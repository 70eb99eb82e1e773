// The contexts of the profiles. The table is exported, so its words are atomic and there is no lock.
#include "datacall/cid_table.h"

#include "tavrik_sdk.h"

#include <stddef.h>

static_assert(sizeof(Tavrik_IdxCid) == 8 && offsetof(Tavrik_IdxCid, reconnect) == 4 && sizeof g_idx_cid == 120,
              "layout");

Tavrik_IdxCid g_idx_cid[TAVRIK_IDX_CID_COUNT];

bool tavrik::profile_started(int profile_idx) {
    return profile_idx >= 0 && profile_idx < TAVRIK_IDX_CID_COUNT &&
           __atomic_load_n(&g_idx_cid[profile_idx].cid, __ATOMIC_RELAXED) != 0;
}
