// Interfaces up and down, by the network service and the kernel.
#include "core/log.h"
#include "core/shell.h"
#include "datacall/names.h"
#include "tavrik_sdk.h"
#include "ubus/async.h"
#include "ubus/ril.h"

#include <stdio.h>

using namespace tavrik;

namespace {

constexpr int kInvokeMs = 5000, kIfconfigMs = 5000;

void on_reload_end(void *, AsyncEnd, int status) {
    dc_reload_network_complete(nullptr, status);
}

void on_ifupdown_end(void *, AsyncEnd, int status) {
    data_ifupdown_complete(nullptr, status);
}

// Names an interface of the network service.
struct InterfaceRequest : BlobBuf {
    explicit InterfaceRequest(const char *name) { ok = ok && !blobmsg_add_string(&buf, "interface", name); }
};

// Is an interface of the modem up?
bool ccinet_is_there() {
    char line[128];
    return run_shell_for_first_line("ifconfig |grep ccinet", line, sizeof line, kIfconfigMs) > 0;
}

} // namespace

int data_reload_network(void) {
    if (tavrik_ubus_thread_init()) {
        TAVRIK_LOG_ERROR("ubus_thread init failed!");
        return -1;
    }
    AsyncRequest request(kLongestAsyncMs, {nullptr, on_reload_end, nullptr});
    BlobBuf message;
    if (!request || !message.ok || !request.open()) {
        TAVRIK_LOG_ERROR("Failed to connect to ubus");
        return -1;
    }
    uint32_t id;
    if (request.lookup("network", &id)) {
        TAVRIK_LOG_ERROR("lookup network id failed");
        return -1;
    }
    const int status = request.start(id, "reload", message.head());
    if (status)
        TAVRIK_LOG_ERROR("Failed to ubus invoke: %s", StatusText(status).c_str());
    return status ? -1 : 0;
}

void dc_reload_network_complete(ubus_request *, int result) {
    TAVRIK_LOG_INFO("network reload: %s", StatusText(result).c_str());
}

void data_ifupdown_complete(ubus_request *, int result) {
    TAVRIK_LOG_INFO("interface down or up: %s", StatusText(result).c_str());
}

int data_up_down_br_lan(int mode, const char *ifname) {
    if (mode < 0 || mode > 1 || !ifname) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    InterfaceRequest message(ifname);
    BusConnection bus(kInvokeMs);
    if (!message.ok || !bus.open()) {
        TAVRIK_LOG_ERROR("Failed to connect to ubus");
        return -1;
    }
    uint32_t id;
    if (const int status = bus.lookup("network.interface", &id)) {
        TAVRIK_LOG_ERROR("Failed to lookup id: %s", StatusText(status).c_str());
        return status;
    }
    bus.limit(kInvokeMs);
    const int down = bus.invoke(id, "down", message.head(), nullptr, nullptr);
    if (down)
        TAVRIK_LOG_ERROR("ifdown fail: %s", StatusText(down).c_str());
    if (!mode)
        return down;
    // A bridge that went down all the same must not stay so.
    bus.limit(kInvokeMs);
    const int up = bus.invoke(id, "up", message.head(), nullptr, nullptr);
    if (up)
        TAVRIK_LOG_ERROR("ifup fail: %s", StatusText(up).c_str());
    return down ? down : up;
}

int data_send_if_command(int index, int up, int ip_type) {
    if (index < 0 || index >= TAVRIK_IDX_CID_COUNT || (ip_type != 4 && ip_type != 6)) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    if (!ccinet_is_there()) {
        TAVRIK_LOG_ERROR("no ccinet interface is up");
        return -1;
    }
    InterfaceRequest message(ContextName(ip_type == 4 ? "wan" : "wan6", index + 1).text);
    AsyncRequest request(kLongestAsyncMs, {nullptr, on_ifupdown_end, nullptr});
    if (!request || !message.ok || !request.open()) {
        TAVRIK_LOG_ERROR("Failed to connect to ubus");
        return -2;
    }
    uint32_t id;
    if (const int status = request.lookup("network.interface", &id)) {
        TAVRIK_LOG_ERROR("Failed to lookup id: %s", StatusText(status).c_str());
        return -3;
    }
    // The service takes them one after the other, whatever the answers.
    int status = up ? request.send(id, "down", message.head()) : request.start(id, "down", message.head());
    if (status) {
        TAVRIK_LOG_ERROR(" ifdown fail: %s", StatusText(status).c_str());
        return -4;
    }
    if (!up)
        return 0;
    status = request.start(id, "up", message.head());
    if (status) {
        TAVRIK_LOG_ERROR(" ifup fail: %s", StatusText(status).c_str());
        return -4;
    }
    char command[48];
    snprintf(command, sizeof command, "ifconfig %s up", ContextName("ccinet", index + 1).text);
    run_shell(command);
    return 0;
}
