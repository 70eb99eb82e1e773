// One request's connection to the bus: open, look up, invoke, gone. The daemon sees one connection for each request;
// the context behind it is pooled, because setting one up touches the host's signal dispositions.
#pragma once

#include <stdint.h>

#include "bus.h"
#include "core/sync.h"

namespace tavrik {

class BusHold;
struct PooledContext;

// One invoke under way: its replies, copied, until they are delivered, and how it ended. Stays where it is as long as
// the bus knows of it.
class Exchange {
  public:
    Exchange() = default;
    ~Exchange();
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;
    bool done() const { return done_; }
    int status() const { return status_; } // UBUS_STATUS_OK or the failure
    // Hands on the replies that have come. No lock is held meanwhile.
    void deliver(ubus_data_handler_t on_data);

  private:
    friend class BusConnection;
    struct Reply {
        Reply *next;
        int type;
        blob_attr *message; // a copy: libubus's own is valid inside its callback only
    };
    static void keep_reply(ubus_request *request, int type, blob_attr *message);
    static void keep_status(ubus_request *request, int status);
    void end(int status) {
        done_ = true;
        status_ = status;
    }

    ubus_request request_ = {}; // first, because libubus hands it back to its callbacks
    Reply *first_ = nullptr;
    Reply **last_ = &first_;
    bool done_ = false;
    int status_ = UBUS_STATUS_OK;
};

class BusConnection {
  public:
    // `timeout_ms` limits everything from here on. 0: no limit for the reply, kBusSetupMs for all before it.
    // Negative: the same before the reply, and no wait for the reply.
    explicit BusConnection(int timeout_ms);
    // `setup` limits all before the reply, `reply` invoke().
    BusConnection(Deadline setup, Deadline reply) : setup_(setup), reply_(reply) {}
    ~BusConnection() { close(); }
    BusConnection(const BusConnection &) = delete;
    BusConnection &operator=(const BusConnection &) = delete;

    // Sets both limits anew.
    void limit(int timeout_ms) { setup_ = reply_ = Deadline::in(timeout_ms); }

    bool open();
    // UBUS_STATUS_OK or the failure. An object that is hidden or has no type counts as not found.
    int lookup(const char *object, uint32_t *id);
    // Sends and waits. `on_data` runs on this thread, once for each reply message, with no lock held; it may call the
    // API. Its request's `priv` is `priv`. UBUS_STATUS_OK or the failure.
    int invoke(uint32_t id, const char *method, blob_attr *message, ubus_data_handler_t on_data, void *priv);

    // The pieces of invoke(). start() sends, with all in place before a reply can come; UBUS_STATUS_OK or the failure.
    int start(Exchange &exchange, uint32_t id, const char *method, blob_attr *message, void *priv);
    int socket() const;
    // Takes in what has arrived. False when a message did not end until `deadline`: the connection is lost.
    bool receive(BusHold &hold, Exchange &exchange, Deadline deadline);
    // Ends what is under way. Only the thread that receives may do so, and needs no lock.
    void abort(Exchange &exchange, int status);
    void close();

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
