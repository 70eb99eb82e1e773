#pragma once

// Only what the public header declares is exported.
#pragma GCC visibility push(default)
#include "libubus.h"
#pragma GCC visibility pop

#define HOSTBUS_MAX_MESSAGE 1048576

// A message kept for later: a call that arrived during a synchronous wait, or an answer to a request whose data
// callback is still running.
struct Kept {
    struct list_head list;
    struct ubus_msghdr hdr; // host byte order
    int fd;
    struct blob_attr body[];
};

// One message builder and one attribute table serve every context of the process, without a lock, as in libubus: a
// caller that forgets its lock must not get away with it here and fail on the module.
extern struct blob_buf hostbus_builder;
struct blob_attr **hostbus_parse(struct blob_attr *body);

// acl.c
void hostbus_acl_shutdown(struct ubus_context *ctx);

// io.c
bool hostbus_send(struct ubus_context *ctx, uint8_t type, uint16_t seq, uint32_t peer, struct blob_attr *body, int fd);
bool hostbus_keep(struct list_head *list, const struct ubus_msghdr *hdr, const struct blob_attr *body, int fd);
struct Kept *hostbus_take(struct list_head *list); // null if there is none
void hostbus_drop_kept(struct list_head *list);
bool hostbus_read_one(struct ubus_context *ctx);
void hostbus_close(int *fd);
bool hostbus_skip(struct ubus_context *ctx, uint32_t length, int *fd);

// connection.c
void hostbus_lost(struct ubus_context *ctx);

// object.c
void hostbus_object_message(struct ubus_context *ctx, const struct ubus_msghdr *hdr, struct blob_attr *body, int fd);
void hostbus_run_pending(struct ubus_context *ctx);
void hostbus_catch_up(struct ubus_context *ctx);
void hostbus_add_all_again(struct ubus_context *ctx);
void hostbus_auto_subscribe_again(struct ubus_context *ctx);
void hostbus_auto_subscribe_end(struct ubus_context *ctx);
bool hostbus_put_data(struct blob_attr *msg);

// request.c
void hostbus_answer(struct ubus_context *ctx, const struct ubus_msghdr *hdr, struct blob_attr *body, int fd);
int hostbus_start(struct ubus_context *ctx, struct ubus_request *req, uint8_t type, uint32_t peer, int fd);
