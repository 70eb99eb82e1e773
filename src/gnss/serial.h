#pragma once

#include "core/sync.h"

#include <stddef.h>
#include <sys/types.h>

namespace tavrik {

constexpr char kReceiverPort[] = "/dev/ttyS3";

// Opens a serial port as it is used here: raw, 115200 8N1, non-blocking, never the controlling terminal. -1 with errno
// set when it is not there or no terminal.
int open_serial(const char *path, int flags);

// Writes everything, waiting for room until the deadline. The bytes written, -1 with errno set for none.
ssize_t write_serial(int port, const void *bytes, size_t length, Deadline deadline);

} // namespace tavrik
