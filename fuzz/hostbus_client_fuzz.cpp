// The bus client library between a daemon that sends any bytes in any pieces and a program that makes any calls. Where
// the library would wait, the daemon sends what comes next in the input, or the time passes. What the library sends
// must be whole messages, what it hands to callbacks memory, and it keeps no descriptor. hostbus.cmake gives it this
// file's connect, poll and clock.
#include "fuzz.h"

#include <cerrno>
#include <fcntl.h>
#include <libubus.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Steps: an operation with an argument in its low three bits. The first ones are the daemon's.
enum Operation {
    Raw,     // bytes
    Message, // type, body; to the latest request
    MessageWithFd,
    Status, // to the latest request: the argument
    Huge,   // type; zeroes
    HangUp, // 1: and the next connection is refused, 2: interrupted at first
    DaemonSteps,
    Lookup = DaemonSteps,
    LookupId,
    Add,
    Remove,
    Invoke,
    InvokeAsync,
    InvokeFd,
    Abort,
    Handle,
    Loop,
    Listen,
    SendEvent,
    Subscribe,
    Unsubscribe,
    Register,
    Unregister,
    Notify,
    NotifyAsync,
    Monitor,
    Rules,
    Complete,
    Flush,
    Reconnect,
    Timer,
    Operations
};

struct Run;
Run *run;

uint64_t sum; // of all that callbacks were given
void touch(const void *data, size_t size) {
    for (size_t i = 0; i < size; i++)
        sum += static_cast<const uint8_t *>(data)[i];
}
void touch(const blob_attr *attr) {
    if (attr)
        touch(attr, blob_raw_len(attr));
}

int on_call(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *);
void on_subscribed(ubus_context *, ubus_object *);

constexpr blobmsg_policy arguments[] = {{"id", BLOBMSG_TYPE_INT32}, {"msg", BLOBMSG_TYPE_STRING}};
constexpr ubus_method methods[] = {UBUS_METHOD("hello", on_call, arguments),
                                   UBUS_METHOD_MASK("m", on_call, arguments, 2), UBUS_METHOD_NOARG("ping", on_call)};

struct Run {
    Run(const uint8_t *data, size_t size) : in(data, size) { run = this; }

    void steps() {
        connect();
        for (int n = 0; ctx && !in.empty() && n < 200; n++) {
            unsigned op = in.byte();
            step((op >> 3) % Operations, op & 7);
        }
        if (kind == Auto)
            ubus_auto_shutdown(&conn);
        else if (kind == Channel)
            ubus_shutdown(&conn.ctx);
        else
            ubus_free(ctx);
        for (ubus_request_data &one : held)
            close(one.fd);
        close(server);
    }

    void connect() {
        kind = static_cast<Kind>(in.byte() % 3);
        switch (kind) {
        case Plain:
            ctx = ubus_connect("/bus");
            break;
        case Auto:
            conn.path = "/bus";
            conn.cb = [](ubus_context *c) { touch(c, sizeof *c); };
            ubus_auto_connect(&conn);
            while (conn.timer.pending && !in.empty())
                expire();
            if (!conn.timer.pending)
                ctx = &conn.ctx;
            break;
        case Channel:
            if (ubus_channel_create(&conn.ctx, &server, on_call) == 0)
                ctx = &conn.ctx;
            small_buffer(conn.ctx.sock.fd);
        }
        if (!ctx)
            return;
        ctx->monitor_cb = [](ubus_context *, uint32_t, blob_attr *data) { touch(data); };
        if (kind == Plain)
            ctx->connection_lost = [](ubus_context *c) {
                if (run->nested() == 1)
                    ubus_reconnect(c, nullptr);
            };
        type = UBUS_OBJECT_TYPE("type", methods);
        for (ubus_object &object : objects) {
            object.methods = methods;
            object.n_methods = ARRAY_SIZE(methods);
            object.subscribe_cb = on_subscribed;
        }
        objects[0].name = "demo";
        objects[0].type = &type;
        objects[1].name = "other";
        objects[1].type = &type;
        events.cb = [](ubus_context *, ubus_event_handler *, const char *name, blob_attr *msg) {
            touch(name, strlen(name));
            touch(msg);
            run->nested();
        };
        for (ubus_subscriber &subscriber : subscribers) {
            subscriber.cb = on_call;
            subscriber.remove_cb = [](ubus_context *, ubus_subscriber *, uint32_t id) {
                sum += id;
                run->nested();
            };
        }
        subscribers[1].new_obj_cb = [](ubus_context *, ubus_subscriber *, const char *path) {
            touch(path, strlen(path));
            return true;
        };
    }

    static bool listed(const ubus_request &req) { return req.list.next && !list_empty(&req.list); }

    void step(unsigned op, unsigned arg) {
        static blob_buf content;
        blob_buf_init(&content, 0);
        blobmsg_add_u32(&content, "n", arg);
        if (arg >= 6 && big_ones++ < 3) // longer than allowed, or than the socket takes at once
            blobmsg_add_string(&content, "big", std::string(arg == 7 ? 1100000 : 100000, 'x').c_str());
        blob_attr *msg = arg ? content.head : nullptr;
        ubus_request &slot = slots[arg % 3];
        switch (op) {
        case Lookup:
            ubus_lookup(
                ctx, arg ? "de*" : nullptr,
                [](ubus_context *, ubus_object_data *object, void *) {
                    touch(object->path, strlen(object->path));
                    touch(object->signature);
                    run->nested();
                },
                nullptr);
            break;
        case LookupId: {
            uint32_t id = 0;
            ubus_lookup_id(ctx, "demo", &id);
            break;
        }
        case Add:
            ubus_add_object(ctx, &objects[arg % 3]);
            break;
        case Remove:
            ubus_remove_object(ctx, &objects[arg % 3]);
            break;
        case Invoke: {
            constexpr int limits[] = {0, -1, 1, 20};
            ubus_invoke(ctx, 5, arg == 5 ? nullptr : "hello", msg, on_data, nullptr, limits[arg % 4]);
            break;
        }
        case InvokeAsync:
        case InvokeFd: {
            if (listed(slot))
                break;
            int fd = op == InvokeFd ? open("/dev/null", O_RDONLY | O_CLOEXEC) : -1;
            if (ubus_invoke_async_fd(ctx, 5, "hello", msg, &slot, fd)) {
                if (fd >= 0)
                    close(fd);
                break;
            }
            slot.data_cb = on_data;
            slot.complete_cb = [](ubus_request *, int status) {
                sum += static_cast<unsigned>(status);
                run->nested();
            };
            if (arg < 4)
                slot.fd_cb = [](ubus_request *, int fd) { close(fd); };
            ubus_complete_request_async(ctx, &slot);
            break;
        }
        case Abort:
            ubus_abort_request(ctx, &slot);
            break;
        case Handle:
            ubus_handle_event(ctx);
            break;
        case Loop:
            ubus_add_uloop(ctx);
            for (unsigned n = 0; n <= arg; n++)
                uloop_run_timeout(0);
            break;
        case Listen:
            ubus_register_event_handler(ctx, &events, arg == 7 ? nullptr : "foo.*");
            break;
        case SendEvent:
            ubus_send_event(ctx, "foo.bar", msg);
            break;
        case Subscribe:
            ubus_subscribe(ctx, &subscribers[arg & 1], 7);
            break;
        case Unsubscribe:
            ubus_unsubscribe(ctx, &subscribers[arg & 1], 7);
            break;
        case Register:
            if (!subscribers[arg & 1].obj.id && !ubus_context_is_channel(ctx))
                ubus_register_subscriber(ctx, &subscribers[arg & 1]);
            break;
        case Unregister:
            ubus_unregister_subscriber(ctx, &subscribers[arg & 1]);
            break;
        case Notify:
            ubus_notify(ctx, &objects[0], arg == 7 ? nullptr : "news", msg, arg & 1 ? 20 : -1);
            break;
        case NotifyAsync:
            if (listed(notify.req) || ubus_notify_async(ctx, &objects[0], "news", msg, &notify))
                break;
            notify.data_cb = [](ubus_notify_request *, int, blob_attr *data) { touch(data); };
            notify.status_cb = [](ubus_notify_request *req, int, int) {
                if (run->nested() == 5)
                    ubus_abort_request(run->ctx, &req->req);
            };
            notify.complete_cb = [](ubus_notify_request *, int, int) { run->nested(); };
            ubus_complete_request_async(ctx, &notify.req);
            break;
        case Monitor:
            arg & 1 ? ubus_monitor_stop(ctx) : ubus_monitor_start(ctx);
            break;
        case Rules: {
            ubus_register_acl(ctx);
            ubus_acl_key key = {"root", "root", "demo"};
            acl_object *one;
            acl_for_each(one, &key) touch(one->acl);
            avl_for_each_element(&acl_objects, one, avl) touch(one->acl);
            break;
        }
        case Complete:
            if (n_held == 0)
                break;
            ubus_send_reply(ctx, &held[--n_held], msg);
            ubus_complete_deferred_request(ctx, &held[n_held], static_cast<int>(arg));
            break;
        case Flush:
            ubus_flush_requests(ctx);
            break;
        case Reconnect:
            ubus_reconnect(ctx, arg == 7 ? std::string(200, 'x').c_str() : "/bus");
            break;
        case Timer:
            expire();
            touch(ubus_strerror(static_cast<int>(arg * 3) - 1), 4);
            break;
        default:
            daemon_step(op, arg);
        }
    }
    void expire() {
        if (conn.timer.pending) {
            uloop_timeout_cancel(&conn.timer);
            conn.timer.cb(&conn.timer);
        }
    }

    // What a callback does; returns what else it may do.
    unsigned nested() {
        if (depth > 2)
            return 0;
        depth++;
        unsigned what = in.byte();
        switch (what) {
        case 2:
            ubus_invoke(ctx, 6, "inner", nullptr, nullptr, nullptr, 5);
            break;
        case 3:
            ubus_flush_requests(ctx);
            break;
        case 4:
            ubus_remove_object(ctx, &objects[0]);
            break;
        case 6:
            ubus_abort_request(ctx, &slots[0]);
        }
        depth--;
        return what;
    }
    static void on_data(ubus_request *req, int, blob_attr *msg) {
        touch(msg);
        if (run->nested() == 5)
            ubus_abort_request(run->ctx, req);
        else
            touch(req, sizeof *req);
    }

    // The daemon's side.
    bool daemon_turn() {
        if (in.empty() || (in.next() >> 3) % Operations >= DaemonSteps)
            return false;
        unsigned op = in.byte();
        daemon_step((op >> 3) % Operations, op & 7);
        return true;
    }
    std::string piece() {
        std::string bytes;
        for (unsigned n = in.byte(); n > 0 && !in.empty(); n--)
            bytes += static_cast<char>(in.byte());
        return bytes;
    }
    void daemon_step(unsigned op, unsigned arg) {
        drain();
        switch (op) {
        case Raw:
            write(piece());
            break;
        case Message:
        case MessageWithFd: {
            auto message_type = static_cast<uint8_t>(in.byte());
            write(message(message_type, piece()), op == MessageWithFd);
            break;
        }
        case Status:
            write(message(UBUS_MSG_STATUS, word(1 << 24 | 8) + word(arg)));
            break;
        case Huge: {
            auto message_type = static_cast<uint8_t>(in.byte());
            write(message(message_type, std::string(in.byte() * size_t{5000}, '\0')));
            break;
        }
        case HangUp:
            fault = arg;
            shutdown(server, SHUT_RDWR);
        }
    }
    static std::string word(uint32_t value) {
        value = cpu_to_be32(value);
        return std::string(reinterpret_cast<char *>(&value), 4);
    }
    std::string message(uint8_t message_type, const std::string &body) const {
        return std::string(1, '\0') + static_cast<char>(message_type) + request.substr(2, 6) +
               word(static_cast<uint32_t>(body.size()) + 4) + body;
    }
    void write(const std::string &bytes, bool with_fd = false) {
        unsent += bytes;
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        iovec iov{unsent.data(), unsent.size()};
        msghdr msg{nullptr, 0, &iov, 1, control, with_fd ? CMSG_LEN(sizeof(int)) : 0, 0};
        int fd = with_fd ? open("/dev/null", O_RDONLY | O_CLOEXEC) : -1;
        if (with_fd) {
            *CMSG_FIRSTHDR(&msg) = {CMSG_LEN(sizeof fd), SOL_SOCKET, SCM_RIGHTS};
            memcpy(CMSG_DATA(CMSG_FIRSTHDR(&msg)), &fd, sizeof fd);
        }
        ssize_t sent = sendmsg(server, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0)
            unsent.erase(0, static_cast<size_t>(sent));
        if (fd >= 0)
            close(fd);
    }
    // Reads what the library sent.
    void drain() {
        char room[65536];
        for (ssize_t got; (got = recv(server, room, sizeof room, MSG_DONTWAIT)) > 0;)
            received.append(room, static_cast<size_t>(got));
        while (received.size() >= 12) {
            uint32_t length;
            memcpy(&length, &received[8], 4);
            length = be32_to_cpu(length);
            if (received[0] != 0 || received[1] > UBUS_MSG_MONITOR || length < 4 || length > 1048576)
                abort();
            if (received.size() < 8 + length)
                break;
            if (received[1] != UBUS_MSG_STATUS && received[1] != UBUS_MSG_DATA)
                request = received.substr(0, 8);
            received.erase(0, 8 + length);
        }
    }
    static void small_buffer(int fd) {
        int small = 1;
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    }
    int accept(int fd) {
        if (fault == 1 || fault == 2) {
            errno = fault == 1 ? ECONNREFUSED : EINTR;
            fault = 0;
            return -1;
        }
        int ends[2];
        close(server);
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) < 0 || dup2(ends[1], fd) != fd)
            abort();
        close(ends[1]);
        small_buffer(fd);
        server = ends[0];
        received.clear();
        unsent.clear();
        if (in.empty() || (in.next() >> 3) % Operations != Raw)
            write(std::string("\0\0\0\0\x9b\x1e\xbf\x10\0\0\0\x04", 12));
        else
            daemon_turn();
        return 0;
    }
    int poll(pollfd *pfd, int limit) {
        drain();
        if (!unsent.empty())
            write("");
        pfd->revents = 0;
        if (::poll(pfd, 1, 0) > 0)
            return 1;
        if (!daemon_turn()) {
            if (limit < 0)
                shutdown(server, SHUT_RDWR);
            else
                now += limit;
        }
        return ::poll(pfd, 1, 0);
    }

    fuzz::Input in;
    enum Kind { Plain, Auto, Channel } kind = Plain;
    ubus_auto_conn conn{};
    ubus_context *ctx = nullptr;
    ubus_object_type type{};
    ubus_object objects[3]{};
    ubus_event_handler events{};
    ubus_subscriber subscribers[2]{};
    ubus_request slots[3]{};
    ubus_notify_request notify{};
    ubus_request_data held[4]{{0, 0, 0, {}, false, -1, -1},
                              {0, 0, 0, {}, false, -1, -1},
                              {0, 0, 0, {}, false, -1, -1},
                              {0, 0, 0, {}, false, -1, -1}};
    size_t n_held = 0;
    int depth = 0;
    int server = -1;
    unsigned fault = 0;
    int big_ones = 0;
    int64_t now = 1000;
    std::string received, unsent, request = std::string(8, '\0');
};

int on_call(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method, blob_attr *msg) {
    touch(method, strlen(method));
    touch(msg);
    if (req->acl.user)
        touch(req->acl.user, strlen(req->acl.user));
    unsigned what = run->nested();
    if (what & 8)
        ubus_send_reply(ctx, req, msg);
    if (what & 16)
        ubus_request_set_fd(ctx, req, open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (what & 32) {
        int fd = ubus_request_get_caller_fd(req);
        if (fd >= 0)
            close(fd);
    }
    if ((what & 64) && run->n_held < ARRAY_SIZE(run->held))
        ubus_defer_request(ctx, req, &run->held[run->n_held++]);
    return static_cast<int>(what & 3);
}

void on_subscribed(ubus_context *, ubus_object *object) {
    sum += object->has_subscribers;
    run->nested();
}

int lowest_free_fd() {
    int fd = dup(0);
    close(fd);
    return fd;
}

} // namespace

extern "C" int fuzz_connect(int fd, const sockaddr *, socklen_t) {
    return run->accept(fd);
}
extern "C" int fuzz_poll(pollfd *pfd, nfds_t, int limit) {
    return run->poll(pfd, limit);
}
extern "C" int fuzz_clock_gettime(clockid_t, timespec *ts) {
    *ts = {run->now / 1000, run->now % 1000 * 1000000};
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int initialised = uloop_init();
    if (initialised < 0)
        abort();
    const int free_fd = lowest_free_fd();
    auto *one = new Run(data, size);
    one->steps();
    delete one;
    for (int tries = 0; lowest_free_fd() > free_fd; tries++, usleep(1000)) // libFuzzer's own thread opens files too
        if (tries > 1000)
            abort();
    return 0;
}
