#pragma once

#include <stdint.h>

#include "tavrik_sdk.h"

namespace tavrik {

// A call's state by the number that both the radio interface layer and +CLCC have for it; false for an unknown one.
inline bool call_state(int number, int32_t *state) {
    constexpr int32_t kStates[] = {
        TAVRIK_CALL_ACTIVE,  TAVRIK_CALL_HELD,    TAVRIK_CALL_DIALLING, TAVRIK_CALL_ALERTING, TAVRIK_CALL_INCOMING,
        TAVRIK_CALL_WAITING, TAVRIK_CALL_STATE_6, TAVRIK_CALL_STATE_7,  TAVRIK_CALL_ENDED, // the last three: its own
    };
    if (number < 0 || number >= int(sizeof kStates / sizeof *kStates))
        return false;
    *state = kStates[number];
    return true;
}

} // namespace tavrik
