#pragma once

#include "core/log.h"
#include "tavrik_sdk.h"

namespace tavrik {

// How the families of calls start: the AT channel, the callback for `category`, uloop. 0, or -1 with the first step
// that fails, logged for the caller; `not_registered` is its text for the second.
int listen_for_calls(int category, Tavrik_IndicationCb callback, const char *not_registered, Site site = Site::here());

} // namespace tavrik
