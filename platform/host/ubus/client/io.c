// Messages as bytes.
#include "internal.h"

#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

struct blob_buf hostbus_builder;

struct blob_attr **hostbus_parse(struct blob_attr *body) {
    static const struct blob_attr_info policy[UBUS_ATTR_MAX] = {
        [UBUS_ATTR_STATUS] = {.type = BLOB_ATTR_INT32},       [UBUS_ATTR_OBJPATH] = {.type = BLOB_ATTR_STRING},
        [UBUS_ATTR_OBJID] = {.type = BLOB_ATTR_INT32},        [UBUS_ATTR_METHOD] = {.type = BLOB_ATTR_STRING},
        [UBUS_ATTR_OBJTYPE] = {.type = BLOB_ATTR_INT32},      [UBUS_ATTR_SIGNATURE] = {.type = BLOB_ATTR_NESTED},
        [UBUS_ATTR_DATA] = {.type = BLOB_ATTR_NESTED},        [UBUS_ATTR_TARGET] = {.type = BLOB_ATTR_INT32},
        [UBUS_ATTR_ACTIVE] = {.type = BLOB_ATTR_INT8},        [UBUS_ATTR_NO_REPLY] = {.type = BLOB_ATTR_INT8},
        [UBUS_ATTR_SUBSCRIBERS] = {.type = BLOB_ATTR_NESTED}, [UBUS_ATTR_USER] = {.type = BLOB_ATTR_STRING},
        [UBUS_ATTR_GROUP] = {.type = BLOB_ATTR_STRING},
    };
    static struct blob_attr *table[UBUS_ATTR_MAX];
    blob_parse_untrusted(body, blob_raw_len(body), table, policy, UBUS_ATTR_MAX);
    return table;
}

void hostbus_close(int *fd) {
    if (*fd >= 0)
        close(*fd);
    *fd = -1;
}

static void wait_for(int fd, short events) {
    struct pollfd pfd = {.fd = fd, .events = events};
    poll(&pfd, 1, -1);
}

// Without MSG_NOSIGNAL, as libubus sends: a caller that has to guard against SIGPIPE on the module must do it here too.
bool hostbus_send(struct ubus_context *ctx, uint8_t type, uint16_t seq, uint32_t peer, struct blob_attr *body, int fd) {
    struct ubus_msghdr hdr = {.type = type, .seq = htons(seq), .peer = htonl(peer)};
    struct iovec iov[2] = {{&hdr, sizeof hdr}, {body, blob_raw_len(body)}};
    union {
        struct cmsghdr head;
        char room[CMSG_SPACE(sizeof(int))];
    } control;
    struct msghdr msg = {.msg_iov = iov, .msg_iovlen = 2};

    if (fd >= 0) {
        memset(&control, 0, sizeof control);
        control.head.cmsg_len = CMSG_LEN(sizeof fd);
        control.head.cmsg_level = SOL_SOCKET;
        control.head.cmsg_type = SCM_RIGHTS;
        memcpy(CMSG_DATA(&control.head), &fd, sizeof fd);
        msg.msg_control = &control;
        msg.msg_controllen = CMSG_LEN(sizeof fd);
    }
    while (iov[0].iov_len + iov[1].iov_len > 0) {
        ssize_t sent = sendmsg(ctx->sock.fd, &msg, 0);
        if (sent < 0) {
            if (errno == EAGAIN)
                wait_for(ctx->sock.fd, POLLOUT);
            else if (errno != EINTR) {
                ctx->sock.eof = true;
                return false;
            }
            continue;
        }
        msg.msg_control = NULL;
        msg.msg_controllen = 0;
        for (int i = 0; i < 2; i++) {
            size_t part = (size_t)sent < iov[i].iov_len ? (size_t)sent : iov[i].iov_len;
            iov[i].iov_base = (char *)iov[i].iov_base + part;
            iov[i].iov_len -= part;
            sent -= (ssize_t)part;
        }
    }
    return true;
}

// The number of bytes, 0 if there is nothing yet, -1 at the end of the stream.
static ssize_t receive_some(struct ubus_context *ctx, void *data, size_t length, int *fd) {
    struct iovec iov = {data, length};
    union {
        struct cmsghdr head;
        char room[CMSG_SPACE(sizeof(int))];
    } control;
    // CMSG_SPACE as the length would leave room for a second descriptor.
    struct msghdr msg = {
        .msg_iov = &iov, .msg_iovlen = 1, .msg_control = &control, .msg_controllen = CMSG_LEN(sizeof(int))};
    ssize_t got;
    do
        got = recvmsg(ctx->sock.fd, &msg, MSG_CMSG_CLOEXEC);
    while (got < 0 && errno == EINTR);
    if (got < 0 && errno == EAGAIN)
        return 0;
    if (got <= 0) {
        ctx->sock.eof = true;
        return -1;
    }
    if (msg.msg_controllen >= CMSG_LEN(sizeof(int)) && control.head.cmsg_type == SCM_RIGHTS) {
        int received;
        memcpy(&received, CMSG_DATA(&control.head), sizeof received);
        hostbus_close(fd);
        *fd = received;
    }
    return got;
}

// All of it, without limit: once a message has begun, its rest is on the way.
static bool receive_rest(struct ubus_context *ctx, void *data, size_t length, size_t done, int *fd) {
    while (done < length) {
        ssize_t got = receive_some(ctx, (char *)data + done, length - done, fd);
        if (got < 0)
            return false;
        if (got == 0)
            wait_for(ctx->sock.fd, POLLIN);
        done += (size_t)got;
    }
    return true;
}

// Room for a message: grows in steps, and shrinks after a number of messages that would have done with less.
static bool make_room(struct ubus_context *ctx, uint32_t length) {
    uint32_t want = (length + UBUS_MSG_CHUNK_SIZE - 1) / UBUS_MSG_CHUNK_SIZE * UBUS_MSG_CHUNK_SIZE;
    uint32_t have = ctx->msgbuf.data ? ctx->msgbuf_data_len : 0;
    if (want < have && ++ctx->msgbuf_reduction_counter <= 16)
        return true;
    ctx->msgbuf_reduction_counter = 0;
    if (want == have)
        return true;
    struct blob_attr *data = realloc(ctx->msgbuf.data, want);
    if (!data)
        return length <= have;
    ctx->msgbuf.data = data;
    ctx->msgbuf_data_len = want;
    return true;
}

// A message that cannot be used is read to its end all the same, so that the next one is found.
bool hostbus_skip(struct ubus_context *ctx, uint32_t length, int *fd) {
    char junk[4096];
    while (length > 0) {
        uint32_t part = length < sizeof junk ? length : (uint32_t)sizeof junk;
        if (!receive_rest(ctx, junk, part, 0, fd))
            return false;
        length -= part;
    }
    return true;
}

// Callbacks own the buffer while they run: a call from inside them reads into another one.
static void dispatch(struct ubus_context *ctx, int fd) {
    const struct ubus_msghdr hdr = ctx->msgbuf.hdr;
    struct blob_attr *body = ctx->msgbuf.data;
    uint32_t room = ctx->msgbuf_data_len;

    ctx->msgbuf.data = NULL;
    switch (hdr.type) {
    case UBUS_MSG_STATUS:
    case UBUS_MSG_DATA:
        hostbus_answer(ctx, &hdr, body, fd);
        break;
    case UBUS_MSG_INVOKE:
    case UBUS_MSG_UNSUBSCRIBE:
    case UBUS_MSG_NOTIFY:
        if (ctx->stack_depth)
            hostbus_keep(&ctx->pending, &hdr, body, fd);
        else
            hostbus_object_message(ctx, &hdr, body, fd);
        break;
    case UBUS_MSG_MONITOR:
        if (ctx->monitor_cb)
            ctx->monitor_cb(ctx, hdr.seq, body);
        // fall through
    default:
        hostbus_close(&fd);
    }
    if (ctx->msgbuf.data || ctx->sock.fd < 0) {
        free(body);
    } else {
        ctx->msgbuf.data = body;
        ctx->msgbuf_data_len = room;
    }
}

bool hostbus_read_one(struct ubus_context *ctx) {
    struct {
        struct ubus_msghdr hdr;
        uint32_t id_len;
    } head;
    int fd = -1;

    for (;;) {
        ssize_t got = receive_some(ctx, &head, sizeof head, &fd);
        if (got <= 0)
            return false;
        if (!receive_rest(ctx, &head, sizeof head, (size_t)got, &fd))
            break;
        uint32_t length = ntohl(head.id_len) & BLOB_ATTR_LEN_MASK;
        if (length < sizeof head.id_len) {
            ctx->sock.eof = true; // no telling where the next message starts
            break;
        }
        uint32_t rest = length - (uint32_t)sizeof head.id_len;
        // Room for a whole number of words: the parser looks at a last attribute with its padding.
        if (head.hdr.version != 0 || length > HOSTBUS_MAX_MESSAGE || !make_room(ctx, (length + 3) & ~3u)) {
            if (!hostbus_skip(ctx, rest, &fd))
                break;
            hostbus_close(&fd);
            continue;
        }
        ctx->msgbuf.hdr = head.hdr;
        ctx->msgbuf.hdr.seq = ntohs(head.hdr.seq);
        ctx->msgbuf.hdr.peer = ntohl(head.hdr.peer);
        ctx->msgbuf.data->id_len = head.id_len;
        if (!receive_rest(ctx, ctx->msgbuf.data->data, rest, 0, &fd))
            break;
        dispatch(ctx, fd);
        return true;
    }
    hostbus_close(&fd);
    return false;
}

bool hostbus_keep(struct list_head *list, const struct ubus_msghdr *hdr, const struct blob_attr *body, int fd) {
    struct Kept *kept = calloc(1, sizeof *kept + blob_pad_len(body));
    if (!kept) {
        hostbus_close(&fd);
        return false;
    }
    kept->hdr = *hdr;
    kept->fd = fd;
    memcpy(kept->body, body, blob_raw_len(body));
    list_add_tail(&kept->list, list);
    return true;
}

struct Kept *hostbus_take(struct list_head *list) {
    if (list_empty(list))
        return NULL;
    struct Kept *first = list_first_entry(list, struct Kept, list);
    list_del(&first->list);
    return first;
}

void hostbus_drop_kept(struct list_head *list) {
    struct Kept *kept, *next;
    list_for_each_entry_safe(kept, next, list, list) {
        list_del(&kept->list);
        hostbus_close(&kept->fd);
        free(kept);
    }
}
