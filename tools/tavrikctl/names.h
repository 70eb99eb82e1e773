// Words for what the library counts.
#pragma once

#include <string>

namespace tavrikctl {

inline std::string sim_state_name(int state) {
    static const char *const kNames[] = {"absent", "ready", "PIN required", "PUK required", "", "PUK blocked"};
    return state >= 0 && state < 6 && *kNames[state] ? kNames[state] : "unknown";
}

// <stat> of 3GPP TS 27.007 clauses 7.2, 10.1.20 and 10.1.22.
inline std::string registration_name(int state) {
    static const char *const kNames[] = {"not registered",
                                         "home",
                                         "searching",
                                         "denied",
                                         "unknown",
                                         "roaming",
                                         "home, SMS only",
                                         "roaming, SMS only",
                                         "emergency only",
                                         "home, CSFB not preferred",
                                         "roaming, CSFB not preferred"};
    return state >= 0 && state < 11 ? kNames[state] : std::to_string(state);
}

inline std::string call_state_name(int state) {
    static const char *const kNames[] = {"",     "dialling", "incoming", "active", "", "alerting",
                                         "held", "waiting",  "7",        "ended",  "6"};
    return state > 0 && state < 11 ? kNames[state] : "";
}

inline std::string call_direction_name(int direction) {
    return direction == 1 ? "outgoing" : direction == 2 ? "incoming" : "";
}

inline std::string technology_name(int technology) { // 2 to 4, as the library counts them
    return technology == 2 ? "GSM" : technology == 3 ? "WCDMA" : technology == 4 ? "LTE" : "none";
}

} // namespace tavrikctl
