// The host bus's client library: the calls, structures and numbers of libubus, under symbol names of its own, so that
// a process which also loads the real library keeps the two apart.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#include <libubox/avl.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
#include <stdint.h>

#include "ubus_common.h"
#include "ubusmsg.h"

#define __ubus_monitor tavrik_hostbus_monitor
#define acl_objects tavrik_hostbus_acl_objects
#define ubus_abort_request tavrik_hostbus_abort_request
#define ubus_add_object tavrik_hostbus_add_object
#define ubus_auto_connect tavrik_hostbus_auto_connect
#define ubus_channel_connect tavrik_hostbus_channel_connect
#define ubus_channel_create tavrik_hostbus_channel_create
#define ubus_complete_deferred_request tavrik_hostbus_complete_deferred_request
#define ubus_complete_request tavrik_hostbus_complete_request
#define ubus_complete_request_async tavrik_hostbus_complete_request_async
#define ubus_connect tavrik_hostbus_connect
#define ubus_connect_ctx tavrik_hostbus_connect_ctx
#define ubus_flush_requests tavrik_hostbus_flush_requests
#define ubus_free tavrik_hostbus_free
#define ubus_invoke_async_fd tavrik_hostbus_invoke_async_fd
#define ubus_invoke_fd tavrik_hostbus_invoke_fd
#define ubus_lookup tavrik_hostbus_lookup
#define ubus_lookup_id tavrik_hostbus_lookup_id
#define ubus_notify tavrik_hostbus_notify
#define ubus_notify_async tavrik_hostbus_notify_async
#define ubus_reconnect tavrik_hostbus_reconnect
#define ubus_register_acl tavrik_hostbus_register_acl
#define ubus_register_event_handler tavrik_hostbus_register_event_handler
#define ubus_register_subscriber tavrik_hostbus_register_subscriber
#define ubus_remove_object tavrik_hostbus_remove_object
#define ubus_send_event tavrik_hostbus_send_event
#define ubus_send_reply tavrik_hostbus_send_reply
#define ubus_shutdown tavrik_hostbus_shutdown
#define ubus_strerror tavrik_hostbus_strerror
#define ubus_subscribe tavrik_hostbus_subscribe
#define ubus_unsubscribe tavrik_hostbus_unsubscribe

#define UBUS_MAX_NOTIFY_PEERS 16
#define UBUS_TAG_STATUS 1
#define UBUS_TAG_ADMIN 2
#define UBUS_TAG_PRIVATE 4
#define UBUS_SIGNATURE_METHOD 9
#define UBUS_SIGNATURE_END 10

struct ubus_context;
struct ubus_request;
struct ubus_request_data;
struct ubus_object;
struct ubus_object_data;
struct ubus_event_handler;
struct ubus_subscriber;
struct ubus_notify_request;

typedef void (*ubus_lookup_handler_t)(struct ubus_context *ctx, struct ubus_object_data *obj, void *priv);
typedef int (*ubus_handler_t)(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                              const char *method, struct blob_attr *msg);
typedef void (*ubus_state_handler_t)(struct ubus_context *ctx, struct ubus_object *obj);
typedef void (*ubus_remove_handler_t)(struct ubus_context *ctx, struct ubus_subscriber *obj, uint32_t id);
typedef void (*ubus_event_handler_t)(struct ubus_context *ctx, struct ubus_event_handler *ev, const char *type,
                                     struct blob_attr *msg);
typedef void (*ubus_data_handler_t)(struct ubus_request *req, int type, struct blob_attr *msg);
typedef void (*ubus_fd_handler_t)(struct ubus_request *req, int fd);
typedef void (*ubus_complete_handler_t)(struct ubus_request *req, int ret);
typedef void (*ubus_notify_complete_handler_t)(struct ubus_notify_request *req, int idx, int ret);
typedef void (*ubus_notify_data_handler_t)(struct ubus_notify_request *req, int type, struct blob_attr *msg);
typedef void (*ubus_connect_handler_t)(struct ubus_context *ctx);
typedef bool (*ubus_new_object_handler_t)(struct ubus_context *ctx, struct ubus_subscriber *sub, const char *path);

struct ubus_msghdr_buf {
    struct ubus_msghdr hdr;
    struct blob_attr *data;
};

struct ubus_method {
    const char *name;
    ubus_handler_t handler;
    unsigned long mask;
    unsigned long tags;
    const struct blobmsg_policy *policy;
    int n_policy;
};

struct ubus_object_type {
    const char *name;
    uint32_t id;
    const struct ubus_method *methods;
    int n_methods;
};

struct ubus_object {
    struct avl_node avl;
    const char *name;
    uint32_t id;
    const char *path;
    struct ubus_object_type *type;
    ubus_state_handler_t subscribe_cb;
    bool has_subscribers;
    const struct ubus_method *methods;
    int n_methods;
};

struct ubus_subscriber {
    struct list_head list;
    struct ubus_object obj;
    ubus_handler_t cb;
    ubus_remove_handler_t remove_cb;
    ubus_new_object_handler_t new_obj_cb;
};

struct ubus_event_handler {
    struct ubus_object obj;
    ubus_event_handler_t cb;
};

struct ubus_context {
    struct list_head requests;
    struct avl_tree objects;
    struct list_head pending;
    struct uloop_fd sock;
    struct uloop_timeout pending_timer;
    uint32_t local_id;
    uint16_t request_seq;
    bool cancel_poll;
    int stack_depth;
    void (*connection_lost)(struct ubus_context *ctx);
    void (*monitor_cb)(struct ubus_context *ctx, uint32_t seq, struct blob_attr *data);
    struct ubus_msghdr_buf msgbuf;
    uint32_t msgbuf_data_len;
    int msgbuf_reduction_counter;
    union {
        struct {
            struct list_head auto_subscribers;
            struct ubus_event_handler auto_subscribe_event_handler;
        };
        struct {
            ubus_handler_t request_handler;
        };
    };
};

struct ubus_object_data {
    uint32_t id;
    uint32_t type_id;
    const char *path;
    struct blob_attr *signature;
};

struct ubus_acl_key {
    const char *user;
    const char *group;
    const char *object;
};

struct ubus_request_data {
    uint32_t object;
    uint32_t peer;
    uint16_t seq;
    struct ubus_acl_key acl;
    bool deferred;
    int fd;
    int req_fd;
};

struct ubus_request {
    struct list_head list;
    struct list_head pending;
    int status_code;
    bool status_msg;
    bool blocked;
    bool cancelled;
    bool notify;
    uint32_t peer;
    uint16_t seq;
    ubus_data_handler_t raw_data_cb;
    ubus_data_handler_t data_cb;
    ubus_fd_handler_t fd_cb;
    ubus_complete_handler_t complete_cb;
    int fd;
    struct ubus_context *ctx;
    void *priv;
};

struct ubus_notify_request {
    struct ubus_request req;
    ubus_notify_complete_handler_t status_cb;
    ubus_notify_complete_handler_t complete_cb;
    ubus_notify_data_handler_t data_cb;
    uint32_t pending;
    uint32_t id[UBUS_MAX_NOTIFY_PEERS + 1];
};

struct ubus_auto_conn {
    struct ubus_context ctx;
    struct uloop_timeout timer;
    const char *path;
    ubus_connect_handler_t cb;
};

struct acl_object {
    struct ubus_acl_key key;
    struct avl_node avl;
    struct blob_attr *acl;
};

// NOLINTBEGIN(bugprone-macro-parentheses): initialisers
#define UBUS_METHOD_FIELDS_(name_, handler_, mask_, tags_, policy_, n_policy_)                                         \
    { .name = name_, .handler = handler_, .mask = mask_, .tags = tags_, .policy = policy_, .n_policy = n_policy_ }
#define UBUS_METHOD(name_, handler_, policy_) UBUS_METHOD_FIELDS_(name_, handler_, 0, 0, policy_, ARRAY_SIZE(policy_))
#define UBUS_METHOD_TAG(name_, handler_, policy_, tags_)                                                               \
    UBUS_METHOD_FIELDS_(name_, handler_, 0, tags_, policy_, ARRAY_SIZE(policy_))
#define UBUS_METHOD_MASK(name_, handler_, policy_, mask_)                                                              \
    UBUS_METHOD_FIELDS_(name_, handler_, mask_, 0, policy_, ARRAY_SIZE(policy_))
#define UBUS_METHOD_NOARG(name_, handler_) UBUS_METHOD_FIELDS_(name_, handler_, 0, 0, NULL, 0)
#define UBUS_METHOD_TAG_NOARG(name_, handler_, tags_) UBUS_METHOD_FIELDS_(name_, handler_, 0, tags_, NULL, 0)
#define UBUS_OBJECT_TYPE(name_, methods_)                                                                              \
    { .name = name_, .id = 0, .methods = methods_, .n_methods = ARRAY_SIZE(methods_) }
// NOLINTEND(bugprone-macro-parentheses)

// Connection
struct ubus_context *ubus_connect(const char *path);
int ubus_connect_ctx(struct ubus_context *ctx, const char *path);
void ubus_auto_connect(struct ubus_auto_conn *conn);
int ubus_reconnect(struct ubus_context *ctx, const char *path);
int ubus_channel_connect(struct ubus_context *ctx, int fd, ubus_handler_t handler);
int ubus_channel_create(struct ubus_context *ctx, int *remote_fd, ubus_handler_t handler);
void ubus_free(struct ubus_context *ctx);
void ubus_shutdown(struct ubus_context *ctx);
const char *ubus_strerror(int error);

static inline bool ubus_context_is_channel(struct ubus_context *ctx) {
    return ctx->local_id == UBUS_CLIENT_ID_CHANNEL;
}

static inline void ubus_auto_shutdown(struct ubus_auto_conn *conn) {
    uloop_timeout_cancel(&conn->timer);
    ubus_shutdown(&conn->ctx);
}

static inline void ubus_add_uloop(struct ubus_context *ctx) {
    uloop_fd_add(&ctx->sock, ULOOP_BLOCKING | ULOOP_READ);
}

static inline void ubus_handle_event(struct ubus_context *ctx) {
    ctx->sock.cb(&ctx->sock, ULOOP_READ);
}

// Requests
int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout);
void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req);
void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req);
void ubus_flush_requests(struct ubus_context *ctx);

int ubus_invoke_fd(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                   ubus_data_handler_t cb, void *priv, int timeout, int fd);
int ubus_invoke_async_fd(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                         struct ubus_request *req, int fd);

static inline int ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                              ubus_data_handler_t cb, void *priv, int timeout) {
    return ubus_invoke_fd(ctx, obj, method, msg, cb, priv, timeout, -1);
}

static inline int ubus_invoke_async(struct ubus_context *ctx, uint32_t obj, const char *method, struct blob_attr *msg,
                                    struct ubus_request *req) {
    return ubus_invoke_async_fd(ctx, obj, method, msg, req, -1);
}

// Objects
int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv);
int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id);
int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj);
int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj);

// Replies of an object's handler
int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg);
void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req, int ret);

static inline void ubus_defer_request(struct ubus_context *ctx, struct ubus_request_data *req,
                                      struct ubus_request_data *new_req) {
    (void)ctx;
    *new_req = *req;
    req->deferred = true;
}

static inline void ubus_request_set_fd(struct ubus_context *ctx, struct ubus_request_data *req, int fd) {
    (void)ctx;
    req->fd = fd;
}

static inline int ubus_request_get_caller_fd(struct ubus_request_data *req) {
    int fd = req->req_fd;
    req->req_fd = -1;
    return fd;
}

// Subscriptions and notifications
int ubus_register_subscriber(struct ubus_context *ctx, struct ubus_subscriber *sub);
int ubus_subscribe(struct ubus_context *ctx, struct ubus_subscriber *sub, uint32_t id);
int ubus_unsubscribe(struct ubus_context *ctx, struct ubus_subscriber *sub, uint32_t id);
int ubus_notify(struct ubus_context *ctx, struct ubus_object *obj, const char *type, struct blob_attr *msg,
                int timeout);
int ubus_notify_async(struct ubus_context *ctx, struct ubus_object *obj, const char *type, struct blob_attr *msg,
                      struct ubus_notify_request *req);

static inline int ubus_unregister_subscriber(struct ubus_context *ctx, struct ubus_subscriber *sub) {
    if (sub->list.next && !list_empty(&sub->list))
        list_del_init(&sub->list);
    return ubus_remove_object(ctx, &sub->obj);
}

// Events
int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data);
int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev, const char *pattern);

static inline int ubus_unregister_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev) {
    return ubus_remove_object(ctx, &ev->obj);
}

// Monitor
int __ubus_monitor(struct ubus_context *ctx, const char *type);

static inline int ubus_monitor_start(struct ubus_context *ctx) {
    return __ubus_monitor(ctx, "add");
}

static inline int ubus_monitor_stop(struct ubus_context *ctx) {
    return __ubus_monitor(ctx, "remove");
}

// Access rules of the services, kept up to date by ubus_register_acl
extern struct avl_tree acl_objects;
int ubus_register_acl(struct ubus_context *ctx);

static inline bool ubus_acl_is_for_(const struct acl_object *o, const struct ubus_acl_key *m) {
    return m->object && m->user && m->group && !strcmp(o->key.object, m->object) &&
           ((o->key.user && !strcmp(o->key.user, m->user)) || (o->key.group && !strcmp(o->key.group, m->group)));
}

// Every acl_object o for the caller and the object of the ubus_acl_key *m.
#define acl_for_each(o, m) avl_for_each_element(&acl_objects, o, avl) if (ubus_acl_is_for_(o, m))

#ifdef __cplusplus
}
#endif
