// What belongs to a context is named by its cid - 1.
#pragma once

#include <stdint.h>
#include <stdio.h>

namespace tavrik {

// Those that the library configures.
constexpr bool has_interface(int cid) {
    return cid >= 1 && cid <= 15;
}

struct ContextName {
    ContextName(const char *prefix, int64_t cid) { snprintf(text, sizeof text, "%s%lld", prefix, cid - 1LL); }
    char text[24];
};

} // namespace tavrik
