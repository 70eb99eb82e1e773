// Objects of this client: registration, calls to them, replies, subscriptions.
#include "internal.h"

static bool put_signature(const struct ubus_object_type *type) {
    struct blob_buf *b = &hostbus_builder;
    void *all = blob_nest_start(b, UBUS_ATTR_SIGNATURE);
    if (!all)
        return false;
    for (int i = 0; i < type->n_methods; i++) {
        const struct ubus_method *method = &type->methods[i];
        void *one = blobmsg_open_table(b, method->name);
        if (!one)
            return false;
        for (int j = 0; j < method->n_policy; j++)
            if (!method->mask || (j < (int)sizeof method->mask * 8 && (method->mask >> j & 1)))
                if (blobmsg_add_u32(b, method->policy[j].name, (uint32_t)method->policy[j].type))
                    return false;
        blobmsg_close_table(b, one);
    }
    blob_nest_end(b, all);
    return true;
}

static bool put_object(const struct ubus_object *obj) {
    struct blob_buf *b = &hostbus_builder;
    if (blob_buf_init(b, 0) != 0)
        return false;
    if (!obj->name || !obj->type)
        return true;
    if (!blob_put_string(b, UBUS_ATTR_OBJPATH, obj->name))
        return false;
    return obj->type->id ? blob_put_u32(b, UBUS_ATTR_OBJTYPE, obj->type->id) != NULL : put_signature(obj->type);
}

static bool is_ours(struct ubus_context *ctx, const struct ubus_object *obj) {
    return avl_find(&ctx->objects, &obj->id) == &obj->avl;
}

static void object_added(struct ubus_request *req, int type, struct blob_attr *body) {
    struct ubus_object *obj = req->priv;
    struct blob_attr **attrs = hostbus_parse(body);
    (void)type;
    if (!attrs[UBUS_ATTR_OBJID] || is_ours(req->ctx, obj))
        return;
    obj->id = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
    obj->avl.key = &obj->id;
    if (avl_insert(&req->ctx->objects, &obj->avl) != 0)
        obj->id = 0;
    else if (attrs[UBUS_ATTR_OBJTYPE] && obj->type)
        obj->type->id = blob_get_u32(attrs[UBUS_ATTR_OBJTYPE]);
}

int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj) {
    struct ubus_request req;
    if (ubus_context_is_channel(ctx) || is_ours(ctx, obj) || !put_object(obj) ||
        hostbus_start(ctx, &req, UBUS_MSG_ADD_OBJECT, 0, -1))
        return UBUS_STATUS_INVALID_ARGUMENT;
    req.raw_data_cb = object_added;
    req.priv = obj;
    int ret = ubus_complete_request(ctx, &req, 0);
    if (ret)
        return ret;
    return is_ours(ctx, obj) ? UBUS_STATUS_OK : UBUS_STATUS_NO_DATA;
}

static void object_removed(struct ubus_request *req, int type, struct blob_attr *body) {
    struct ubus_object *obj = req->priv;
    struct blob_attr **attrs = hostbus_parse(body);
    (void)type;
    if (!attrs[UBUS_ATTR_OBJID] || !is_ours(req->ctx, obj))
        return;
    avl_delete(&req->ctx->objects, &obj->avl);
    obj->id = 0;
    if (attrs[UBUS_ATTR_OBJTYPE] && obj->type)
        obj->type->id = 0;
}

// A request that names one object of ours, and perhaps a target.
static int object_request(struct ubus_context *ctx, struct ubus_object *obj, uint8_t type, const uint32_t *target,
                          ubus_data_handler_t raw_data_cb) {
    struct ubus_request req;
    struct blob_buf *b = &hostbus_builder;
    if (ubus_context_is_channel(ctx) || blob_buf_init(b, 0) != 0 || !blob_put_u32(b, UBUS_ATTR_OBJID, obj->id) ||
        (target && !blob_put_u32(b, UBUS_ATTR_TARGET, *target)) || hostbus_start(ctx, &req, type, 0, -1))
        return UBUS_STATUS_INVALID_ARGUMENT;
    req.raw_data_cb = raw_data_cb;
    req.priv = obj;
    return ubus_complete_request(ctx, &req, 0);
}

int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj) {
    int ret = object_request(ctx, obj, UBUS_MSG_REMOVE_OBJECT, NULL, object_removed);
    return ret || !obj->id ? ret : UBUS_STATUS_NO_DATA;
}

// After a reconnect: every object gets a new id, its type with it. Handlers have to wait until all are back.
void hostbus_add_all_again(struct ubus_context *ctx) {
    struct avl_tree old = ctx->objects;
    struct ubus_object *obj, *next;

    if (avl_is_empty(&old))
        return;
    // The head of the list of nodes is part of the tree, so the copy has to be tied in again.
    old.list_head.next->prev = &old.list_head;
    old.list_head.prev->next = &old.list_head;
    avl_init(&ctx->objects, old.comp, false, NULL);
    ctx->stack_depth++;
    avl_remove_all_elements(&old, obj, avl, next) {
        obj->id = 0;
        if (obj->type)
            obj->type->id = 0;
        ubus_add_object(ctx, obj);
    }
    ctx->stack_depth--;
    hostbus_catch_up(ctx);
}

static int send_answer(struct ubus_context *ctx, const struct ubus_request_data *req, uint8_t type, int fd) {
    return hostbus_send(ctx, type, req->seq, req->peer, hostbus_builder.head, fd) ? UBUS_STATUS_OK
                                                                                  : UBUS_STATUS_NO_DATA;
}

int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg) {
    if (blob_buf_init(&hostbus_builder, 0) != 0 || !blob_put_u32(&hostbus_builder, UBUS_ATTR_OBJID, req->object) ||
        !hostbus_put_data(msg))
        return UBUS_STATUS_NO_DATA;
    return send_answer(ctx, req, UBUS_MSG_DATA, -1);
}

void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req, int ret) {
    if (blob_buf_init(&hostbus_builder, 0) == 0 && blob_put_u32(&hostbus_builder, UBUS_ATTR_STATUS, (uint32_t)ret) &&
        blob_put_u32(&hostbus_builder, UBUS_ATTR_OBJID, req->object))
        send_answer(ctx, req, UBUS_MSG_STATUS, req->fd);
    hostbus_close(&req->fd);
}

static const struct ubus_method *find_method(const struct ubus_object *obj, const char *name) {
    for (int i = 0; i < obj->n_methods; i++)
        if (!obj->methods[i].name || !strcmp(obj->methods[i].name, name))
            return &obj->methods[i];
    return NULL;
}

// An unknown object or a missing method is answered all the same, but with nothing that leads to the caller: it sees
// its limit pass, as with libubus.
static void invoke(struct ubus_context *ctx, struct ubus_object *obj, const struct ubus_msghdr *hdr,
                   struct blob_attr **attrs, int fd) {
    struct ubus_request_data req = {.fd = -1, .req_fd = fd};
    struct blob_attr *data = attrs[UBUS_ATTR_DATA];
    const char *name = attrs[UBUS_ATTR_METHOD] ? blob_data(attrs[UBUS_ATTR_METHOD]) : NULL;
    bool reply = !attrs[UBUS_ATTR_NO_REPLY] || !blob_get_u8(attrs[UBUS_ATTR_NO_REPLY]);
    bool channel = ubus_context_is_channel(ctx);
    int ret;

    if (!obj && !channel) {
        ret = UBUS_STATUS_NOT_FOUND;
    } else if (!name) {
        ret = UBUS_STATUS_INVALID_ARGUMENT;
    } else {
        req.peer = hdr->peer;
        req.seq = hdr->seq;
        req.object = obj ? obj->id : 0;
        req.acl.user = attrs[UBUS_ATTR_USER] ? blob_data(attrs[UBUS_ATTR_USER]) : NULL;
        req.acl.group = attrs[UBUS_ATTR_GROUP] ? blob_data(attrs[UBUS_ATTR_GROUP]) : NULL;
        req.acl.object = obj ? obj->name : NULL;
        const struct ubus_method *method = obj ? find_method(obj, name) : NULL;
        ubus_handler_t handler = channel ? ctx->request_handler : method ? method->handler : NULL;
        ret = !data      ? UBUS_STATUS_INVALID_ARGUMENT
              : !handler ? UBUS_STATUS_METHOD_NOT_FOUND
                         : handler(ctx, obj, &req, name, data);
    }
    hostbus_close(&req.req_fd);
    if (req.deferred)
        return;
    if (reply)
        ubus_complete_deferred_request(ctx, &req, ret);
    else
        hostbus_close(&req.fd);
}

static int subscriber_called(struct ubus_context *ctx, struct ubus_object *obj, struct ubus_request_data *req,
                             const char *method, struct blob_attr *msg) {
    struct ubus_subscriber *sub = container_of(obj, struct ubus_subscriber, obj);
    return sub->cb ? sub->cb(ctx, obj, req, method, msg) : UBUS_STATUS_OK;
}

static const struct ubus_method subscriber_method = {.handler = subscriber_called};

void hostbus_object_message(struct ubus_context *ctx, const struct ubus_msghdr *hdr, struct blob_attr *body, int fd) {
    struct blob_attr **attrs = hostbus_parse(body);
    struct ubus_object *obj = NULL;

    if (attrs[UBUS_ATTR_OBJID]) {
        uint32_t id = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
        obj = avl_find_element(&ctx->objects, &id, obj, avl);
    }
    ctx->stack_depth++;
    if (hdr->type == UBUS_MSG_INVOKE && attrs[UBUS_ATTR_OBJID]) {
        invoke(ctx, obj, hdr, attrs, fd);
        fd = -1;
    } else if (obj && hdr->type == UBUS_MSG_NOTIFY && attrs[UBUS_ATTR_ACTIVE]) {
        obj->has_subscribers = blob_get_u8(attrs[UBUS_ATTR_ACTIVE]);
        if (obj->subscribe_cb)
            obj->subscribe_cb(ctx, obj);
    } else if (obj && hdr->type == UBUS_MSG_UNSUBSCRIBE && attrs[UBUS_ATTR_TARGET] &&
               obj->methods == &subscriber_method) {
        struct ubus_subscriber *sub = container_of(obj, struct ubus_subscriber, obj);
        if (sub->remove_cb)
            sub->remove_cb(ctx, sub, blob_get_u32(attrs[UBUS_ATTR_TARGET]));
    }
    ctx->stack_depth--;
    hostbus_close(&fd);
}

void hostbus_run_pending(struct ubus_context *ctx) {
    for (struct Kept *kept; !ctx->stack_depth && (kept = hostbus_take(&ctx->pending)) != NULL; free(kept))
        hostbus_object_message(ctx, &kept->hdr, kept->body, kept->fd);
}

// After a wait: what arrived meanwhile is handled by the loop, or now.
void hostbus_catch_up(struct ubus_context *ctx) {
    if (ctx->sock.registered && !ctx->stack_depth && !list_empty(&ctx->pending))
        uloop_timeout_set(&ctx->pending_timer, 1);
    else
        hostbus_run_pending(ctx);
}

static void auto_subscribe(struct ubus_context *ctx, struct ubus_subscriber *sub, const char *path, uint32_t id) {
    if (sub->new_obj_cb(ctx, sub, path))
        ubus_subscribe(ctx, sub, id);
}

static void auto_event(struct ubus_context *ctx, struct ubus_event_handler *ev, const char *type,
                       struct blob_attr *msg) {
    static const struct blobmsg_policy policy[] = {{"id", BLOBMSG_TYPE_INT32}, {"path", BLOBMSG_TYPE_STRING}};
    struct blob_attr *attrs[ARRAY_SIZE(policy)];
    struct ubus_subscriber *sub, *next;
    (void)ev;
    (void)type;
    blobmsg_parse(policy, ARRAY_SIZE(policy), attrs, blob_data(msg), (unsigned int)blob_len(msg));
    if (!attrs[0] || !attrs[1])
        return;
    list_for_each_entry_safe(sub, next, &ctx->auto_subscribers, list)
        auto_subscribe(ctx, sub, blobmsg_data(attrs[1]), blobmsg_get_u32(attrs[0]));
}

static void auto_existing(struct ubus_context *ctx, struct ubus_object_data *obj, void *priv) {
    auto_subscribe(ctx, priv, obj->path, obj->id);
}

static int auto_start(struct ubus_context *ctx) {
    struct ubus_event_handler *ev = &ctx->auto_subscribe_event_handler;
    ev->cb = auto_event;
    return ubus_register_event_handler(ctx, ev, "ubus.object.add");
}

void hostbus_auto_subscribe_again(struct ubus_context *ctx) {
    struct ubus_subscriber *sub, *next;
    if (list_empty(&ctx->auto_subscribers))
        return;
    auto_start(ctx);
    list_for_each_entry_safe(sub, next, &ctx->auto_subscribers, list) ubus_lookup(ctx, NULL, auto_existing, sub);
}

// Subscribers may be used again with another context.
void hostbus_auto_subscribe_end(struct ubus_context *ctx) {
    if (!ubus_context_is_channel(ctx) && ctx->auto_subscribers.next)
        while (!list_empty(&ctx->auto_subscribers))
            list_del_init(ctx->auto_subscribers.next);
}

int ubus_register_subscriber(struct ubus_context *ctx, struct ubus_subscriber *sub) {
    if (sub->list.next && !list_empty(&sub->list))
        list_del_init(&sub->list); // its object was lost in a reconnect
    INIT_LIST_HEAD(&sub->list);
    sub->obj.methods = &subscriber_method;
    sub->obj.n_methods = 1;
    int ret = ubus_add_object(ctx, &sub->obj);
    if (ret || !sub->new_obj_cb)
        return ret;
    bool first = list_empty(&ctx->auto_subscribers);
    list_add_tail(&sub->list, &ctx->auto_subscribers);
    if (first && !ctx->auto_subscribe_event_handler.obj.id)
        ret = auto_start(ctx);
    if (!ret)
        ubus_lookup(ctx, NULL, auto_existing, sub);
    return ret;
}

int ubus_subscribe(struct ubus_context *ctx, struct ubus_subscriber *sub, uint32_t id) {
    return object_request(ctx, &sub->obj, UBUS_MSG_SUBSCRIBE, &id, NULL);
}

int ubus_unsubscribe(struct ubus_context *ctx, struct ubus_subscriber *sub, uint32_t id) {
    return object_request(ctx, &sub->obj, UBUS_MSG_UNSUBSCRIBE, &id, NULL);
}
