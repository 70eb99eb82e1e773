// Requests and the answers to them.
#include "internal.h"

#include <limits.h>
#include <poll.h>
#include <time.h>

// Who is calling back right now in this thread, innermost first. A callback may abort its request, and free it with
// that; then it must not be looked at again. Per thread, because a callback may open the lock that guards the library.
struct Running {
    struct Running *outer;
    struct ubus_request *req;
};
static __thread struct Running *running;

static void enter(struct Running *self, struct ubus_request *req) {
    *self = (struct Running){running, req};
    running = self;
}

// False if the request is gone.
static bool leave(const struct Running *self) {
    running = self->outer;
    return self->req != NULL;
}

static void forget(const struct ubus_request *req) {
    for (struct Running *r = running; r; r = r->outer)
        if (r->req == req)
            r->req = NULL;
}

static void reset(struct ubus_context *ctx, struct ubus_request *req) {
    memset(req, 0, sizeof *req);
    INIT_LIST_HEAD(&req->list);
    INIT_LIST_HEAD(&req->pending);
    req->ctx = ctx;
    req->fd = -1;
}

// Zeroes the request and sends what is in the builder.
int hostbus_start(struct ubus_context *ctx, struct ubus_request *req, uint8_t type, uint32_t peer, int fd) {
    reset(ctx, req);
    req->peer = peer;
    if (blob_raw_len(hostbus_builder.head) > HOSTBUS_MAX_MESSAGE)
        return UBUS_STATUS_INVALID_ARGUMENT;
    req->seq = ++ctx->request_seq;
    if (!hostbus_send(ctx, type, req->seq, peer, hostbus_builder.head, fd))
        return UBUS_STATUS_INVALID_ARGUMENT;
    return UBUS_STATUS_OK;
}

static void complete(struct ubus_request *req, int ret) {
    int fd = req->fd;
    forget(req);
    list_del_init(&req->list);
    hostbus_drop_kept(&req->pending);
    req->status_code = ret;
    req->fd = -1;
    if (fd >= 0 && req->fd_cb) {
        struct Running self;
        enter(&self, req);
        req->fd_cb(req, fd);
        if (!leave(&self))
            return;
    } else {
        hostbus_close(&fd);
    }
    req->status_msg = true;
    ubus_complete_handler_t cb = req->complete_cb;
    req->complete_cb = NULL;
    if (cb)
        cb(req, ret);
}

// The first STATUS, from the daemon, lists the subscribers; then each of them answers.
static void notify_status(struct ubus_notify_request *nreq, uint32_t peer, struct blob_attr **attrs, int status) {
    if (peer == nreq->req.peer) {
        struct blob_attr *cur;
        size_t rem;
        uint32_t n = 0;
        if (attrs[UBUS_ATTR_SUBSCRIBERS])
            blob_for_each_attr(cur, attrs[UBUS_ATTR_SUBSCRIBERS], rem) {
                if (n >= UBUS_MAX_NOTIFY_PEERS)
                    break;
                if (blob_check_type(blob_data(cur), (unsigned int)blob_len(cur), BLOB_ATTR_INT32))
                    nreq->id[n++] = blob_get_u32(cur);
            }
        nreq->pending = n;
    } else {
        for (int i = 0; i < UBUS_MAX_NOTIFY_PEERS; i++)
            if (nreq->id[i] == peer) {
                nreq->id[i] = 0;
                nreq->pending--;
                struct Running self;
                enter(&self, &nreq->req);
                if (nreq->status_cb)
                    nreq->status_cb(nreq, i + 1, status);
                if (!leave(&self))
                    return;
                break;
            }
    }
    if (nreq->pending == 0)
        complete(&nreq->req, 0);
}

static bool is_answer_to(const struct ubus_request *req, const struct ubus_msghdr *hdr) {
    if (req->seq != hdr->seq)
        return false;
    if (req->peer == hdr->peer)
        return true;
    if (req->notify) {
        const struct ubus_notify_request *nreq = container_of(req, const struct ubus_notify_request, req);
        for (int i = 0; i < UBUS_MAX_NOTIFY_PEERS; i++)
            if (nreq->id[i] == hdr->peer && hdr->peer)
                return true;
    }
    return false;
}

static void deliver(struct ubus_request *req, const struct ubus_msghdr *hdr, struct blob_attr *body, int fd) {
    struct blob_attr **attrs = hostbus_parse(body);
    if (hdr->type == UBUS_MSG_STATUS) {
        int status =
            attrs[UBUS_ATTR_STATUS] ? (int)blob_get_u32(attrs[UBUS_ATTR_STATUS]) : UBUS_STATUS_INVALID_ARGUMENT;
        hostbus_close(&req->fd);
        req->fd = fd;
        if (req->notify)
            notify_status(container_of(req, struct ubus_notify_request, req), hdr->peer, attrs, status);
        else
            complete(req, status);
        return;
    }
    hostbus_close(&fd);

    struct ubus_notify_request *nreq = req->notify ? container_of(req, struct ubus_notify_request, req) : NULL;
    struct blob_attr *data = attrs[UBUS_ATTR_DATA];
    struct Running self;
    enter(&self, req);
    req->blocked = true; // what arrives for it meanwhile has to wait
    if (req->raw_data_cb)
        req->raw_data_cb(req, hdr->type, body);
    if (self.req && data && !nreq && req->data_cb)
        req->data_cb(req, hdr->type, data);
    if (self.req && data && nreq && nreq->data_cb)
        nreq->data_cb(nreq, hdr->type, data);
    if (leave(&self))
        req->blocked = false;
}

void hostbus_answer(struct ubus_context *ctx, const struct ubus_msghdr *hdr, struct blob_attr *body, int fd) {
    struct ubus_request *req;
    list_for_each_entry(req, &ctx->requests, list) {
        if (!is_answer_to(req, hdr))
            continue;
        if (req->blocked) {
            hostbus_keep(&req->pending, hdr, body, fd);
            return;
        }
        struct Running self;
        enter(&self, req);
        deliver(req, hdr, body, fd);
        for (struct Kept *kept; self.req && (kept = hostbus_take(&req->pending)) != NULL; free(kept))
            deliver(req, &kept->hdr, kept->body, kept->fd);
        leave(&self);
        return;
    }
    hostbus_close(&fd);
}

void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req) {
    if (list_empty(&req->list))
        list_add_tail(&req->list, &ctx->requests);
}

void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req) {
    (void)ctx;
    forget(req);
    if (!req->list.next || list_empty(&req->list))
        return;
    req->cancelled = true;
    list_del_init(&req->list);
    hostbus_drop_kept(&req->pending);
}

void ubus_flush_requests(struct ubus_context *ctx) {
    // Only those of now: a callback may list its request again.
    struct list_head all;
    INIT_LIST_HEAD(&all);
    list_splice_init(&ctx->requests, &all);
    while (!list_empty(&all))
        complete(list_first_entry(&all, struct ubus_request, list), UBUS_STATUS_TIMEOUT);
}

static int64_t now_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout) {
    ubus_complete_handler_t cb = req->complete_cb;
    int64_t start = now_ms();
    int ret = UBUS_STATUS_TIMEOUT;

    // Its own complete_cb runs last, so that it may start the request again.
    req->complete_cb = NULL;
    ubus_complete_request_async(ctx, req);
    ctx->cancel_poll = false;
    ctx->stack_depth++;
    for (;;) {
        int64_t left = -1;
        if (timeout) {
            left = start + timeout - now_ms();
            if (left <= 0)
                break;
        }
        struct pollfd pfd = {.fd = ctx->sock.fd, .events = POLLIN};
        poll(&pfd, 1, (int)left);
        while (!req->status_msg && hostbus_read_one(ctx) && !ctx->cancel_poll)
            ;
        if (req->status_msg) {
            ret = req->status_code;
            break;
        }
        if (ctx->sock.eof) {
            ret = UBUS_STATUS_CONNECTION_FAILED;
            break;
        }
    }
    if (!req->status_msg)
        complete(req, ret);
    if (ret == UBUS_STATUS_CONNECTION_FAILED && ctx->sock.eof)
        hostbus_lost(ctx);
    ctx->stack_depth--;
    ctx->cancel_poll = true;
    if (cb)
        cb(req, ret);
    hostbus_catch_up(ctx);
    return ret;
}

bool hostbus_put_data(struct blob_attr *msg) {
    return blob_put(&hostbus_builder, UBUS_ATTR_DATA, msg ? blob_data(msg) : NULL,
                    msg ? (unsigned int)blob_len(msg) : 0) != NULL;
}

static bool put_call(uint32_t obj, const char *method, struct blob_attr *msg) {
    return method && blob_buf_init(&hostbus_builder, 0) == 0 && blob_put_u32(&hostbus_builder, UBUS_ATTR_OBJID, obj) &&
           blob_put_string(&hostbus_builder, UBUS_ATTR_METHOD, method) && hostbus_put_data(msg);
}

int ubus_invoke_async_fd(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                         struct ubus_request *req, int fd) {
    if (!put_call(obj, method, msg)) {
        reset(ctx, req);
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    int ret = hostbus_start(ctx, req, UBUS_MSG_INVOKE, obj, fd);
    if (ret == UBUS_STATUS_OK)
        hostbus_close(&fd);
    return ret;
}

int ubus_invoke_fd(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                   ubus_data_handler_t cb, void *priv, int timeout, int fd) {
    struct ubus_request req;
    int ret = ubus_invoke_async_fd(ctx, obj, method, msg, &req, fd);
    if (ret)
        return ret;
    req.data_cb = cb;
    req.priv = priv;
    return ubus_complete_request(ctx, &req, timeout);
}

static void notify_done(struct ubus_request *req, int ret) {
    struct ubus_notify_request *nreq = container_of(req, struct ubus_notify_request, req);
    ubus_notify_complete_handler_t cb = nreq->complete_cb;
    (void)ret;
    nreq->complete_cb = NULL;
    if (cb)
        cb(nreq, 0, 0);
}

static int start_notify(struct ubus_context *ctx, struct ubus_object *obj, const char *type, struct blob_attr *msg,
                        struct ubus_notify_request *nreq, bool reply) {
    memset(nreq, 0, sizeof *nreq);
    reset(ctx, &nreq->req);
    if (!put_call(obj->id, type, msg) || (!reply && !blob_put_u8(&hostbus_builder, UBUS_ATTR_NO_REPLY, true)))
        return UBUS_STATUS_INVALID_ARGUMENT;
    int ret = hostbus_start(ctx, &nreq->req, UBUS_MSG_NOTIFY, obj->id, -1);
    nreq->req.notify = true;
    nreq->req.complete_cb = notify_done;
    return ret;
}

int ubus_notify_async(struct ubus_context *ctx, struct ubus_object *obj, const char *type, struct blob_attr *msg,
                      struct ubus_notify_request *req) {
    return start_notify(ctx, obj, type, msg, req, true);
}

int ubus_notify(struct ubus_context *ctx, struct ubus_object *obj, const char *type, struct blob_attr *msg,
                int timeout) {
    struct ubus_notify_request nreq;
    int ret = start_notify(ctx, obj, type, msg, &nreq, timeout >= 0);
    if (ret || timeout < 0)
        return ret;
    return ubus_complete_request(ctx, &nreq.req, timeout);
}
