// Reply handlers for data calls that the application makes through the radio interface layer. They run inside the
// application's request or on the loop thread, with no lock held.
#include "core/log.h"
#include "core/uci_store.h"
#include "datacall/cid_table.h"
#include "datacall/names.h"
#include "datacall/statistics.h"
#include "tavrik_sdk.h"
#include "ubus/ril.h"

#include <endian.h>
#include <initializer_list>
#include <stdlib.h>
#include <string.h>

using namespace tavrik;

namespace {

constexpr uint32_t kCallList = 57, kCallSetUp = 596;
constexpr uint8_t kFailed = 255; // in place of the profile's index

// As the service writes it, wherever the reply has put it.
RilDataCall call_at(const RilReply &reply, size_t index) {
    RilDataCall call;
    memcpy(&call, static_cast<const char *>(reply.data) + index * sizeof call, sizeof call);
    for (int32_t *word : {&call.status, &call.retry_time, &call.cid, &call.active})
        *word = int32_t(le32toh(uint32_t(*word)));
    return call;
}

// A field's text, with a terminator.
template <size_t size>
struct Text {
    explicit Text(const char (&field)[size]) { snprintf(text, sizeof text, "%.*s", int(size), field); }
    char text[size + 1];
};

void mark_profiles_of(const RilDataCall &call, const UciStore &profiles) {
    const Text<sizeof call.apn> called(call.apn);
    for (uci_section *section = profiles.next(); section; section = profiles.next(section)) {
        const char *const apn = UciStore::text(section, "apn");
        if (apn && strstr(called.text, apn) && has_interface(call.cid))
            set_context(atoi(UciStore::name(section)), call.cid);
    }
}

void configure(const RilDataCall &call, int profile_idx, Site site = Site::here()) {
    Tavrik_DataCallInfo info = {};
    info.cid = has_interface(call.cid) ? uint8_t(call.cid) : 0;
    const Text<sizeof call.ifname> reported(call.ifname);
    const ContextName own("ccinet", call.cid);
    snprintf(info.ifname, sizeof info.ifname, "%.15s", call.cid ? own.text : reported.text);
    info.ip_type = data_convert_ip_proto(Text<sizeof call.type>(call.type).text);
    log(Level::info, site, "idx:%d, ifname:%s, iptype:%d", profile_idx, LogText(reported.text).c_str(),
        int(info.ip_type));
    Tavrik_PdpText texts;
    memcpy(texts.addr, call.addr, sizeof texts.addr);
    memcpy(texts.gateway, call.gateway, sizeof texts.gateway);
    memcpy(texts.dns, call.dns, sizeof texts.dns);
    memcpy(texts.submask, call.submask, sizeof texts.submask);
    for (const char *key : {"addr", "dns", "gateway", "submask"})
        data_configure_pdp_info(&info, &texts, key);
    data_config_ip_info(info, 1);
}

// Counters for a context that has none.
void add_counters(int cid, Site site = Site::here()) {
    UciStore store(site);
    if (!open_statistics(store) || store.section(ContextName("ccinet", cid).text))
        return;
    zero_counters(store, cid);
    store.commit();
}

} // namespace

void DataCall_Init_cb(ubus_request *, int, blob_attr *message) {
    const RilReply reply(message);
    if (!reply.parsed) {
        TAVRIK_LOG_ERROR("Parse failed");
        return;
    }
    if (!reply.data)
        TAVRIK_LOG_DEBUG(" response_data is NULL");
    UciStore profiles;
    if (!profiles.allocated() || !profiles.load("data_profile")) {
        TAVRIK_LOG_ERROR("uci_load failed");
        return;
    }
    if (reply.error) {
        TAVRIK_LOG_ERROR(" rilerrno: %d", int(reply.error));
        return;
    }
    if (reply.id != kCallList) {
        TAVRIK_LOG_ERROR(" The response not for the request");
        return;
    }
    for (size_t i = 0; i < reply.length / sizeof(RilDataCall); ++i)
        mark_profiles_of(call_at(reply, i), profiles);
}

void DataCall_Start_cb(ubus_request *request, int, blob_attr *message) {
    auto *const profile = request ? static_cast<uint8_t *>(request->priv) : nullptr;
    if (!profile) {
        TAVRIK_LOG_ERROR("error, %d", __LINE__);
        return;
    }
    const RilReply reply(message);
    if (!reply.data || (!reply.error && reply.id == kCallSetUp && reply.length < sizeof(RilDataCall))) {
        TAVRIK_LOG_ERROR(" null response data");
        *profile = kFailed;
        return;
    }
    if (reply.id != kCallSetUp) {
        TAVRIK_LOG_ERROR(" The response not for the request");
        return;
    }
    if (reply.error) {
        TAVRIK_LOG_ERROR(" errorNo %d", int(reply.error));
        return;
    }
    const RilDataCall call = call_at(reply, 0);
    if (call.status) {
        TAVRIK_LOG_ERROR("Setup datacall with cause:%d", int(call.status));
        *profile = kFailed;
        return;
    }
    configure(call, *profile);
    if (has_interface(call.cid))
        add_counters(call.cid);
    TAVRIK_LOG_INFO("start %d pdp with %u profile", int(call.cid), *profile);
    if (has_interface(call.cid))
        set_context(*profile, call.cid);
}

void DataCall_Stop_cb(ubus_request *, int, blob_attr *) {
    TAVRIK_LOG_INFO(" deactive data call done");
}
