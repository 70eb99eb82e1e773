// Requests over the bus against a bare bus client, the bus itself against bare sockets, and how late limits are.
#include "bench.h"

#include "bus.h"
#include "rilutil.h"
#include "tavrik_sdk.h"

#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void take_mode(ubus_request *request, int, blob_attr *message) {
    uint32_t id;
    int32_t error;
    void *data;
    size_t length;
    if (rilutil_parseResponseDSMaster(message, &id, &error, &data, &length))
        return;
    if (length == 4)
        memcpy(request->priv, data, 4);
    rilutil_freeResponseData(id, data, length);
}

bool get_mode(int operations) {
    int mode;
    while (operations--)
        if (Tavrik_DM_GetPhoneMode(&mode))
            return false;
    return true;
}

bool bare_get_mode(int operations) {
    while (operations--) {
        ubus_context *context = ubus_connect(nullptr);
        if (!context)
            return false;
        blob_buf message = {};
        blob_buf_init(&message, 0);
        blobmsg_add_u32(&message, "reqid", 537);
        uint32_t id;
        int32_t mode = -1;
        const bool good = !ubus_lookup_id(context, "ril", &id) &&
                          !ubus_invoke(context, id, "ril_request", message.head, take_mode, &mode, 3000);
        blob_buf_free(&message);
        ubus_free(context);
        if (!good || mode < 0)
            return false;
    }
    return true;
}

// Runs `serve` in a process of its own that ends with this one.
void start(void (*serve)(int), int end) {
    const pid_t parent = getpid();
    if (fork())
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == parent)
        serve(end);
    _exit(0);
}

int answer(ubus_context *context, ubus_object *, ubus_request_data *request, const char *, blob_attr *message) {
    ubus_send_reply(context, request, message);
    return 0;
}

// An object that sends back what it gets.
void serve_object(int ready) {
    uloop_init();
    ubus_context *context = ubus_connect(nullptr);
    static ubus_method methods[1];
    methods[0].name = "echo";
    methods[0].handler = answer;
    static ubus_object_type type;
    type.name = "bench";
    type.methods = methods;
    type.n_methods = 1;
    static ubus_object object;
    object.name = "bench";
    object.type = &type;
    object.methods = methods;
    object.n_methods = 1;
    if (!context || ubus_add_object(context, &object))
        return;
    ubus_add_uloop(context);
    if (write(ready, "", 1) == 1)
        uloop_run();
}

// What such a request and its reply take on the wire, each with its status.
constexpr size_t kRequest = 64, kReply = 64 + 20;

bool pass(int from, int to, size_t size) {
    char bytes[kReply];
    for (size_t got = 0; got < size;) {
        pollfd input = {from, POLLIN, 0};
        poll(&input, 1, -1);
        const ssize_t n = read(from, bytes + got, size - got);
        if (n <= 0)
            return false;
        got += size_t(n);
    }
    return to < 0 || write(to, bytes, size) == ssize_t(size);
}

int g_owner; // the relay's and the owner's sockets to each other

void serve_echo(int end) {
    const char reply[kReply] = {};
    while (pass(end, -1, kRequest) && write(end, reply, kReply) == ssize_t(kReply)) {
    }
}

void serve_relay(int end) {
    while (pass(end, g_owner, kRequest) && pass(g_owner, end, kReply)) {
    }
}

ubus_context *g_context;
uint32_t g_object;
int g_relay;

bool bus_request(int operations) {
    while (operations--) {
        blob_buf message = {};
        blob_buf_init(&message, 0);
        blobmsg_add_u32(&message, "reqid", 537);
        const int status = ubus_invoke(g_context, g_object, "echo", message.head, nullptr, nullptr, 3000);
        blob_buf_free(&message);
        if (status)
            return false;
    }
    return true;
}

bool relay_request(int operations) {
    const char request[kRequest] = {};
    while (operations--)
        if (write(g_relay, request, kRequest) != ssize_t(kRequest) || !pass(g_relay, -1, kReply))
            return false;
    return true;
}

void prepare() {
    int ready[2], owner[2], relay[2];
    if (pipe(ready) || socketpair(AF_UNIX, SOCK_STREAM, 0, owner) || socketpair(AF_UNIX, SOCK_STREAM, 0, relay))
        return;
    start(serve_object, ready[1]);
    start(serve_echo, owner[1]);
    g_owner = owner[0];
    start(serve_relay, relay[1]);
    g_relay = relay[0];
    char byte;
    if (read(ready[0], &byte, 1) != 1)
        return;
    g_context = ubus_connect(nullptr);
    if (g_context)
        ubus_lookup_id(g_context, "bench", &g_object);
}

constexpr int kLimitMs = 20;

bool late_limit(int operations) {
    while (operations--) {
        blob_buf message = {};
        blob_buf_init(&message, 0);
        blobmsg_add_u32(&message, "reqid", 7777);
        const int status = tavrik_call_ubusinvoke(&message, "ril", "ril_request", 0, nullptr, kLimitMs);
        blob_buf_free(&message);
        if (!status)
            return false;
    }
    return true;
}

bool late_poll(int operations) {
    while (operations--)
        if (poll(nullptr, 0, kLimitMs))
            return false;
    return true;
}

} // namespace

std::vector<bench::Row> bench::bus_rows() {
    prepare();
    return {{"Tavrik_DM_GetPhoneMode", "ns", 400, get_mode, bare_get_mode},
            {"host bus request", "ns", 200, bus_request, relay_request},
            {"limits", "ns", 3, late_limit, late_poll, kLimitMs * 1e6}};
}
