// Lookups, events, the monitor, texts, automatic connections, access rules of the services.
#include "internal.h"

#include <libubox/avl-cmp.h>
#include <stdio.h>

const char *ubus_strerror(int error) {
    static const char *const texts[__UBUS_STATUS_LAST] = {
        [UBUS_STATUS_OK] = "Success",
        [UBUS_STATUS_INVALID_COMMAND] = "Invalid command",
        [UBUS_STATUS_INVALID_ARGUMENT] = "Invalid argument",
        [UBUS_STATUS_METHOD_NOT_FOUND] = "Method not found",
        [UBUS_STATUS_NOT_FOUND] = "Not found",
        [UBUS_STATUS_NO_DATA] = "No response",
        [UBUS_STATUS_PERMISSION_DENIED] = "Permission denied",
        [UBUS_STATUS_TIMEOUT] = "Request timed out",
        [UBUS_STATUS_NOT_SUPPORTED] = "Operation not supported",
        [UBUS_STATUS_UNKNOWN_ERROR] = "Unknown error",
        [UBUS_STATUS_CONNECTION_FAILED] = "Connection failed",
        [UBUS_STATUS_NO_MEMORY] = "Out of memory",
        [UBUS_STATUS_PARSE_ERROR] = "Parsing message data failed",
        [UBUS_STATUS_SYSTEM_ERROR] = "System error",
    };
    static char unknown[32];
    if (error >= 0 && error < __UBUS_STATUS_LAST)
        return texts[error];
    snprintf(unknown, sizeof unknown, "Unknown error: %d", error);
    return unknown;
}

struct Lookup {
    ubus_lookup_handler_t cb;
    void *priv;
};

static void looked_up(struct ubus_request *req, int type, struct blob_attr *body) {
    struct blob_attr **attrs = hostbus_parse(body);
    const struct Lookup *lookup = req->priv;
    (void)type;
    if (!attrs[UBUS_ATTR_OBJID] || !attrs[UBUS_ATTR_OBJPATH] || !attrs[UBUS_ATTR_OBJTYPE])
        return;
    struct ubus_object_data obj = {
        .id = blob_get_u32(attrs[UBUS_ATTR_OBJID]),
        .type_id = blob_get_u32(attrs[UBUS_ATTR_OBJTYPE]),
        .path = blob_data(attrs[UBUS_ATTR_OBJPATH]),
        .signature = attrs[UBUS_ATTR_SIGNATURE],
    };
    lookup->cb(req->ctx, &obj, lookup->priv);
}

int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv) {
    struct Lookup lookup = {cb, priv};
    struct ubus_request req;
    if (ubus_context_is_channel(ctx) || blob_buf_init(&hostbus_builder, 0) != 0 ||
        (path && !blob_put_string(&hostbus_builder, UBUS_ATTR_OBJPATH, path)) ||
        hostbus_start(ctx, &req, UBUS_MSG_LOOKUP, 0, -1))
        return UBUS_STATUS_INVALID_ARGUMENT;
    req.raw_data_cb = looked_up;
    req.priv = &lookup;
    return ubus_complete_request(ctx, &req, 0);
}

static void take_id(struct ubus_context *ctx, struct ubus_object_data *obj, void *priv) {
    (void)ctx;
    *(uint32_t *)priv = obj->id;
}

int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id) {
    return ubus_lookup(ctx, path, take_id, id);
}

static int event_called(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                        const char *method, struct blob_attr *msg) {
    struct ubus_event_handler *ev = container_of(obj, struct ubus_event_handler, obj);
    (void)req;
    ev->cb(ctx, ev, method, msg);
    return UBUS_STATUS_OK;
}

// One call to an object of the daemon itself. The message is built in a buffer of its own, since sending uses the
// shared one.
static int call_daemon(struct ubus_context *ctx, uint32_t object, const char *method, struct blob_buf *msg, bool good,
                       int timeout) {
    int ret = ubus_context_is_channel(ctx) || !good
                  ? UBUS_STATUS_INVALID_ARGUMENT
                  : ubus_invoke(ctx, object, method, msg ? msg->head : NULL, NULL, NULL, timeout);
    if (msg)
        blob_buf_free(msg);
    return ret;
}

int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev, const char *pattern) {
    static const struct ubus_method method = {.handler = event_called};
    struct ubus_object *obj = &ev->obj;
    struct blob_buf msg = {0};

    if (!pattern || ubus_context_is_channel(ctx))
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (!obj->id) {
        obj->methods = &method;
        obj->n_methods = 1;
        if (!!obj->name != !!obj->type)
            return UBUS_STATUS_INVALID_ARGUMENT;
        int ret = ubus_add_object(ctx, obj);
        if (ret)
            return ret;
    }
    bool good = blob_buf_init(&msg, 0) == 0 && blobmsg_add_u32(&msg, "object", obj->id) == 0 &&
                blobmsg_add_string(&msg, "pattern", pattern) == 0;
    return call_daemon(ctx, UBUS_SYSTEM_OBJECT_EVENT, "register", &msg, good, 0);
}

int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data) {
    struct blob_buf msg = {0};
    bool good = id && blob_buf_init(&msg, 0) == 0 && blobmsg_add_string(&msg, "id", id) == 0 &&
                blobmsg_add_field(&msg, BLOBMSG_TYPE_TABLE, "data", data ? blob_data(data) : NULL,
                                  data ? (unsigned int)blob_len(data) : 0) == 0;
    return call_daemon(ctx, UBUS_SYSTEM_OBJECT_EVENT, "send", &msg, good, 0);
}

int __ubus_monitor(struct ubus_context *ctx, const char *type) {
    return call_daemon(ctx, UBUS_SYSTEM_OBJECT_MONITOR, type, NULL, true, 1000);
}

static void auto_again(struct uloop_timeout *timer) {
    struct ubus_auto_conn *conn = container_of(timer, struct ubus_auto_conn, timer);
    if (ubus_reconnect(&conn->ctx, conn->path))
        uloop_timeout_set(timer, 1000);
    else
        ubus_add_uloop(&conn->ctx);
}

static void auto_lost(struct ubus_context *ctx) {
    struct ubus_auto_conn *conn = container_of(ctx, struct ubus_auto_conn, ctx);
    uloop_timeout_set(&conn->timer, 1000);
}

static void auto_first(struct uloop_timeout *timer) {
    struct ubus_auto_conn *conn = container_of(timer, struct ubus_auto_conn, timer);
    if (ubus_connect_ctx(&conn->ctx, conn->path)) {
        uloop_timeout_set(timer, 1000);
        return;
    }
    timer->cb = auto_again;
    conn->ctx.connection_lost = auto_lost;
    if (conn->cb)
        conn->cb(&conn->ctx);
    ubus_add_uloop(&conn->ctx);
}

void ubus_auto_connect(struct ubus_auto_conn *conn) {
    conn->timer.cb = auto_first;
    auto_first(&conn->timer);
}
