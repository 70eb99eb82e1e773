// One request's connection to the bus: open, look up, invoke, gone. The daemon sees one connection for each request;
// the context behind it is pooled, because setting one up touches the host's signal dispositions.
#pragma once

#include <stdint.h>

#include "bus.h"
#include "core/sync.h"

namespace tavrik {

struct PooledContext;

class BusConnection {
  public:
    // `timeout_ms` limits everything from here on. 0: no limit for the reply, kBusSetupMs for all before it.
    // Negative: the same before the reply, and no wait for the reply.
    explicit BusConnection(int timeout_ms);
    ~BusConnection();
    BusConnection(const BusConnection &) = delete;
    BusConnection &operator=(const BusConnection &) = delete;

    bool open();
    // UBUS_STATUS_OK or the failure. An object that is hidden or has no type counts as not found.
    int lookup(const char *object, uint32_t *id);
    // Sends and waits. `on_data` runs on this thread, once for each reply message, with no lock held; it may call the
    // API. Its request's `priv` is `priv`. UBUS_STATUS_OK or the failure.
    int invoke(uint32_t id, const char *method, blob_attr *message, ubus_data_handler_t on_data, void *priv);

  private:
    Deadline setup_;
    Deadline reply_;
    PooledContext *pooled_ = nullptr;
    bool clean_ = true; // every exchange ended with its status: the context can serve again
};

// Text of a status. Unlike ubus_strerror it has no static buffer.
class StatusText {
  public:
    explicit StatusText(int status);
    const char *c_str() const { return text_; }

  private:
    const char *text_;
    char unknown_[32];
};

} // namespace tavrik
