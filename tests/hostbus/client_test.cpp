// The client library, against its own daemon and a service in another process.
#include "bus_fixture.h"

#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <libubus.h>
#include <pwd.h>
#include <sys/stat.h>

using namespace hostbus;

namespace {

using Lines = std::vector<std::string>;
Lines trail; // what callbacks saw, in order
void note(const std::string &what, int number) {
    trail.push_back(what + " " + std::to_string(number));
}

blob_attr *number(uint32_t n) {
    static blob_buf buf;
    blob_buf_init(&buf, 0);
    blobmsg_add_u32(&buf, "n", n);
    return buf.head;
}
int number_in(void *fields, size_t length) {
    static constexpr blobmsg_policy policy = {"n", BLOBMSG_TYPE_INT32};
    blob_attr *n = nullptr;
    blobmsg_parse(&policy, 1, &n, fields, static_cast<unsigned>(length));
    return n ? static_cast<int>(blobmsg_get_u32(n)) : -1;
}
int number_in(blob_attr *msg) {
    return number_in(blob_data(msg), blob_len(msg));
}
void on_data(ubus_request *, int, blob_attr *msg) {
    note("data", number_in(msg));
}
void on_complete(ubus_request *, int status) {
    note("complete", status);
}
void restart(ubus_request *req, int status) { // twice
    static int left = 2;
    on_complete(req, status);
    if (left-- == 0)
        return;
    ubus_invoke_async(req->ctx, req->peer, "none", nullptr, req);
    req->complete_cb = restart;
    ubus_complete_request_async(req->ctx, req);
}
void on_lost(ubus_context *) {
    trail.emplace_back("lost");
}

// A process with one object, whose methods each do one thing.
ubus_context *service;
ubus_request_data held;
int serve(ubus_context *ctx, ubus_object *obj, ubus_request_data *req, const char *name, blob_attr *msg) {
    std::string method = name;
    if (method == "echo")
        return ubus_send_reply(ctx, req, msg);
    if (method == "three")
        for (uint32_t n = 0; n < 3; n++)
            ubus_send_reply(ctx, req, number(n));
    if (method == "fail")
        return -5;
    if (method == "die")
        _exit(0);
    if (method == "notify")
        return ubus_notify(ctx, obj, "plain", msg, -1);
    if (method == "fd") {
        int fd = ubus_request_get_caller_fd(req);
        ssize_t written = write(fd, "x", 1);
        close(fd);
        ubus_request_set_fd(ctx, req, open("/dev/null", O_RDONLY));
        return written == 1 ? 0 : 1;
    }
    if (method == "poke") { // calls back while the caller waits
        static ubus_request back;
        uint32_t id = 0;
        ubus_lookup_id(ctx, "mine", &id);
        ubus_invoke_async(ctx, id, "poked", msg, &back);
        ubus_complete_request_async(ctx, &back);
    }
    if (method == "poke" || method == "later" || method == "silent" || method == "remove")
        ubus_defer_request(ctx, req, &held);
    if (method == "remove")
        ubus_remove_object(ctx, obj);
    static uloop_timeout timer;
    timer.cb = [](uloop_timeout *) {
        ubus_send_reply(service, &held, number(300));
        ubus_complete_deferred_request(service, &held, 77);
    };
    if (method == "later")
        uloop_timeout_set(&timer, 300);
    return 0;
}

constexpr ubus_method service_methods[] = {
    UBUS_METHOD_NOARG("echo", serve),   UBUS_METHOD_NOARG("three", serve), UBUS_METHOD_NOARG("none", serve),
    UBUS_METHOD_NOARG("fail", serve),   UBUS_METHOD_NOARG("die", serve),   UBUS_METHOD_NOARG("notify", serve),
    UBUS_METHOD_NOARG("fd", serve),     UBUS_METHOD_NOARG("poke", serve),  UBUS_METHOD_NOARG("later", serve),
    UBUS_METHOD_NOARG("silent", serve), UBUS_METHOD_NOARG("remove", serve)};

int serve_until_killed(const std::string &path) {
    static ubus_object_type type = UBUS_OBJECT_TYPE("service", service_methods);
    static ubus_object object{};
    object.name = "service";
    object.type = &type;
    object.methods = service_methods;
    object.n_methods = ARRAY_SIZE(service_methods);
    service = ubus_connect(path.c_str());
    ubus_add_uloop(service);
    ubus_add_object(service, &object);
    uloop_run();
    return 0;
}

// An object of the test itself.
int own_handler(ubus_context *ctx, ubus_object *, ubus_request_data *, const char *method, blob_attr *msg) {
    uint32_t id = 0;
    int status = ubus_lookup_id(ctx, "service", &id); // the message stays valid over it
    note(method, number_in(msg));
    return status;
}
constexpr ubus_method own_methods[] = {UBUS_METHOD_NOARG("poked", own_handler)};
int noting_handler(ubus_context *, ubus_object *, ubus_request_data *, const char *method, blob_attr *msg) {
    note(method, number_in(msg));
    return 0;
}
constexpr ubus_method any_method[] = {UBUS_METHOD_NOARG(nullptr, noting_handler)};

class Client : public HostBus {
  protected:
    void SetUp() override {
        HostBus::SetUp();
        trail.clear();
        child = std::make_unique<Child>([&] { return serve_until_killed(path); });
        ctx = ubus_connect(path.c_str());
        ASSERT_NE(ctx, nullptr);
        ctx->connection_lost = on_lost;
        for (int64_t end = now_ms() + ceiling_ms; !id && now_ms() < end; usleep(1000))
            ubus_lookup_id(ctx, "service", &id);
        ASSERT_NE(id, 0u);
        own.name = "mine";
        own.type = &own_type;
        own.methods = own_methods;
        own.n_methods = ARRAY_SIZE(own_methods);
    }
    void TearDown() override {
        ubus_free(ctx);
        uloop_done();
        child.reset();
        HostBus::TearDown();
    }
    int invoke(const char *method, int timeout = ceiling_ms, blob_attr *msg = nullptr) {
        return ubus_invoke(ctx, id, method, msg, on_data, nullptr, timeout);
    }
    void start(ubus_request &req, const char *method) {
        ASSERT_EQ(ubus_invoke_async(ctx, id, method, nullptr, &req), 0);
        req.data_cb = on_data;
        req.complete_cb = on_complete;
        ubus_complete_request_async(ctx, &req);
    }
    // Handles events until the trail has so many entries; one poll for each.
    bool pump(size_t entries) {
        while (trail.size() < entries) {
            if (!waits(ceiling_ms))
                return false;
            ubus_handle_event(ctx);
        }
        return true;
    }
    bool waits(int limit_ms) const { // a message, or the end
        pollfd pfd{ctx->sock.fd, POLLIN, 0};
        return poll(&pfd, 1, limit_ms) > 0;
    }
    ubus_context *ctx = nullptr;
    uint32_t id = 0;
    std::unique_ptr<Child> child;
    ubus_object_type own_type = UBUS_OBJECT_TYPE("own", own_methods);
    ubus_object own{};
};

TEST_F(Client, Calls) {
    struct {
        const char *method;
        int status;
        Lines data;
    } const rows[] = {{"echo", 0, {"data 5"}}, {"three", 0, {"data 0", "data 1", "data 2"}},
                      {"none", 0, {}},         {"fail", -5, {}},
                      {"nosuch", 3, {}},       {"later", 77, {"data 300"}}};
    for (const auto &row : rows) {
        trail.clear();
        EXPECT_EQ(invoke(row.method, ceiling_ms, number(5)), row.status) << row.method;
        EXPECT_EQ(trail, row.data) << row.method;
    }
    EXPECT_EQ(invoke("later", 0), 77) << "no limit";
    EXPECT_EQ(ubus_invoke(ctx, 99999, "echo", nullptr, nullptr, nullptr, 1000), 4);
    EXPECT_EQ(ubus_invoke(ctx, id, nullptr, nullptr, nullptr, nullptr, 1000), 2);
    EXPECT_EQ(ubus_send_event(ctx, "e", nullptr), 0);
    blob_buf big{};
    blob_buf_init(&big, 0);
    blobmsg_add_string(&big, "big", std::string(1000000, 'x').c_str());
    trail.clear();
    EXPECT_EQ(invoke("echo", ceiling_ms, big.head), 0);
    EXPECT_EQ(trail, Lines{"data -1"});
    blobmsg_add_string(&big, "more", std::string(48576, 'x').c_str());
    EXPECT_EQ(invoke("echo", 1000, big.head), 2) << "too long to be sent";
    blob_buf_free(&big);
    EXPECT_EQ(invoke("die", 100), 7) << "nobody tells the caller";
    EXPECT_STREQ(ubus_strerror(7), "Request timed out");
    EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
}

TEST_F(Client, TimeLimits) {
    struct {
        const char *method;
        int limit;
    } const rows[] = {{"silent", -1},  {"silent", 1},    {"silent", 20},
                      {"silent", 300}, {"silent", 2500}, {"remove", 200}};
    for (const auto &row : rows) {
        int64_t start = now_ms();
        EXPECT_EQ(invoke(row.method, row.limit), 7) << row.method;
        EXPECT_GE(now_ms() - start, row.limit - 5) << row.method << row.limit;
        EXPECT_LT(now_ms() - start, ceiling_ms);
    }
    EXPECT_TRUE(trail.empty());
}

TEST_F(Client, Asynchronous) {
    ubus_request req, aborted;
    start(aborted, "three");
    ubus_abort_request(ctx, &aborted);
    ubus_abort_request(ctx, &aborted);
    ASSERT_EQ(ubus_invoke_async(ctx, id, "three", nullptr, &aborted), 0); // never listed: its answers are dropped
    start(req, "three");
    ASSERT_TRUE(pump(4));
    EXPECT_EQ(trail, (Lines{"data 0", "data 1", "data 2", "complete 0"}));

    // A callback that aborts its request and frees it.
    trail.clear();
    auto *freed = new ubus_request;
    start(*freed, "three");
    freed->data_cb = [](ubus_request *r, int, blob_attr *msg) {
        on_data(r, 0, msg);
        ubus_abort_request(r->ctx, r);
        delete r;
    };
    start(req, "none");
    req.complete_cb = restart;
    ASSERT_TRUE(pump(4));
    EXPECT_EQ(trail, (Lines{"data 0", "complete 0", "complete 0", "complete 0"}));

    // Descriptors both ways.
    trail.clear();
    int ends[2];
    char byte = 0;
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(ubus_invoke_async_fd(ctx, id, "fd", nullptr, &req, ends[1]), 0);
    EXPECT_EQ(fcntl(ends[1], F_GETFD), -1) << "closed once it is sent";
    req.fd_cb = [](ubus_request *, int fd) { note("descriptor", fcntl(fd, F_GETFD) == FD_CLOEXEC && close(fd) == 0); };
    req.complete_cb = on_complete;
    ubus_complete_request_async(ctx, &req);
    ASSERT_TRUE(pump(2));
    EXPECT_EQ(trail, (Lines{"descriptor 1", "complete 0"}));
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    EXPECT_EQ(read(ends[0], &byte, 1), 0);
    close(ends[0]);
}

TEST_F(Client, CallsInsideCallbacks) {
    auto nested = [](ubus_request *r, int, blob_attr *msg) {
        note("data", number_in(msg));
        if (number_in(msg) == 0)
            note("inner", ubus_invoke(r->ctx, r->peer, "three", nullptr, nullptr, nullptr, ceiling_ms));
    };
    EXPECT_EQ(ubus_invoke(ctx, id, "three", nullptr, nested, nullptr, ceiling_ms), 0);
    EXPECT_EQ(trail, (Lines{"data 0", "inner 0", "data 1", "data 2"}));

    // A call that arrives during a wait is handled before the wait returns, or by the loop afterwards.
    ASSERT_EQ(ubus_add_object(ctx, &own), 0);
    trail.clear();
    EXPECT_EQ(invoke("poke", 300, number(8)), 7);
    EXPECT_EQ(trail, Lines{"poked 8"});
    EXPECT_EQ(ubus_invoke(ctx, own.id, "poked", number(9), nullptr, nullptr, 50), 7) << "its own object";
    EXPECT_EQ(trail, (Lines{"poked 8", "poked 9"}));
    ubus_add_uloop(ctx);
    trail.clear();
    EXPECT_EQ(invoke("poke", 300, number(10)), 7);
    EXPECT_TRUE(trail.empty());
    for (int64_t end = now_ms() + ceiling_ms; trail.empty() && now_ms() < end;)
        uloop_run_timeout(10);
    EXPECT_EQ(trail, Lines{"poked 10"});

    // After a synchronous call, one message for each event.
    trail.clear();
    ubus_request req;
    start(req, "three");
    EXPECT_EQ(invoke("none"), 0);
    EXPECT_EQ(trail.size(), 4u) << "requests that are listed go on during a wait";
    start(req, "three");
    usleep(200000);
    ubus_handle_event(ctx);
    EXPECT_EQ(trail.size(), 5u);
    ASSERT_TRUE(pump(8));
}

TEST_F(Client, DaemonDies) {
    ubus_request req;
    start(req, "silent");
    Child killer([&] {
        usleep(100000);
        return kill(daemon->pid(), SIGKILL);
    });
    EXPECT_EQ(invoke("silent"), 10);
    EXPECT_EQ(trail, (Lines{"complete 7", "lost"}));
    EXPECT_EQ(invoke("echo"), 2);
    ubus_handle_event(ctx);
    EXPECT_EQ(trail.back(), "lost");
    EXPECT_EQ(ubus_reconnect(ctx, (folder + "/nothing").c_str()), 10);
    EXPECT_EQ(ubus_connect((folder + std::string(120, 'x')).c_str()), nullptr);
    daemon->end();
    start_daemon();

    // Nobody waits when it happens.
    ASSERT_EQ(ubus_reconnect(ctx, path.c_str()), 0);
    Peer owner(path);
    id = owner.add("owner");
    trail.clear();
    start(req, "silent");
    daemon->end(SIGKILL);
    ASSERT_TRUE(pump(2));
    EXPECT_EQ(trail, (Lines{"complete 7", "lost"}));
    EXPECT_EQ(invoke("echo"), 2);
    // SIGPIPE is the program's to ignore, which connecting does for it.
    Child careless([&] {
        signal(SIGPIPE, SIG_DFL);
        return invoke("echo");
    });
    EXPECT_EQ(careless.end(), -SIGPIPE);
    start_daemon();
}

TEST_F(Client, ObjectsEventsAndReconnect) {
    ubus_object twin = own, typeless = own;
    typeless.type = nullptr;
    ASSERT_EQ(ubus_add_object(ctx, &own), 0);
    EXPECT_EQ(ubus_add_object(ctx, &own), 2);
    EXPECT_EQ(ubus_add_object(ctx, &twin), 2);
    EXPECT_EQ(ubus_add_object(ctx, &typeless), 0) << "anonymous";
    EXPECT_EQ(ubus_remove_object(ctx, &typeless), 0);
    EXPECT_EQ(ubus_remove_object(ctx, &typeless), 4);

    ubus_context *other = ubus_connect(path.c_str());
    ubus_event_handler events{};
    events.cb = [](ubus_context *, ubus_event_handler *, const char *type, blob_attr *msg) {
        note(type, number_in(msg));
    };
    EXPECT_EQ(ubus_register_event_handler(ctx, &events, nullptr), 2);
    EXPECT_EQ(ubus_register_event_handler(ctx, &events, "foo.*"), 0);
    EXPECT_EQ(ubus_send_event(ctx, "foo.own", nullptr), 0);
    EXPECT_EQ(ubus_send_event(other, "foo.bar", number(3)), 0);
    ASSERT_TRUE(pump(1));
    EXPECT_EQ(trail, Lines{"foo.bar 3"});

    uint32_t before = own.id, found = 0;
    ubus_add_uloop(ctx);
    EXPECT_EQ(ubus_reconnect(ctx, path.c_str()), 0);
    EXPECT_FALSE(ctx->sock.registered) << "not in the loop again";
    EXPECT_EQ(ubus_lookup_id(other, "mine", &found), 0);
    EXPECT_EQ(found, own.id);
    EXPECT_NE(found, before);
    EXPECT_EQ(ubus_send_event(other, "foo.bar", number(4)), 0);
    EXPECT_EQ(ubus_register_event_handler(ctx, &events, "foo.*"), 0) << "patterns are gone";
    EXPECT_EQ(ubus_send_event(other, "foo.bar", number(5)), 0);
    ASSERT_TRUE(pump(2));
    EXPECT_EQ(trail[1], "foo.bar 5");

    // A reader that sleeps loses what it has no room for, and only that; those who send do not notice.
    trail.clear();
    blob_buf big{};
    for (int i = 0; i < 3000; i++) {
        blob_buf_init(&big, 0);
        blobmsg_add_u32(&big, "n", static_cast<uint32_t>(i));
        blobmsg_add_string(&big, "text", std::string(1000, 'x').c_str());
        ASSERT_EQ(ubus_send_event(other, "foo.bar", big.head), 0);
    }
    blob_buf_free(&big);
    while (waits(200))
        ubus_handle_event(ctx);
    EXPECT_GT(trail.size(), 900u);
    EXPECT_LT(trail.size(), 3000u);
    for (size_t i = 0; i < trail.size(); i++)
        ASSERT_EQ(trail[i], "foo.bar " + std::to_string(i));
    ubus_free(other);
}

TEST_F(Client, Notifications) {
    auto called = [](ubus_context *c, ubus_object *, ubus_request_data *req, const char *method, blob_attr *msg) {
        note(method, number_in(msg));
        ubus_send_reply(c, req, number(1));
        return 6;
    };
    ubus_subscriber subscriber{};
    subscriber.cb = called;
    subscriber.remove_cb = [](ubus_context *, ubus_subscriber *, uint32_t) { trail.emplace_back("removed"); };
    ASSERT_EQ(ubus_register_subscriber(ctx, &subscriber), 0);
    EXPECT_EQ(ubus_subscribe(ctx, &subscriber, id), 0);
    EXPECT_EQ(invoke("notify", ceiling_ms, number(4)), 0);
    ASSERT_TRUE(pump(1));
    EXPECT_EQ(trail, Lines{"plain 4"});
    child.reset();
    ASSERT_TRUE(pump(2));
    EXPECT_EQ(trail[1], "removed");

    // With answers: the subscriber lives in another process, which handles what comes until it is killed.
    own.subscribe_cb = [](ubus_context *, ubus_object *obj) { note("subscribers", obj->has_subscribers); };
    ASSERT_EQ(ubus_add_object(ctx, &own), 0);
    trail.clear();
    Child reader([&] {
        service = ubus_connect(path.c_str());
        ubus_subscriber theirs{};
        theirs.cb = called;
        if (ubus_register_subscriber(service, &theirs) || ubus_subscribe(service, &theirs, own.id))
            return 1;
        ubus_add_uloop(service);
        return uloop_run();
    });
    ASSERT_TRUE(pump(1));
    ubus_notify_request req;
    ASSERT_EQ(ubus_notify_async(ctx, &own, "n", number(2), &req), 0);
    req.data_cb = [](ubus_notify_request *, int, blob_attr *msg) { note("data", number_in(msg)); };
    req.status_cb = [](ubus_notify_request *, int index, int status) { note("status", index * 100 + status); };
    req.complete_cb = [](ubus_notify_request *, int, int status) { note("done", status); };
    ubus_complete_request_async(ctx, &req.req);
    ASSERT_TRUE(pump(4));
    EXPECT_EQ(ubus_notify(ctx, &own, "n", number(2), ceiling_ms), 0);
    kill(reader.pid(), SIGSTOP);
    EXPECT_EQ(ubus_notify(ctx, &own, "n", number(2), 50), 7);
    reader.end(SIGKILL);
    ASSERT_TRUE(pump(5));
    EXPECT_EQ(trail, (Lines{"subscribers 1", "data 1", "status 106", "done 0", "subscribers 0"}));
}

// A daemon that says what it is told to, byte by byte; what the client makes of it.
TEST_F(Client, OddAnswers) {
    std::string odd = folder + "/odd";
    int listener = listen_at(odd);
    std::string hello = "000000009b1ebf1000000004", good = "00010001000000050000000c0100000800000006";
    struct {
        std::string hello, answer; // of INVOKE 1 to object 5
        int status;
    } const rows[] = {
        {hello, good, 6},
        {hello, "000100010000000600000008" + good.substr(24, 8) + good, 6},             // another peer's
        {hello, "070100010000000500000008aabbccdd" + good, 6},                          // another version
        {hello, "0002000100000005001f00ff" + std::string(2 * 0x1f00fb, '0') + good, 6}, // longer than allowed
        {hello, "000100010000000500000004", 2},                                         // no attribute
        {hello, "00010001000000050000000c0100000900000006" + good, 2},                  // attribute beyond the end
        {hello, "000100010000000500000000", 10},                                        // length below 4
        {hello, "00020001000000050000000c0700000885", 10},                              // ends in the middle
        {hello, "0002000100000005000000100700000c7f00ffff01020304" + good, 6},          // blobmsg that is none
        {hello,
         "000300010000000500000004ff0c000100000005000000080000000000040001000000000000000400070001000000000000"
         "000400080001000000000000000400000001000000010000000400ff00010000000500000004" +
             good,
         6},                                           // other types
        {"000000009b1ebf1000000008aabbccdd", good, 6}, // a greeting with a body
        {"010000009b1ebf1000000004", good, -1},
        {"000000000100000000000004", good, -1},
        {hello.substr(0, 20), "", -1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.hello + " " + row.answer.substr(0, 80));
        Child fake([&] {
            std::string first = unhex(row.hello), bytes = unhex(row.answer);
            int fd = accept(listener, nullptr, nullptr);
            char request[100];
            if (::send(fd, first.data(), first.size(), MSG_NOSIGNAL) < 0 || recv(fd, request, sizeof request, 0) <= 0)
                return 1;
            ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            return 0;
        });
        ubus_context *c = ubus_connect(odd.c_str());
        EXPECT_EQ(c ? ubus_invoke(c, 5, "m", nullptr, on_data, nullptr, ceiling_ms) : -1, row.status);
        ubus_free(c);
    }
    close(listener);
}

// Requests and answers byte for byte: the program's part as in the comments, the daemon's from a table.
TEST_F(Client, BytesOnTheWire) {
    std::string odd = folder + "/odd", name = "0200000964656d6f00000000", object = "030000082f7a1075",
                type = "05000008033c3bf6";
    std::string signature =
        "0600003c8200002c000568656c6c6f00850000100002696400000000000000058500001000036d7367000000000000"
        "038200000c000470696e670000";
    std::string hello = "0400000a68656c6c6f000000", root = "0c000009726f6f74000000000d000009726f6f7400000000";
    std::string data = "07000024850000100002696400000000000000078300000f00036d736700000068690000";
    std::string answer = "070000288700000d00026f6b00000000010000008300001100037478740000006162636400000000";
    std::string good = "0000000c0100000800000000";
    struct {
        std::string request, answer;
    } const rows[] = {
        {"00040001"
         "00000000"
         "00000010" +
             name, // ubus_lookup_id
         "00020001"
         "00000000"
         "0000005c" +
             name + object + type + signature + "0001000100000000" + good},
        {"00060002"
         "00000000"
         "0000004c" +
             name + signature, // ubus_add_object
         "00020002"
         "00000000"
         "00000014" +
             object + type + "0001000200000000" + good},
        {"00050003"
         "2f7a1075"
         "0000003c" +
             object + hello + data, // ubus_invoke, then a call to the object
         "00020003"
         "2f7a1075"
         "00000034" +
             object + answer + "000100032f7a1075000000140100000800000000" + object +
             "00050002"
             "9b1ebf10"
             "00000054" +
             object + hello + root + data},
        {"00020002"
         "9b1ebf10"
         "00000034" +
             object + answer + // ubus_send_reply and the handler's end
             "00010002"
             "9b1ebf10"
             "000000140100000800000000" +
             object,
         ""},
        {"000600040000000000000004", // ubus_register_event_handler
         "00020004"
         "00000000"
         "0000000c"
         "030000086908fdce"
         "0001000400000000" +
             good},
        {"00050005"
         "00000001"
         "0000004c"
         "03000008000000010400000d726567697374657200000000070000308500001400066f626a65637400"
         "000000"
         "6908fdce"
         "8300001600077061747465726e000000"
         "666f6f2e2a000000",
         "0001000500000001" + good + // then an event
             "00051000"
             "00000000"
             "00000028"
             "030000086908fdce"
             "0400000c666f6f2e62617200"
             "070000108500000c0001610000000001"},
        {"00011000"
         "00000000"
         "00000014"
         "0100000800000000"
         "030000086908fdce",
         ""},
        {"00050006"
         "00000001"
         "00000048"
         "03000008000000010400000973656e640000000007000030830000140002696400000000" // ubus_send_event
         "666f6f2e626172008200001800046461746100008500000c0001610000000001",
         "0001000600000001" + good},
        {"000600070000000000000004", // ubus_register_subscriber
         "00020007"
         "00000000"
         "0000000c"
         "030000087ee40251"
         "0001000700000000" +
             good},
        {"00080008"
         "00000000"
         "00000014"
         "030000087ee40251"
         "080000082f7a1075", // ubus_subscribe, then a notification
         "0001000800000000" + good +
             "00050003"
             "22d1a604"
             "00000048"
             "0a00000501000000"
             "030000087ee40251"
             "0400000970696e6700000000" +
             root + "070000108500000c0001780000000005"},
        {"00050009"
         "00000003"
         "00000018"
         "0300000800000003"
         "0400000861646400"
         "07000004", // ubus_monitor_start, no answer to that
         "000b00040000000000000038000000085b676274010000080000000003000008000000010400000800000001020000050100000005000"
         "00c0100"
         "000800000004"
         "0001000900000003" +
             good},
        {"0007000a"
         "00000000"
         "0000000c" +
             object, // ubus_remove_object
         "0002000a"
         "00000000"
         "00000014" +
             object + type + "0001000a00000000" + good},
    };
    int listener = listen_at(odd);
    Child fake([&] {
        int fd = accept(listener, nullptr, nullptr), row = 0;
        std::string out = unhex("000000009b1ebf1000000004");
        for (const auto &[request, reply] : rows) {
            ::send(fd, out.data(), out.size(), MSG_NOSIGNAL);
            std::string in(request.size() / 2, 0);
            row++;
            if (recv(fd, in.data(), in.size(), MSG_WAITALL) != static_cast<ssize_t>(in.size()) || hex(in) != request) {
                fprintf(stderr, "got %s\n", hex(in).c_str());
                return row;
            }
            out = unhex(reply);
        }
        ::send(fd, out.data(), out.size(), MSG_NOSIGNAL);
        return recv(fd, out.data(), 1, 0) == 0 ? 0 : 100;
    });
    close(listener);
    auto handler = [](ubus_context *c, ubus_object *, ubus_request_data *req, const char *method, blob_attr *) {
        static blob_buf buf;
        blob_buf_init(&buf, 0);
        blobmsg_add_u8(&buf, "ok", 1);
        blobmsg_add_string(&buf, "txt", "abcd");
        trail.push_back(std::string(method) + " " + req->acl.user);
        return ubus_send_reply(c, req, buf.head);
    };
    constexpr blobmsg_policy policy[] = {{"id", BLOBMSG_TYPE_INT32}, {"msg", BLOBMSG_TYPE_STRING}};
    const ubus_method methods[] = {UBUS_METHOD("hello", handler, policy), UBUS_METHOD_NOARG("ping", handler)};
    ubus_object_type demo_type = UBUS_OBJECT_TYPE("demo", methods);
    ubus_object demo{};
    demo.name = "demo";
    demo.type = &demo_type;
    demo.methods = methods;
    demo.n_methods = 2;
    ubus_event_handler events{};
    events.cb = [](ubus_context *, ubus_event_handler *, const char *event, blob_attr *) { trail.emplace_back(event); };
    ubus_subscriber subscriber{};
    subscriber.cb = [](ubus_context *, ubus_object *, ubus_request_data *, const char *method, blob_attr *) {
        trail.emplace_back(method);
        return 0;
    };
    ubus_free(ctx);
    ctx = ubus_connect(odd.c_str());
    ASSERT_NE(ctx, nullptr);
    ctx->monitor_cb = [](ubus_context *, uint32_t seq, blob_attr *body) {
        note("monitor", int(seq * 100 + blob_len(body)));
    };
    uint32_t found = 0;
    EXPECT_EQ(ubus_lookup_id(ctx, "demo", &found), 0);
    EXPECT_EQ(found, 0x2f7a1075u);
    EXPECT_EQ(ubus_add_object(ctx, &demo), 0);
    blob_buf buf{};
    blob_buf_init(&buf, 0);
    blobmsg_add_u32(&buf, "id", 7);
    blobmsg_add_string(&buf, "msg", "hi");
    EXPECT_EQ(ubus_invoke(ctx, found, "hello", buf.head, on_data, nullptr, ceiling_ms), 0);
    EXPECT_TRUE(pump(2));
    EXPECT_EQ(ubus_register_event_handler(ctx, &events, "foo.*"), 0);
    EXPECT_TRUE(pump(3));
    blob_buf_init(&buf, 0);
    blobmsg_add_u32(&buf, "a", 1);
    EXPECT_EQ(ubus_send_event(ctx, "foo.bar", buf.head), 0);
    blob_buf_free(&buf);
    EXPECT_EQ(ubus_register_subscriber(ctx, &subscriber), 0);
    EXPECT_EQ(ubus_subscribe(ctx, &subscriber, found), 0);
    EXPECT_TRUE(pump(4));
    EXPECT_EQ(ubus_monitor_start(ctx), 0);
    EXPECT_EQ(ubus_remove_object(ctx, &demo), 0);
    EXPECT_EQ(trail, (Lines{"data -1", "hello root", "foo.bar", "ping", "monitor 452"}));
    ubus_free(ctx);
    ctx = nullptr;
    EXPECT_EQ(fake.end(), 0) << "the row of the request that is wrong";
}

// A call that arrives while the objects are added again is handled before the reconnect returns.
TEST_F(Client, CalledDuringReconnect) {
    std::string odd = folder + "/odd", hello = "000000009b1ebf1000000004", object = "0300000800001234";
    int listener = listen_at(odd);
    Child fake([&] {
        for (std::string seq : {"0001", "0002"}) {
            std::string answers = "0002" + seq + "000000000000000c" + object + "00050002" + "9b1ebf10" + "0000001c" +
                                  object + "0400000a706f6b6564000000" + "07000004" + "0001" + seq +
                                  "000000000000000c0100000800000000";
            int fd = accept(listener, nullptr, nullptr);
            char request[200];
            for (const std::string &bytes : {unhex(hello), unhex(answers)})
                if (::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0 ||
                    recv(fd, request, sizeof request, 0) < 0)
                    return 1;
        }
        return 0;
    });
    close(listener);
    own.methods = any_method;
    ubus_context *c = ubus_connect(odd.c_str());
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(ubus_add_object(c, &own), 0);
    EXPECT_EQ(trail, Lines{"poked -1"});
    EXPECT_EQ(ubus_reconnect(c, odd.c_str()), 0);
    EXPECT_EQ(trail, (Lines{"poked -1", "poked -1"}));
    ubus_free(c);
}

// What follows the bus by itself: connections, subscriptions, access rules.
TEST_F(Client, FollowsByItself) {
    ubus_auto_conn conn{};
    std::string later = folder + "/later";
    conn.path = later.c_str();
    conn.cb = [](ubus_context *) { trail.emplace_back("connected"); };
    ubus_auto_connect(&conn);
    EXPECT_TRUE(trail.empty());
    std::unique_ptr<Child> second = run_daemon("-s", later);
    auto run_until = [](auto done) {
        for (int64_t end = now_ms() + ceiling_ms; !done() && now_ms() < end;)
            uloop_run_timeout(10);
        return done();
    };
    ASSERT_TRUE(run_until([&] { return conn.ctx.sock.registered; }));
    EXPECT_EQ(trail, Lines{"connected"});
    ASSERT_EQ(ubus_add_object(&conn.ctx, &own), 0);
    second->end(SIGKILL);
    second = run_daemon("-s", later);
    uint32_t before = own.id;
    ASSERT_TRUE(run_until([&] { return conn.ctx.sock.registered && own.id != before && own.id; }));
    ubus_context *other = ubus_connect(later.c_str());
    uint32_t found = 0;
    EXPECT_EQ(ubus_lookup_id(other, "mine", &found), 0);
    EXPECT_EQ(found, own.id);
    ubus_free(other);
    ubus_auto_shutdown(&conn);
    EXPECT_EQ(second->end(SIGTERM), 0);

    // Every object that is there, and that comes, is offered.
    ubus_subscriber subscriber{};
    subscriber.new_obj_cb = [](ubus_context *, ubus_subscriber *, const char *offered) {
        trail.emplace_back(offered);
        return !strcmp(offered, "mine");
    };
    trail.clear();
    ASSERT_EQ(ubus_register_subscriber(ctx, &subscriber), 0);
    EXPECT_EQ(trail, Lines{"service"});
    other = ubus_connect(path.c_str());
    own = {};
    own.name = "mine";
    own.type = &own_type;
    own_type.id = 0;
    own.methods = own_methods;
    own.n_methods = 1;
    own.subscribe_cb = [](ubus_context *, ubus_object *obj) { note("subscribers", obj->has_subscribers); };
    ASSERT_EQ(ubus_add_object(other, &own), 0);
    ASSERT_TRUE(pump(2));
    std::swap(ctx, other);
    ASSERT_TRUE(pump(3));
    EXPECT_EQ(trail, (Lines{"service", "mine", "subscribers 1"}));
    std::swap(ctx, other);

    // The rules for own objects; a context that is gone in between leaves nothing behind.
    if (getuid() == 0) {
        std::ofstream(folder + "/rules/a.json")
            << R"({"user": "nobody", "access": {"mi*": {"methods": ["poked"], "acl": {"n": 5}}}})";
        chmod((folder + "/rules/a.json").c_str(), 0644);
        kill(daemon->pid(), SIGHUP);
        EXPECT_EQ(ubus_register_acl(ctx), 0);
        EXPECT_EQ(ubus_register_acl(other), 2) << "one follows";
        ubus_free(ctx);
        ctx = other;
        other = nullptr;
        EXPECT_EQ(ubus_register_acl(ctx), 0);
        ubus_acl_key key = {"nobody", "nogroup", "mine"}, stranger = {"daemon", "daemon", "mine"};
        auto rules = [](ubus_acl_key *who) {
            int n = 0;
            acl_object *rule;
            acl_for_each(rule, who) n += number_in(blobmsg_data(rule->acl), blobmsg_len(rule->acl));
            return n;
        };
        for (int64_t end = now_ms() + ceiling_ms; !rules(&key) && now_ms() < end && waits(1000);)
            ubus_handle_event(ctx);
        EXPECT_EQ(rules(&key), 5);
        EXPECT_EQ(rules(&stranger), 0);
        std::ofstream(folder + "/rules/a.json") << "{}";
        kill(daemon->pid(), SIGHUP);
        for (int64_t end = now_ms() + ceiling_ms; rules(&key) && now_ms() < end && waits(1000);)
            ubus_handle_event(ctx);
        EXPECT_EQ(rules(&key), 0);
    }
    ubus_free(other);
    subscriber.obj.id = 0; // for use with another context
    EXPECT_EQ(ubus_unregister_subscriber(ctx, &subscriber), 4);
    EXPECT_EQ(ubus_register_subscriber(ctx, &subscriber), 0);
    EXPECT_EQ(ubus_unregister_subscriber(ctx, &subscriber), 0);
}

// Two ends of a socket pair, without a daemon.
TEST_F(Client, Channels) {
    ubus_context near{}, far{};
    int fd = -1;
    auto handler = [](ubus_context *c, ubus_object *, ubus_request_data *req, const char *method, blob_attr *msg) {
        note(method, number_in(msg));
        return ubus_send_reply(c, req, msg);
    };
    ASSERT_EQ(ubus_channel_create(&near, &fd, nullptr), 0);
    ASSERT_EQ(ubus_channel_connect(&far, fd, handler), 0);
    ubus_request req;
    ASSERT_EQ(ubus_invoke_async(&near, 0, "m", number(3), &req), 0);
    req.data_cb = on_data;
    req.complete_cb = on_complete;
    ubus_complete_request_async(&near, &req);
    ubus_handle_event(&far);
    ubus_handle_event(&near);
    EXPECT_EQ(trail, (Lines{"m 3", "data 3", "complete 0"}));
    uint32_t id_there = 0;
    EXPECT_EQ(ubus_lookup_id(&near, "x", &id_there), 2);
    EXPECT_EQ(ubus_add_object(&near, &own), 2);
    EXPECT_EQ(ubus_send_event(&near, "x", nullptr), 2);
    EXPECT_EQ(ubus_reconnect(&near, nullptr), -1);
    ubus_shutdown(&near);
    ubus_shutdown(&far);
}

// Statuses of somebody who is not root, without rules.
TEST_F(Client, AnotherUser) {
    const passwd *nobody = getpwnam("nobody");
    if (getuid() != 0 || !nobody || !getpwuid(nobody->pw_uid) || !getgrgid(nobody->pw_gid))
        GTEST_SKIP() << "needs root, and a second user to become";
    auto as = [&](uid_t uid, const std::function<void(ubus_context *)> &check) {
        Child guest([&] {
            if (setgroups(0, nullptr) || setgid(nobody->pw_gid) || setuid(uid))
                return 1;
            ubus_context *c = ubus_connect(path.c_str());
            check(c);
            ubus_free(c);
            return HasFailure() ? 2 : 0;
        });
        EXPECT_EQ(guest.end(), 0);
    };
    as(54321, [](ubus_context *c) { EXPECT_EQ(c, nullptr); });
    as(nobody->pw_uid, [&](ubus_context *c) {
        ASSERT_NE(c, nullptr);
        uint32_t found = 7;
        ubus_event_handler events{};
        ubus_subscriber subscriber{};
        EXPECT_EQ(ubus_lookup_id(c, nullptr, &found), 0);
        EXPECT_EQ(ubus_lookup_id(c, "service", &found), 0);
        EXPECT_EQ(found, 7u) << "not shown";
        EXPECT_EQ(ubus_invoke(c, id, "echo", nullptr, nullptr, nullptr, ceiling_ms), 6);
        EXPECT_EQ(ubus_add_object(c, &own), 2);
        EXPECT_EQ(ubus_register_event_handler(c, &events, "x"), 6);
        EXPECT_EQ(ubus_send_event(c, "x", nullptr), 6);
        EXPECT_EQ(ubus_register_subscriber(c, &subscriber), 0) << "anonymous";
        EXPECT_EQ(ubus_subscribe(c, &subscriber, id), 4);
        EXPECT_EQ(ubus_monitor_start(c), 6);
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(ubus_register_acl(c), 6);
    });
}

// uloop's part in connecting: what was default is handled, what was not stays; uloop_done puts back all but SIGPIPE.
TEST_F(HostBus, Signals) {
    Child guest([&] {
        auto is = [](int signal, sighandler_t handler) {
            struct sigaction now {};
            sigaction(signal, nullptr, &now);
            return now.sa_handler == handler;
        };
        signal(SIGTERM, SIG_IGN);
        ubus_context *c = ubus_connect(path.c_str());
        if (!c || is(SIGINT, SIG_DFL) || !is(SIGTERM, SIG_IGN) || is(SIGCHLD, SIG_DFL) || !is(SIGPIPE, SIG_IGN))
            return 1;
        if (fcntl(c->sock.fd, F_GETFD) != FD_CLOEXEC || !(fcntl(c->sock.fd, F_GETFL) & O_NONBLOCK))
            return 2;
        ubus_free(c);
        uloop_done();
        if (!is(SIGCHLD, SIG_DFL))
            return 4;
        uloop_handle_sigchld = false;
        c = ubus_connect(path.c_str());
        if (!c || !is(SIGCHLD, SIG_DFL))
            return 5;
        ubus_free(c);
        uloop_done();
        return is(SIGINT, SIG_DFL) && is(SIGCHLD, SIG_DFL) && is(SIGPIPE, SIG_IGN) ? 0 : 3;
    });
    EXPECT_EQ(guest.end(), 0);
}

} // namespace
