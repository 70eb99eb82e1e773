// The phone's operating mode: online, or at minimum functionality with the radio off.
#include "core/log.h"
#include "tavrik_sdk.h"
#include "ubus/connection.h"
#include "ubus/ril.h"

#include <endian.h>
#include <string.h>

using namespace tavrik;

namespace {

constexpr uint32_t kGetMode = 537;
constexpr uint32_t kSetMode = 538;
constexpr int kGetModeMs = 3000;
constexpr int kSetModeMs = 9000;

// What one request and its reply share.
struct ModeReply {
    int status = -1;
    int mode = TAVRIK_PHONE_MODE_OTHER;
};

// Both are named as the exported handlers, because their lines in the log bear these names.
void dms_get_op_mode_cb(blob_attr *message, ModeReply &result) {
    const RilReply reply(message);
    int32_t mode;
    if (!reply.parsed) {
        TAVRIK_LOG_ERROR("parse get cfun data failed");
        return;
    }
    if (reply.error) {
        TAVRIK_LOG_ERROR("errcode : %d", reply.error);
        return;
    }
    if (!reply.data || reply.length < sizeof mode) {
        TAVRIK_LOG_ERROR("data is null");
        return;
    }
    memcpy(&mode, reply.data, sizeof mode);
    mode = int32_t(le32toh(uint32_t(mode)));
    result.mode = mode == 1   ? TAVRIK_PHONE_MODE_ONLINE
                  : mode == 0 ? TAVRIK_PHONE_MODE_MINIMUM
                              : TAVRIK_PHONE_MODE_OTHER;
    if (result.mode == TAVRIK_PHONE_MODE_OTHER)
        TAVRIK_LOG_ERROR("cfun mode : %d", mode);
    result.status = 0;
}

void dms_set_op_mode_cb(blob_attr *message, ModeReply &result) {
    const RilReply reply(message);
    if (!reply.parsed)
        TAVRIK_LOG_ERROR("parse set op mode data failed");
    else if (reply.error)
        TAVRIK_LOG_ERROR("errorcode : %d", reply.error);
    else
        result.status = 0;
}

template <void (*handle)(blob_attr *, ModeReply &)>
void on_reply(ubus_request *request, int, blob_attr *message) {
    handle(message, *static_cast<ModeReply *>(request->priv));
}

// 0, or the status of what failed, logged for the operation at `site`; the operations differ in a word.
int exchange(BusConnection &bus, RilRequest &request, ubus_data_handler_t on_reply, ModeReply &reply,
             const char *invoke_word, Site site = Site::here()) {
    uint32_t ril;
    int status = request.ok ? bus.lookup("ril", &ril) : UBUS_STATUS_NO_MEMORY;
    if (status) {
        log(Level::error, site, "ubus_lookup_id failed, ret[%d]", status);
        return status;
    }
    status = bus.invoke(ril, "ril_request", request.head(), on_reply, &reply);
    if (status)
        log(Level::error, site, "%s failed, ret[%d]", invoke_word, status);
    return status;
}

} // namespace

int Tavrik_DM_GetPhoneMode(int *mode) {
    if (!mode) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    BusConnection bus(kGetModeMs);
    if (!bus.open()) {
        TAVRIK_LOG_ERROR("ubus connect failed");
        return -1;
    }
    RilRequest request(kGetMode);
    ModeReply reply;
    if (exchange(bus, request, on_reply<dms_get_op_mode_cb>, reply, "ubus invoke") || reply.status)
        return -1;
    *mode = reply.mode;
    return 0;
}

int Tavrik_DM_SetPhoneMode(int mode) {
    BusConnection bus(kSetModeMs);
    if (!bus.open()) {
        TAVRIK_LOG_ERROR("ubus connect failed");
        return -1;
    }
    if (mode != TAVRIK_PHONE_MODE_ONLINE && mode != TAVRIK_PHONE_MODE_MINIMUM) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    const uint32_t payload = htole32(mode == TAVRIK_PHONE_MODE_ONLINE ? 1 : 0);
    RilRequest request(kSetMode, &payload, sizeof payload);
    ModeReply reply;
    return exchange(bus, request, on_reply<dms_set_op_mode_cb>, reply, "ubus_invoke") || reply.status ? -1 : 0;
}

// The private pointers of such requests are the application's: a reply is checked, and kept nowhere.
void dms_get_op_mode_cb(ubus_request *, int, blob_attr *message) {
    ModeReply unused;
    dms_get_op_mode_cb(message, unused);
}

void dms_set_op_mode_cb(ubus_request *, int, blob_attr *message) {
    ModeReply unused;
    dms_set_op_mode_cb(message, unused);
}
