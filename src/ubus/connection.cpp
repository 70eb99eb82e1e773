#include "ubus/connection.h"

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>

#include "ubus/context_pool.h"
#include "ubus/hold.h"

namespace tavrik {
namespace {

// A message whose first byte is there is read to its end with the lock held; a healthy daemon sends the rest at once.
constexpr int kMessageMs = 5000;

bool readable(int socket, Deadline deadline) {
    pollfd wait = {socket, POLLIN, 0};
    for (;;) {
        const int ready = poll(&wait, 1, deadline.poll_ms());
        if (ready >= 0 || errno != EINTR)
            return ready > 0;
    }
}

} // namespace

Exchange::~Exchange() {
    deliver(nullptr);
}

void Exchange::keep_reply(ubus_request *request, int type, blob_attr *message) {
    auto *exchange = reinterpret_cast<Exchange *>(request);
    auto *reply = static_cast<Reply *>(calloc(1, sizeof(Reply)));
    if (reply && message)
        reply->message = blob_memdup(message);
    if (!reply || (message && !reply->message)) {
        free(reply);
        exchange->status_ = UBUS_STATUS_NO_MEMORY;
        return;
    }
    reply->type = type;
    *exchange->last_ = reply;
    exchange->last_ = &reply->next;
}

void Exchange::keep_status(ubus_request *request, int status) {
    auto *exchange = reinterpret_cast<Exchange *>(request);
    exchange->end(exchange->status_ ? exchange->status_ : status);
}

void Exchange::deliver(ubus_data_handler_t on_data) {
    while (Reply *reply = first_) {
        first_ = reply->next;
        if (!first_)
            last_ = &first_;
        if (on_data)
            on_data(&request_, reply->type, reply->message);
        free(reply->message);
        free(reply);
    }
}

BusConnection::BusConnection(int timeout_ms)
    : setup_(Deadline::in(timeout_ms > 0 ? timeout_ms : kBusSetupMs)),
      reply_(timeout_ms > 0   ? setup_
             : timeout_ms < 0 ? Deadline::in(0)
                              : Deadline::never()) {
}

void BusConnection::close() {
    if (pooled_)
        give_context(pooled_, clean_ && !pooled_->context->sock.eof);
    pooled_ = nullptr;
}

int BusConnection::socket() const {
    return pooled_->context->sock.fd;
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

int BusConnection::start(Exchange &exchange, uint32_t id, const char *method, blob_attr *message, void *priv) {
    ubus_context *context = pooled_->context;
    BusHold hold(setup_);
    if (!hold || !hold.guard(socket(), setup_))
        return UBUS_STATUS_TIMEOUT;
    clean_ = false;
    const int status = ubus_invoke_async_fd(context, id, method, message, &exchange.request_, -1);
    const bool cut = hold.cut();
    if (status || cut)
        return cut ? UBUS_STATUS_TIMEOUT : status;
    exchange.request_.data_cb = Exchange::keep_reply;
    exchange.request_.complete_cb = Exchange::keep_status;
    exchange.request_.priv = priv;
    ubus_complete_request_async(context, &exchange.request_);
    return UBUS_STATUS_OK;
}

bool BusConnection::receive(BusHold &hold, Exchange &exchange, Deadline deadline) {
    ubus_context *context = pooled_->context;
    if (!hold.guard(socket(), Deadline::sooner(deadline, Deadline::in(kMessageMs))))
        return false;
    // After a synchronous call libubus handles one message at a time.
    do
        ubus_handle_event(context);
    while (!exchange.done_ && !context->sock.eof && readable(socket(), Deadline::in(0)));
    if (hold.cut())
        return false;
    if (!exchange.done_ && context->sock.eof)
        abort(exchange, UBUS_STATUS_CONNECTION_FAILED);
    clean_ = exchange.done_ && !context->sock.eof && exchange.status_ != UBUS_STATUS_NO_MEMORY;
    return true;
}

void BusConnection::abort(Exchange &exchange, int status) {
    // Without the lock: it touches the list of this context, which is this thread's alone.
    ubus_abort_request(pooled_->context, &exchange.request_);
    exchange.end(status);
}

int BusConnection::invoke(uint32_t id, const char *method, blob_attr *message, ubus_data_handler_t on_data,
                          void *priv) {
    Exchange exchange;
    if (const int status = start(exchange, id, method, message, priv))
        return status;
    while (!exchange.done()) {
        // A limit that is over is over, however soon the reply came: a negative one never sees it.
        bool lost = reply_.passed() || !readable(socket(), reply_);
        if (!lost) {
            BusHold hold(reply_);
            lost = !hold || !receive(hold, exchange, reply_);
        }
        if (lost && !exchange.done())
            abort(exchange, UBUS_STATUS_TIMEOUT);
        exchange.deliver(on_data);
    }
    return exchange.status();
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
