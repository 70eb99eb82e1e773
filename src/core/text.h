// Small helpers for texts inside the library.
#pragma once

#include <stdint.h>

namespace tavrik {

// Cuts blanks and tabulators off the end of `text` and returns where it starts without those in front.
char *trim(char *text);

// strtol with base 10 as the module's 32-bit `long` has it: clamped to 32 bits.
int32_t decimal(const char *text, char **end = nullptr);

} // namespace tavrik
