// The mask that a gateway suggests.
#pragma once

#include <stdint.h>

namespace tavrik {

struct Octets {
    uint8_t dotted[4];
};

// `c` and `d`: the last two octets of the gateway, in dotted order; `end`: the mask's own last one, as a rule 0.
constexpr Octets netmask_for(uint8_t c, uint8_t d, uint8_t end) {
    if (d != 0 && d != 255)
        return {{255, 255, 255, end}};
    return {{255, uint8_t(c == d ? 0 : 255), 0, 0}};
}

} // namespace tavrik
