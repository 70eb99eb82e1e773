// Reply handlers for RIL requests of the application's own: they check a reply and log what is wrong with it.
#include "core/log.h"
#include "tavrik_sdk.h"
#include "ubus/ril.h"

#include <string.h>

using namespace tavrik;

void uim_status_request_cb(ubus_request *, int, blob_attr *message) {
    const RilReply reply(message);
    if (usable(reply, 1) && reply.length != 280 && reply.length != 276)
        TAVRIK_LOG_ERROR("Return data length error");
}

void uim_imsi_request_cb(ubus_request *, int, blob_attr *message) {
    const RilReply reply(message);
    usable(reply, 11);
}

void uim_phonenum_request_cb(ubus_request *, int, blob_attr *message) {
    const RilReply reply(message);
    const auto *number = static_cast<const char *>(reply.data);
    if (usable(reply, kAnyRequest) && number && strnlen(number, reply.length) >= TAVRIK_NUMBER_SIZE)
        TAVRIK_LOG_ERROR("phone number too long");
}
