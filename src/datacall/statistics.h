// The counters of the contexts' interfaces: a uci file, in which other programs of the module count.
#pragma once

#include "core/log.h"
#include "core/uci_store.h"

namespace tavrik {

constexpr char kStatistics[] = "/etc/stat/data_statistics";

// Loads the file; logs for the store's owner when it cannot.
bool open_statistics(UciStore &store);

// Sets the counters of a context to 0, for the next commit, and makes its section if there is none.
void zero_counters(UciStore &store, int cid);

} // namespace tavrik
