#pragma once

#include "core/at_command.h"
#include "core/log.h"
#include "tavrik_sdk.h"

struct uci_section;

namespace tavrik {

// An exchange of this family, which takes in less of an answer than the others.
inline AtCommand data_call_command() {
    return AtCommand(TAVRIK_AT_TIMEOUT_MS, "OK", 256);
}

// Options of a section of data_profile into the record's fields, save its index; one that is missing leaves its field
// alone, and a line in the log. True when all are there.
bool read_profile(uci_section *section, Tavrik_DataProfile *profile, Site site = Site::here());

} // namespace tavrik
