// The calls there are, for the operations that act on one.
#pragma once

#include "core/log.h"
#include "tavrik_sdk.h"

namespace tavrik {

// Logs for the caller when they cannot be read.
bool read_calls(Tavrik_CallList &calls, Site site = Site::here());

// The first call with this id; NULL without one.
const Tavrik_Call *find_call(const Tavrik_CallList &calls, int call_id);

} // namespace tavrik
