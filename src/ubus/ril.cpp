#include "ubus/ril.h"

#include <stdlib.h>

#include "core/log.h"
#include "tavrik_sdk.h"
#include "ubus/connection.h"

using namespace tavrik;

const char *tavrik::text_of(blob_attr *field) {
    const char *text = field ? static_cast<const char *>(blobmsg_data(field)) : nullptr;
    const size_t size = field ? blobmsg_data_len(field) : 0;
    return size && !text[size - 1] ? text : nullptr;
}

bool tavrik::answered(const RilReply &reply, uint32_t request, Site site) {
    if (!reply.parsed)
        log(Level::error, site, "Call back Parse response failed");
    else if (request != kAnyRequest && reply.id != request)
        log(Level::error, site, "The response not for the request");
    else if (reply.error)
        log(Level::error, site, "response error %d", reply.error);
    else
        return true;
    return false;
}

bool tavrik::usable(const RilReply &reply, uint32_t request, Site site) {
    if (!reply.parsed || (reply.data && reply.length >= 1))
        return answered(reply, request, site);
    log(Level::error, site, "no response data");
    return false;
}

int tavrik_ubus_invoke(uint32_t request, Tavrik_UbusDataCb callback, void *priv, int timeout_ms) {
    BusConnection bus(timeout_ms);
    if (!bus.open()) {
        TAVRIK_LOG_ERROR("Failed to connect to ubus");
        return -1;
    }
    RilRequest message(request);
    uint32_t ril;
    int status = message.ok ? bus.lookup("ril", &ril) : UBUS_STATUS_NO_MEMORY;
    if (status) {
        TAVRIK_LOG_ERROR("Failed to lookup id: %s", StatusText(status).c_str());
        return -1;
    }
    status = bus.invoke(ril, "ril_request", message.head(), callback, priv);
    if (status)
        TAVRIK_LOG_ERROR("Failed to ubus invoke: %s", StatusText(status).c_str());
    return status ? -1 : 0;
}

// Where a call's reply goes.
struct KeptReply {
    blob_attr **holder;
    bool no_memory;
};

// Keeps the newest reply for the caller, who frees it.
static void copy_reply(ubus_request *request, int, blob_attr *message) {
    auto *kept = static_cast<KeptReply *>(request->priv);
    if (!kept->holder)
        return;
    free(*kept->holder);
    *kept->holder = message ? blob_memdup(message) : nullptr;
    kept->no_memory = message && !*kept->holder;
}

int tavrik_call_ubusinvoke(blob_buf *message, const char *object, const char *method, int keep_reply, blob_attr **reply,
                           int timeout_ms) {
    if (keep_reply && reply)
        *reply = nullptr;
    if (!object || !method) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    BusConnection bus(timeout_ms);
    if (!bus.open()) {
        TAVRIK_LOG_ERROR("ctx null!");
        return -1;
    }
    uint32_t id;
    int status = bus.lookup(object, &id);
    if (status) {
        TAVRIK_LOG_ERROR("ubus_lookup_id fail %s!", StatusText(status).c_str());
    } else {
        KeptReply kept = {reply, false};
        status = bus.invoke(id, method, message ? message->head : nullptr, keep_reply ? copy_reply : nullptr, &kept);
        if (!status && kept.no_memory)
            status = UBUS_STATUS_NO_MEMORY;
        if (status)
            TAVRIK_LOG_ERROR("ubus_invoke config_dspgain failed %s", StatusText(status).c_str());
    }
    if (!status)
        return 0;
    TAVRIK_LOG_ERROR("exit fail %s!", StatusText(status).c_str());
    return -1;
}

void _reset_blob_buf(blob_buf *message) {
    if (!message)
        return;
    *message = {};
    blob_buf_init(message, 0);
}

void _free_blob_buf(blob_buf *message) {
    if (!message || !message->buf)
        return;
    blob_buf_free(message);
    message->head = nullptr; // blob_buf_free leaves it dangling
}
