// What every entry into libubus and uloop goes through: one process-wide lock, and the protections that belong to it.
//
// libubus builds all messages in one hidden buffer and parses them with one hidden table, whatever the number of
// contexts, so two threads must never be inside it at once. A BusHold is the right to be inside. While it lasts
//   - SIGPIPE is blocked in the calling thread: libubus sends without MSG_NOSIGNAL;
//   - a guarded socket is shut down when its deadline passes: libubus sends, looks up and reads the rest of a message
//     without any limit of its own.
// Nothing of the application runs and nobody waits for a reply inside a BusHold.
#pragma once

#include "core/sync.h"

namespace tavrik {

// For what has no limit of its own: connecting, looking up, sending.
constexpr int kBusSetupMs = 5000;

class BusHold {
  public:
    // Waits for the lock until `deadline`. The lock may be taken again by the thread that has it.
    explicit BusHold(Deadline deadline);
    ~BusHold();
    BusHold(const BusHold &) = delete;
    BusHold &operator=(const BusHold &) = delete;
    explicit operator bool() const { return held_; }

    // From now on until `cut()` or the end of the hold `socket` is shut down when `deadline` passes.
    // False when there is no thread to do that.
    bool guard(int socket, Deadline deadline);
    // Ends the guard and tells whether the socket had to be shut down.
    bool cut();

  private:
    bool held_;
    bool guarding_ = false;
};

} // namespace tavrik
