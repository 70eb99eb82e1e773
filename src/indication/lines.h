#pragma once

#include <stddef.h>

namespace tavrik {

// Length of the line at the start of a chunk, its CR LF included; a "+CMT:" line goes with the one that follows.
// 0 when it does not end in the chunk.
size_t line_length(const char *chunk, size_t length);

} // namespace tavrik
