#include "ubus/async.h"

#include <new>
#include <stdlib.h>
#include <sys/epoll.h>

#include "ubus/hold.h"
#include "ubus/loop.h"

namespace tavrik {

struct PendingRequest {
    PendingRequest(Deadline until, const AsyncHandlers &for_it, Site from)
        : limit(until),
          handlers(for_it),
          site(from),
          bus(Deadline::sooner(until, Deadline::in(kBusSetupMs)), until) {}

    // The one that is to end next; NULL when all have.
    Exchange *open_exchange() {
        for (int i = 0; i < count; ++i)
            if (!exchanges[i].done())
                return &exchanges[i];
        return nullptr;
    }
    void abort(int status) {
        while (Exchange *exchange = open_exchange())
            bus.abort(*exchange, status);
    }

    const Deadline limit;
    const AsyncHandlers handlers;
    const Site site;
    BusConnection bus;
    Exchange exchanges[2];
    int count = 0;
    Loop *loop = nullptr;
    bool under_way = false; // else its maker has it
    bool aborted = false;
    PendingRequest *next = nullptr;
};

namespace {

// Takes it off its loop's list. The loop may go then.
void unlink(PendingRequest &request) {
    Lock lock(g_loop_mutex);
    PendingRequest **link = &request.loop->pending;
    while (*link != &request)
        link = &(*link)->next;
    *link = request.next;
    if (!request.under_way)
        wake(*request.loop);
}

void destroy(PendingRequest *request) {
    request->~PendingRequest();
    free(request);
}

// Of one that is off the list. `how` is true of what was not answered.
void end(Loop &loop, PendingRequest &request, AsyncEnd how) {
    epoll_ctl(loop.events, EPOLL_CTL_DEL, request.bus.socket(), nullptr);
    request.bus.close(); // before the application hears that it is over
    for (int i = 0; i < request.count; ++i) {
        Exchange &exchange = request.exchanges[i];
        const int status = exchange.status();
        if (status && how == AsyncEnd::aborted)
            log(Level::error, request.site, "asynchronous request aborted");
        else if (status)
            log(Level::error, request.site, "Failed to ubus invoke: %s", StatusText(status).c_str());
        exchange.deliver(request.handlers.on_data);
        request.handlers.on_end(request.handlers.priv, status ? how : AsyncEnd::answered, status);
    }
    destroy(&request);
}

} // namespace

AsyncRequest::AsyncRequest(int limit_ms, const AsyncHandlers &handlers, Site site) : pending_(nullptr) {
    void *memory = calloc(1, sizeof(PendingRequest));
    if (!memory)
        return;
    const bool shorter = limit_ms > 0 && limit_ms < kLongestAsyncMs;
    auto *request = new (memory) PendingRequest(Deadline::in(shorter ? limit_ms : kLongestAsyncMs), handlers, site);
    request->loop = lock_running_loop();
    if (request->loop) {
        request->next = request->loop->pending;
        request->loop->pending = request;
    }
    g_loop_mutex.unlock();
    if (request->loop)
        pending_ = request;
    else
        destroy(request);
}

AsyncRequest::~AsyncRequest() {
    if (!pending_)
        return;
    unlink(*pending_);
    pending_->abort(UBUS_STATUS_UNKNOWN_ERROR);
    destroy(pending_);
}

bool AsyncRequest::open() {
    return pending_->bus.open();
}

int AsyncRequest::lookup(const char *object, uint32_t *id) {
    return pending_->bus.lookup(object, id);
}

int AsyncRequest::send(uint32_t id, const char *method, blob_attr *message) {
    PendingRequest &request = *pending_;
    const int status = request.bus.start(request.exchanges[request.count], id, method, message, request.handlers.priv);
    if (!status)
        ++request.count;
    return status;
}

int AsyncRequest::start(uint32_t id, const char *method, blob_attr *message) {
    PendingRequest &request = *pending_;
    if (const int status = send(id, method, message))
        return status;
    epoll_event watch = {};
    watch.events = EPOLLIN;
    watch.data.ptr = &request;
    Lock lock(g_loop_mutex);
    if (epoll_ctl(request.loop->events, EPOLL_CTL_ADD, request.bus.socket(), &watch))
        return UBUS_STATUS_SYSTEM_ERROR;
    request.under_way = true;
    pending_ = nullptr;
    wake(*request.loop); // which has a limit more
    return UBUS_STATUS_OK;
}

void serve(Loop &loop, PendingRequest &request) {
    Exchange &exchange = *request.open_exchange();
    bool lost;
    {
        BusHold hold(Deadline::in(kBusSetupMs));
        if (!hold)
            return; // another time: the socket stays ready
        lost = !request.bus.receive(hold, exchange, Deadline::in(kBusSetupMs));
    }
    // What a lost connection has ended, it has ended for all.
    if (lost || exchange.status() == UBUS_STATUS_CONNECTION_FAILED)
        request.abort(UBUS_STATUS_CONNECTION_FAILED);
    if (request.open_exchange())
        return exchange.deliver(request.handlers.on_data);
    unlink(request);
    end(loop, request, AsyncEnd::failed);
}

Deadline end_due(Loop &loop) {
    for (;;) {
        PendingRequest *due = nullptr;
        bool aborted = false;
        Deadline next = Deadline::never();
        {
            Lock lock(g_loop_mutex);
            for (PendingRequest **link = &loop.pending; *link; link = &(*link)->next) {
                if (!(*link)->under_way)
                    continue;
                next = Deadline::sooner(next, (*link)->limit);
                aborted = (*link)->aborted;
                if (aborted || (*link)->limit.passed()) {
                    due = *link;
                    *link = due->next;
                    break;
                }
            }
        }
        if (!due)
            return next;
        due->abort(UBUS_STATUS_TIMEOUT);
        end(loop, *due, aborted ? AsyncEnd::aborted : AsyncEnd::timed_out);
    }
}

void abort_pending(Loop &loop) {
    for (PendingRequest *request = loop.pending; request; request = request->next)
        request->aborted = true;
}

} // namespace tavrik
