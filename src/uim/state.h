#pragma once

namespace tavrik {

// The card state that a text behind "+CPIN:" stands for; TAVRIK_UIM_UNKNOWN for any other text.
int uim_state(const char *text);

} // namespace tavrik
