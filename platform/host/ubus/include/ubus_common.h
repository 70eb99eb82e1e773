#pragma once

#include <stdbool.h>

// Length of the common prefix in *len; true if the two are equal.
static inline bool ubus_strmatch_len(const char *s1, const char *s2, int *len) {
    for (*len = 0; s1[*len] == s2[*len]; (*len)++)
        if (!s1[*len])
            return true;
    return false;
}
