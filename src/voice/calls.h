// The calls there are, for the operations that act on one.
#pragma once

#include "core/log.h"
#include "tavrik_sdk.h"

namespace tavrik {

// Logs for the caller when they cannot be read.
bool read_calls(Tavrik_CallList &calls, Site site = Site::here());

// The first call with this id; without one its `call_id` is 0. False, logged for the caller, for an id below 1 and
// when the calls cannot be read.
bool read_call(int call_id, Tavrik_Call &call, Site site = Site::here());

} // namespace tavrik
