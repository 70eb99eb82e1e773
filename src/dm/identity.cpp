// Who made the module, and its IMEI.
#include "core/at_command.h"
#include "core/log.h"
#include "tavrik_sdk.h"
#include "ubus/ril.h"

#include <algorithm>
#include <stddef.h>
#include <string.h>

namespace {

constexpr uint32_t kGetImei = 38;
constexpr int kGetImeiMs = 3000;

static_assert(offsetof(Tavrik_VersionInfo, model) == 20 && offsetof(Tavrik_VersionInfo, revision) == 50 &&
                  sizeof(Tavrik_VersionInfo) == 90,
              "applications are built with this layout");

// What one request and its reply share.
struct Imei {
    int status = -1;
    char text[TAVRIK_IMEI_SIZE] = {};
};

// Named as the exported handler, because its lines in the log bear that name.
void get_imei_request_cb(blob_attr *message, Imei &imei) {
    imei.status = -1;
    const tavrik::RilReply reply(message);
    if (!tavrik::usable(reply, kGetImei))
        return;
    const char *text = static_cast<const char *>(reply.data);
    const size_t length = strnlen(text, std::min(reply.length, sizeof imei.text - 1));
    memcpy(imei.text, text, length);
    imei.text[length] = 0;
    imei.status = 0;
}

} // namespace

int Tavrik_DM_GetVersionInfo(Tavrik_VersionInfo *info) {
    if (!info) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    tavrik::AtCommand at;
    if (at.send("AT+PALDEXATI"))
        return -1;
    if (at.field_behind("Manufacturer:", info->manufacturer, sizeof info->manufacturer)) {
        TAVRIK_LOG_ERROR("get manufacturer failed");
        return -1;
    }
    if (at.field_behind("Model:", info->model, sizeof info->model)) {
        TAVRIK_LOG_ERROR("get model failed");
        return -1;
    }
    if (at.field_behind("Revision:", info->revision, sizeof info->revision)) {
        TAVRIK_LOG_ERROR("get revision failed");
        return -1;
    }
    return 0;
}

int Tavrik_DM_GetIMEI(char *imei, int *length) {
    if (!imei || !length) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    Imei result;
    const auto on_reply = [](ubus_request *request, int, blob_attr *message) {
        get_imei_request_cb(message, *static_cast<Imei *>(request->priv));
    };
    if (tavrik_ubus_invoke(kGetImei, on_reply, &result, kGetImeiMs)) {
        TAVRIK_LOG_ERROR("Failed to get imei");
        return -1;
    }
    if (result.status) {
        TAVRIK_LOG_ERROR("Parsing the response data failed");
        return -1;
    }
    strcpy(imei, result.text);
    *length = int(strlen(result.text));
    return 0;
}

// The private pointer of such a request is the application's: the reply is checked, and kept nowhere.
void get_imei_request_cb(ubus_request *, int, blob_attr *message) {
    Imei unused;
    get_imei_request_cb(message, unused);
}
