// The whole GSM 7-bit alphabet with its extension and the national languages (3GPP TS 23.038, clause 6.2 and Annex A).
#pragma once

#include <stdint.h>

namespace tavrik {

// Writes `count` characters as UTF-8, 3 bytes for each at most; returns the bytes written. The languages are those of
// the header elements 0x25 (locking shift) and 0x24 (single shift); 0 and unknown ones stand for the default tables.
int gsm_to_utf8(const uint8_t *septets, int count, int locking_shift, int single_shift, char *utf8);

} // namespace tavrik
