// Starting an upgrade: the module's over-the-air service, ubus object "ota", fetches the package and flashes it.
#include "core/log.h"
#include "core/sigpipe.h"
#include "tavrik_sdk.h"
#include "ubus/connection.h"
#include "ubus/ril.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

using namespace tavrik;

namespace {

constexpr int kDownloadMs = 180000;
constexpr uint32_t kFromUrl = 0;
constexpr uint32_t kFromStorage = 2;
constexpr uint32_t kSync = 1; // the service answers when it is through

class DownloadRequest : public BlobBuf {
  public:
    void number(const char *name, uint32_t value) { ok = ok && !blobmsg_add_u32(&buf, name, value); }
    void text(const char *name, const char *value) { ok = ok && !blobmsg_add_string(&buf, name, value); }
};

// -1 without such a file.
int64_t get_pkg_size(const char *path) {
    struct stat status;
    if (stat(path, &status))
        return -1;
    TAVRIK_LOG_INFO("\n  file_size=%lld", static_cast<long long>(status.st_size));
    return status.st_size;
}

bool begins_with(const char *text, const char *prefix) {
    return !strncmp(text, prefix, strlen(prefix));
}

} // namespace

int Tavrik_Upgrade_Through_SD(const char *path) {
    if (!path) {
        TAVRIK_LOG_ERROR("url is null");
        return -1;
    }
    const int64_t size = get_pkg_size(path);
    if (size < 0) {
        TAVRIK_LOG_ERROR("get pkg size failed!");
        return -1;
    }
    BusConnection bus(kDownloadMs);
    if (!bus.open()) {
        {
            const SigpipeBlocked blocked;
            fputs("Failed to connect to ubus\n", stderr);
        }
        TAVRIK_LOG_ERROR("Failed to connect to ubus");
        return -1;
    }
    DownloadRequest request;
    request.number("type", kFromStorage);
    request.number("size", static_cast<uint32_t>(size));
    request.text("url", path);
    request.text("username", "");
    request.text("password", "");
    request.number("sync", kSync);
    uint32_t ota;
    if (!request.ok || bus.lookup("ota", &ota)) {
        TAVRIK_LOG_ERROR("ubus lookup ota id failed!");
        return -1;
    }
    TAVRIK_LOG_INFO("\n  upgrade_through_sd(): Please wait 30s,please reboot when Upgrade successfully");
    if (bus.invoke(ota, "download", request.head(), nullptr, nullptr)) {
        TAVRIK_LOG_ERROR(" ubus_invoke OTA failed ");
        return -1;
    }
    return 0;
}

int Tavrik_Upgrade_Through_HTTP(const char *url) {
    if (!url) {
        TAVRIK_LOG_ERROR(" Param is NULL");
        return -1;
    }
    if (!*url) {
        TAVRIK_LOG_ERROR("Param is error");
        return -1;
    }
    if (!begins_with(url, "http://") && !begins_with(url, "https://")) {
        TAVRIK_LOG_ERROR(" Please add http or https when entering url parameters");
        return -1;
    }
    if (query_http_file_is_exist(url)) {
        TAVRIK_LOG_ERROR("This url can't get upgrde package");
        return -1;
    }
    BusConnection bus(kDownloadMs);
    if (!bus.open()) {
        TAVRIK_LOG_ERROR("Failed to connect to ubus");
        return -1;
    }
    DownloadRequest request;
    request.number("type", kFromUrl);
    request.text("url", url);
    request.number("sync", kSync);
    uint32_t ota;
    if (!request.ok || bus.lookup("ota", &ota))
        return -1;
    TAVRIK_LOG_INFO(" Please wait for some time until appear hint");
    return bus.invoke(ota, "download", request.head(), nullptr, nullptr) ? -1 : 0;
}
