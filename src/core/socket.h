// Unix stream sockets, the one kind of socket that the services of the module offer.
#pragma once

#include "core/sync.h"

namespace tavrik {

// Connects to `path` until `deadline`; the descriptor is non-blocking and close-on-exec. -1 with errno set: EAGAIN when
// the server's backlog stayed full until then.
int connect_unix(const char *path, Deadline deadline);

} // namespace tavrik
