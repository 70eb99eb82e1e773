#pragma once

#include <stdint.h>

namespace tavrik {

// Writes a code point, or half of a surrogate pair; where the next one goes.
inline char *put_utf8(char *out, uint32_t point) {
    if (point < 0x80) {
        *out++ = char(point);
        return out;
    }
    if (point < 0x800) {
        *out++ = char(0xC0 | point >> 6);
    } else {
        if (point < 0x10000) {
            *out++ = char(0xE0 | point >> 12);
        } else {
            *out++ = char(0xF0 | point >> 18);
            *out++ = char(0x80 | (point >> 12 & 0x3F));
        }
        *out++ = char(0x80 | (point >> 6 & 0x3F));
    }
    *out++ = char(0x80 | (point & 0x3F));
    return out;
}

inline bool is_first_half(uint32_t unit) {
    return unit >> 10 == 0xD800 >> 10;
}
inline bool is_second_half(uint32_t unit) {
    return unit >> 10 == 0xDC00 >> 10;
}
inline uint32_t joined_halves(uint32_t first, uint32_t second) {
    return 0x10000 + ((first & 0x3FF) << 10) + (second & 0x3FF);
}
constexpr uint32_t kReplacement = 0xFFFD; // stands for what is no character
constexpr int kReplacementBytes = 3;

} // namespace tavrik
