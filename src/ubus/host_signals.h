// The host program's signal dispositions, kept as they were around uloop's initialisation.
//
// uloop_init, and with it each ubus_connect, installs handlers for SIGINT and SIGTERM where they were default, and
// ignores SIGPIPE. HostSignals is used with the bus lock held.
#pragma once

#include <signal.h>

namespace tavrik {

// Stands around a call that initialises uloop and puts back what uloop, and nobody else, changed meanwhile.
class HostSignals {
  public:
    HostSignals();
    ~HostSignals();
    HostSignals(const HostSignals &) = delete;
    HostSignals &operator=(const HostSignals &) = delete;

  private:
    struct sigaction pipe_before_;
};

// system() in another thread may have saved uloop's handler in the instant before it was taken away, and brings it
// back when its command ends. Called once in each request, and when a thread is left behind inside ubus_connect: takes
// such a handler away again.
void mend_host_signals();

// The application leaves a stretch in which it had the lock itself: handlers of uloop that stand now are its own wish.
void keep_host_signals();

} // namespace tavrik
