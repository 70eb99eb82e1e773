#include "ubus/connection.h"

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>

#include "ubus/hold.h"
#include "ubus/context_pool.h"

namespace tavrik {
namespace {

// A message whose first byte is there is read to its end with the lock held; a healthy daemon sends the rest at once.
constexpr int kMessageMs = 5000;

struct Reply {
    Reply *next;
    int type;
    blob_attr *message; // a copy: libubus's own is valid inside its callback only
};

// One invoke under way. libubus hands the request back to its callbacks, so it comes first.
struct Exchange {
    ubus_request request = {};
    Reply *first = nullptr;
    Reply **last = &first;
    bool done = false;
    int status = UBUS_STATUS_OK;

    ~Exchange() {
        while (Reply *reply = first) {
            first = reply->next;
            free(reply->message);
            free(reply);
        }
    }
};

void keep_reply(ubus_request *request, int type, blob_attr *message) {
    auto *exchange = reinterpret_cast<Exchange *>(request);
    auto *reply = static_cast<Reply *>(calloc(1, sizeof(Reply)));
    if (reply && message)
        reply->message = blob_memdup(message);
    if (!reply || (message && !reply->message)) {
        free(reply);
        exchange->status = UBUS_STATUS_NO_MEMORY;
        return;
    }
    reply->type = type;
    *exchange->last = reply;
    exchange->last = &reply->next;
}

void keep_status(ubus_request *request, int status) {
    auto *exchange = reinterpret_cast<Exchange *>(request);
    exchange->done = true;
    if (!exchange->status)
        exchange->status = status;
}

void deliver(Exchange &exchange, ubus_data_handler_t on_data) {
    while (Reply *reply = exchange.first) {
        exchange.first = reply->next;
        if (!exchange.first)
            exchange.last = &exchange.first;
        if (on_data)
            on_data(&exchange.request, reply->type, reply->message);
        free(reply->message);
        free(reply);
    }
}

bool readable(int socket, Deadline deadline) {
    pollfd wait = {socket, POLLIN, 0};
    for (;;) {
        const int ready = poll(&wait, 1, deadline.poll_ms());
        if (ready >= 0 || errno != EINTR)
            return ready > 0;
    }
}

} // namespace

BusConnection::BusConnection(int timeout_ms)
    : setup_(Deadline::in(timeout_ms > 0 ? timeout_ms : kBusSetupMs)),
      reply_(timeout_ms > 0   ? setup_
             : timeout_ms < 0 ? Deadline::in(0)
                              : Deadline::never()) {
}

BusConnection::~BusConnection() {
    if (pooled_)
        give_context(pooled_, clean_ && !pooled_->context->sock.eof);
}

bool BusConnection::open() {
    pooled_ = take_context(setup_);
    return pooled_;
}

int BusConnection::lookup(const char *object, uint32_t *id) {
    ubus_context *context = pooled_->context;
    BusHold hold(setup_);
    if (!hold || !hold.guard(context->sock.fd, setup_))
        return UBUS_STATUS_TIMEOUT;
    *id = 0; // libubus reports success without an id for an object that is hidden or has no type
    int status = ubus_lookup_id(context, object, id);
    if (hold.cut())
        status = UBUS_STATUS_TIMEOUT;
    if (!status && !*id)
        status = UBUS_STATUS_NOT_FOUND;
    if (status && status != UBUS_STATUS_NOT_FOUND)
        clean_ = false;
    return status;
}

int BusConnection::invoke(uint32_t id, const char *method, blob_attr *message, ubus_data_handler_t on_data,
                          void *priv) {
    ubus_context *context = pooled_->context;
    const int socket = context->sock.fd;
    Exchange exchange;
    {
        BusHold hold(setup_);
        if (!hold || !hold.guard(socket, setup_))
            return UBUS_STATUS_TIMEOUT;
        clean_ = false;
        const int status = ubus_invoke_async_fd(context, id, method, message, &exchange.request, -1);
        const bool cut = hold.cut();
        if (status || cut)
            return cut ? UBUS_STATUS_TIMEOUT : status;
        exchange.request.data_cb = keep_reply;
        exchange.request.complete_cb = keep_status;
        exchange.request.priv = priv;
        ubus_complete_request_async(context, &exchange.request);
    }
    while (!exchange.done) {
        // A limit that is over is over, however soon the reply came: a negative one never sees it.
        bool cut = reply_.passed() || !readable(socket, reply_);
        if (!cut) {
            BusHold hold(reply_);
            cut = !hold || !hold.guard(socket, Deadline::sooner(reply_, Deadline::in(kMessageMs)));
            // After a synchronous call libubus handles one message at a time.
            while (!cut && !exchange.done && readable(socket, Deadline::in(0))) {
                ubus_handle_event(context);
                if (context->sock.eof)
                    break;
            }
            if (!cut)
                cut = hold.cut();
            if (!cut && !exchange.done && context->sock.eof) {
                ubus_abort_request(context, &exchange.request);
                exchange.done = true;
                exchange.status = UBUS_STATUS_CONNECTION_FAILED;
            }
        }
        if (cut && !exchange.done) {
            // Without the lock: it touches the list of this context, which is this thread's alone.
            ubus_abort_request(context, &exchange.request);
            deliver(exchange, on_data);
            return UBUS_STATUS_TIMEOUT;
        }
        deliver(exchange, on_data);
    }
    clean_ = !context->sock.eof && exchange.status != UBUS_STATUS_NO_MEMORY;
    return exchange.status;
}

StatusText::StatusText(int status) {
    if (status >= 0 && status < __UBUS_STATUS_LAST) {
        text_ = ubus_strerror(status);
    } else {
        snprintf(unknown_, sizeof unknown_, "Unknown error: %d", status);
        text_ = unknown_;
    }
}

} // namespace tavrik
