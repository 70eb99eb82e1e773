// Asynchronous requests: made on any thread, answered on the loop thread.
#pragma once

#include "core/log.h"
#include "ubus/connection.h"

namespace tavrik {

// No request is under way for longer: a service that never answers would keep it for ever.
constexpr int kLongestAsyncMs = 60000;

struct PendingRequest;

enum class AsyncEnd {
    answered,  // the service ended it with success
    failed,    // the service refused it, or the connection was lost
    timed_out, // its limit passed
    aborted,   // the library was shut down
};

// Run on the loop thread with no lock held, and may call the API.
struct AsyncHandlers {
    ubus_data_handler_t on_data; // for each reply message; its request's `priv` is `priv`. Or NULL.
    // Last, once for each invoke; `status` as of BusConnection::invoke().
    void (*on_end)(void *priv, AsyncEnd end, int status);
    void *priv;
};

// A request that is being made. Until start() has succeeded it is the caller's, and gone with this object.
class AsyncRequest {
  public:
    // `limit_ms` counts from here on; 0, and what is more, stands for kLongestAsyncMs. What goes wrong after the start
    // is logged for `site`.
    AsyncRequest(int limit_ms, const AsyncHandlers &handlers, Site site = Site::here());
    ~AsyncRequest();
    AsyncRequest(const AsyncRequest &) = delete;
    AsyncRequest &operator=(const AsyncRequest &) = delete;
    explicit operator bool() const { return pending_; } // there is memory for it, and a loop thread

    bool open();
    int lookup(const char *object, uint32_t *id);
    // Sends an invoke that one more shall follow on the same connection: start() then belongs to that one.
    int send(uint32_t id, const char *method, blob_attr *message);
    // Sends it. UBUS_STATUS_OK: it is the loop thread's, and its on_end() will run. Otherwise no handler runs.
    int start(uint32_t id, const char *method, blob_attr *message);

  private:
    PendingRequest *pending_;
};

} // namespace tavrik
