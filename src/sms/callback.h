// The application's SMS callback, as the sends see it.
#pragma once

#include "core/log.h"

#include <stdint.h>

namespace tavrik {

// Hands the result of a send to the SMS callback, on this thread. Logs for the caller when there is none.
void announce_result(int32_t result, Site site = Site::here());

} // namespace tavrik
