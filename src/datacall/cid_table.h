#pragma once

namespace tavrik {

// The context that is up for a profile; 0 for none, and for a profile that has no row (15 and any other index).
int context_of(int profile_idx);
// `cid` 0 for none. A profile without a row and a context that none of them can have change nothing.
void set_context(int profile_idx, int cid);
void clear_contexts();

} // namespace tavrik
