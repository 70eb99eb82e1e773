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

    const Deadline limit;
    const AsyncHandlers handlers;
    const Site site;
    BusConnection bus;
    Exchange exchange;
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

// Of one that is off the list.
void end(Loop &loop, PendingRequest &request, AsyncEnd how) {
    epoll_ctl(loop.events, EPOLL_CTL_DEL, request.bus.socket(), nullptr);
    const int status = request.exchange.status();
    if (how == AsyncEnd::aborted)
        log(Level::error, request.site, "asynchronous request aborted");
    else if (status)
        log(Level::error, request.site, "Failed to ubus invoke: %s", StatusText(status).c_str());
    request.bus.close(); // before the application hears that it is over
    request.exchange.deliver(request.handlers.on_data);
    request.handlers.on_end(request.handlers.priv, how, status);
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
    destroy(pending_);
}

bool AsyncRequest::open() {
    return pending_->bus.open();
}

int AsyncRequest::lookup(const char *object, uint32_t *id) {
    return pending_->bus.lookup(object, id);
}

int AsyncRequest::start(uint32_t id, const char *method, blob_attr *message) {
    PendingRequest &request = *pending_;
    if (const int status = request.bus.start(request.exchange, id, method, message, request.handlers.priv))
        return status;
    epoll_event watch = {};
    watch.events = EPOLLIN;
    watch.data.ptr = &request;
    Lock lock(g_loop_mutex);
    if (epoll_ctl(request.loop->events, EPOLL_CTL_ADD, request.bus.socket(), &watch)) {
        request.bus.abort(request.exchange, UBUS_STATUS_SYSTEM_ERROR);
        return UBUS_STATUS_SYSTEM_ERROR;
    }
    request.under_way = true;
    pending_ = nullptr;
    wake(*request.loop); // which has a limit more
    return UBUS_STATUS_OK;
}

void serve(Loop &loop, PendingRequest &request) {
    bool lost;
    {
        BusHold hold(Deadline::in(kBusSetupMs));
        if (!hold)
            return; // another time: the socket stays ready
        lost = !request.bus.receive(hold, request.exchange, Deadline::in(kBusSetupMs));
    }
    if (lost && !request.exchange.done())
        request.bus.abort(request.exchange, UBUS_STATUS_CONNECTION_FAILED);
    if (!request.exchange.done())
        return request.exchange.deliver(request.handlers.on_data);
    unlink(request);
    end(loop, request, request.exchange.status() ? AsyncEnd::failed : AsyncEnd::answered);
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
        due->bus.abort(due->exchange, UBUS_STATUS_TIMEOUT);
        end(loop, *due, aborted ? AsyncEnd::aborted : AsyncEnd::timed_out);
    }
}

void abort_pending(Loop &loop) {
    for (PendingRequest *request = loop.pending; request; request = request->next)
        request->aborted = true;
}

} // namespace tavrik
