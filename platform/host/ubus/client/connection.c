// Connecting, the context's part in the loop, and the end of it.
#include "internal.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#define DEFAULT_PATH "/var/run/ubus/ubus.sock"

void hostbus_lost(struct ubus_context *ctx) {
    ubus_flush_requests(ctx);
    ctx->connection_lost(ctx);
}

static void handle_event(struct uloop_fd *u, unsigned int events) {
    struct ubus_context *ctx = container_of(u, struct ubus_context, sock);
    (void)events;
    do {
        hostbus_run_pending(ctx);
        if (!hostbus_read_one(ctx))
            break;
        // At the end of the stream there will be no further event, so what is left is read now.
    } while (ctx->sock.eof || !(ctx->cancel_poll || uloop_cancelling()));
    hostbus_run_pending(ctx);
    if (ctx->sock.eof)
        hostbus_lost(ctx);
}

static void pending_timer(struct uloop_timeout *timer) {
    hostbus_run_pending(container_of(timer, struct ubus_context, pending_timer));
}

static void end_loop(struct ubus_context *ctx) {
    if (ctx->sock.registered)
        uloop_end();
}

static int compare_ids(const void *k1, const void *k2, void *ptr) {
    uint32_t a = *(const uint32_t *)k1, b = *(const uint32_t *)k2;
    (void)ptr;
    return a < b ? -1 : a > b;
}

static int set_up(struct ubus_context *ctx) {
    if (uloop_init() < 0)
        return -1;
    memset(ctx, 0, sizeof *ctx);
    INIT_LIST_HEAD(&ctx->requests);
    INIT_LIST_HEAD(&ctx->pending);
    avl_init(&ctx->objects, compare_ids, false, NULL);
    ctx->sock.fd = -1;
    ctx->sock.cb = handle_event;
    ctx->pending_timer.cb = pending_timer;
    ctx->connection_lost = end_loop;
    return 0;
}

static int open_socket(const char *path) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    if (!path)
        path = DEFAULT_PATH;
    if (strlen(path) >= sizeof address.sun_path)
        return -1;
    strcpy(address.sun_path, path);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    while (connect(fd, (struct sockaddr *)&address, sizeof address) < 0)
        if (errno != EINTR) {
            hostbus_close(&fd);
            break;
        }
    return fd;
}

static void leave(struct ubus_context *ctx) {
    uloop_fd_delete(&ctx->sock);
    hostbus_close(&ctx->sock.fd);
    ctx->sock.eof = false;
    ctx->sock.error = false;
}

int ubus_reconnect(struct ubus_context *ctx, const char *path) {
    struct {
        struct ubus_msghdr hdr;
        uint32_t id_len;
    } hello = {.id_len = 0};

    if (ubus_context_is_channel(ctx))
        return -1;
    leave(ctx);
    int fd = open_socket(path), none = -1;
    if (fd < 0)
        return UBUS_STATUS_CONNECTION_FAILED;
    ssize_t got;
    do
        got = read(fd, &hello, sizeof hello);
    while (got < 0 && errno == EINTR);
    uint32_t length = ntohl(hello.id_len) & BLOB_ATTR_LEN_MASK;
    ctx->sock.fd = fd;
    bool good = got == (ssize_t)sizeof hello && hello.hdr.version == 0 && hello.hdr.type == UBUS_MSG_HELLO &&
                hello.hdr.peer > UBUS_CLIENT_ID_CHANNEL && length >= 4 && length <= HOSTBUS_MAX_MESSAGE &&
                hostbus_skip(ctx, length - 4, &none);
    hostbus_close(&none);
    if (!good) {
        leave(ctx);
        return UBUS_STATUS_UNKNOWN_ERROR;
    }
    ctx->local_id = hello.hdr.peer; // in wire order, as libubus keeps it
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    hostbus_add_all_again(ctx);
    hostbus_auto_subscribe_again(ctx);
    return UBUS_STATUS_OK;
}

int ubus_connect_ctx(struct ubus_context *ctx, const char *path) {
    if (set_up(ctx) < 0)
        return -1;
    INIT_LIST_HEAD(&ctx->auto_subscribers);
    return ubus_reconnect(ctx, path) ? -1 : 0;
}

struct ubus_context *ubus_connect(const char *path) {
    struct ubus_context *ctx = malloc(sizeof *ctx);
    if (ctx && ubus_connect_ctx(ctx, path)) {
        free(ctx);
        ctx = NULL;
    }
    return ctx;
}

int ubus_channel_connect(struct ubus_context *ctx, int fd, ubus_handler_t handler) {
    if (set_up(ctx) < 0)
        return -1;
    ctx->local_id = UBUS_CLIENT_ID_CHANNEL;
    ctx->request_handler = handler;
    ctx->sock.fd = fd;
    fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    return 0;
}

int ubus_channel_create(struct ubus_context *ctx, int *remote_fd, ubus_handler_t handler) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) < 0)
        return -1;
    if (ubus_channel_connect(ctx, fds[0], handler) < 0) {
        hostbus_close(&fds[0]);
        hostbus_close(&fds[1]);
        return -1;
    }
    *remote_fd = fds[1];
    return 0;
}

void ubus_shutdown(struct ubus_context *ctx) {
    blob_buf_free(&hostbus_builder);
    if (!ctx)
        return;
    hostbus_acl_shutdown(ctx);
    hostbus_auto_subscribe_end(ctx);
    leave(ctx);
    uloop_timeout_cancel(&ctx->pending_timer);
    hostbus_drop_kept(&ctx->pending);
    free(ctx->msgbuf.data);
    ctx->msgbuf.data = NULL;
    ctx->msgbuf_data_len = 0;
}

void ubus_free(struct ubus_context *ctx) {
    ubus_shutdown(ctx);
    free(ctx);
}
