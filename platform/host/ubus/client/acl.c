// What the daemon's access rules say about the objects of this process, for services that check access themselves.
#include "internal.h"

static int compare(const char *a, const char *b) {
    return a && b ? strcmp(a, b) : !!a - !!b;
}

static int compare_keys(const void *k1, const void *k2, void *ptr) {
    const struct ubus_acl_key *a = k1, *b = k2;
    int order = compare(a->object, b->object);
    (void)ptr;
    if (!order)
        order = compare(a->user, b->user);
    return order ? order : compare(a->group, b->group);
}

AVL_TREE(acl_objects, compare_keys, true, NULL);

static struct ubus_context *follower; // the context that keeps the list up to date
static struct ubus_event_handler change_handler;
static struct ubus_request query;

static void clear(void) {
    struct acl_object *acl, *next;
    avl_for_each_element_safe(&acl_objects, acl, avl, next) {
        avl_delete(&acl_objects, &acl->avl);
        free(acl);
    }
}

static void add(struct blob_attr *entry) {
    enum { OBJECT, USER, GROUP, ACL, FIELDS };
    static const struct blobmsg_policy policy[FIELDS] = {{"obj", BLOBMSG_TYPE_STRING},
                                                         {"user", BLOBMSG_TYPE_STRING},
                                                         {"group", BLOBMSG_TYPE_STRING},
                                                         {"acl", BLOBMSG_TYPE_TABLE}};
    struct blob_attr *fields[FIELDS], *copy;
    char *text[ACL];
    blobmsg_parse_attr(policy, FIELDS, fields, entry);
    if (!fields[OBJECT] || !fields[ACL] || (!fields[USER] && !fields[GROUP]))
        return;
    struct acl_object *acl =
        calloc_a(sizeof *acl, &copy, (size_t)blob_pad_len(fields[ACL]), &text[OBJECT], blobmsg_len(fields[OBJECT]),
                 &text[USER], fields[USER] ? blobmsg_len(fields[USER]) : (size_t)1, &text[GROUP],
                 fields[GROUP] ? blobmsg_len(fields[GROUP]) : (size_t)1);
    if (!acl)
        return;
    for (int i = OBJECT; i < ACL; i++)
        text[i] = fields[i] ? strcpy(text[i], blobmsg_data(fields[i])) : NULL;
    acl->key = (struct ubus_acl_key){.user = text[USER], .group = text[GROUP], .object = text[OBJECT]};
    acl->acl = memcpy(copy, fields[ACL], blob_raw_len(fields[ACL]));
    acl->avl.key = &acl->key;
    avl_insert(&acl_objects, &acl->avl);
}

static void answered(struct ubus_request *req, int type, struct blob_attr *msg) {
    static const struct blobmsg_policy policy = {"acl", BLOBMSG_TYPE_ARRAY};
    struct blob_attr *list, *entry;
    size_t rem;
    (void)req;
    (void)type;
    blobmsg_parse(&policy, 1, &list, blob_data(msg), (unsigned int)blob_len(msg));
    if (!list || blobmsg_check_array_len(list, BLOBMSG_TYPE_TABLE, blob_raw_len(list)) < 0)
        return;
    clear();
    blobmsg_for_each_attr(entry, list, rem) add(entry);
}

static int ask(struct ubus_context *ctx) {
    ubus_abort_request(ctx, &query);
    int ret = ubus_invoke_async(ctx, UBUS_SYSTEM_OBJECT_ACL, "query", NULL, &query);
    if (ret)
        return ret;
    query.data_cb = answered;
    ubus_complete_request_async(ctx, &query);
    return UBUS_STATUS_OK;
}

static void changed(struct ubus_context *ctx, struct ubus_event_handler *ev, const char *type, struct blob_attr *msg) {
    (void)ev;
    (void)type;
    (void)msg;
    ask(ctx);
}

int ubus_register_acl(struct ubus_context *ctx) {
    if (ubus_context_is_channel(ctx) || (follower && follower != ctx))
        return UBUS_STATUS_INVALID_ARGUMENT;
    if (!follower)
        change_handler = (struct ubus_event_handler){.cb = changed};
    follower = ctx; // from now on its list of objects may have the handler, whatever becomes of the registration
    int ret = ubus_register_event_handler(ctx, &change_handler, "ubus.acl.sequence");
    return ret ? ret : ask(ctx);
}

void hostbus_acl_shutdown(struct ubus_context *ctx) {
    if (ctx != follower)
        return;
    follower = NULL;
    ubus_abort_request(ctx, &query); // it outlives the context in whose list it is
    clear();
}
