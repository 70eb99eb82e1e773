// Why a call failed, in words.
#pragma once

#include <stdint.h>

namespace tavrik {

// Number and text of a cause of the radio interface layer: "17 User busy". Numbers without a text of their own are
// "127 Interworking: unspecified". Takes TAVRIK_FAIL_CAUSE_SIZE bytes at most.
const char *fail_cause_text(uint32_t cause);

} // namespace tavrik
