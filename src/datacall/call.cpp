// Data calls by the modem's own commands: a stored profile's context is defined and activated, and taken away.
#include "core/log.h"
#include "core/uci_store.h"
#include "datacall/cid_table.h"
#include "datacall/profile.h"
#include "datacall/statistics.h"
#include "tavrik_sdk.h"

#include <fcntl.h>
#include <initializer_list>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

using namespace tavrik;

static_assert(sizeof(Tavrik_DataCallReq) == 2 && offsetof(Tavrik_DataCallReq, reconnect) == 1,
              "layout that applications were built with");

uint8_t g_datacll_init_flag;
uint32_t g_datacall_ind_thread_id;

namespace {

constexpr unsigned kLastProfile = 15;
constexpr int kBadRequest = 1; // to the caller's error code

bool initialised() {
    return __atomic_load_n(&g_datacll_init_flag, __ATOMIC_ACQUIRE);
}

void set_initialised(bool now) {
    __atomic_store_n(&g_datacll_init_flag, uint8_t(now), __ATOMIC_RELEASE);
}

// There is a file, an empty one if need be. Logs for the caller when not.
bool file_is_there(const char *path, mode_t mode, Site site = Site::here()) {
    if (!access(path, F_OK) || Fd(open(path, O_WRONLY | O_CREAT | O_CLOEXEC, mode)))
        return true;
    log(Level::error, site, "touch file faild");
    return false;
}

// Those of every context that is up. 0 or -1.
int zero_all_counters(Site site = Site::here()) {
    UciStore store(site);
    if (!open_statistics(store))
        return -1;
    bool any = false;
    for (int i = 0; i < TAVRIK_IDX_CID_COUNT; ++i)
        if (const int cid = context_of(i)) {
            zero_counters(store, cid);
            any = true;
        }
    return any ? store.commit() : 0;
}

// A stored profile; what it does not hold is "" and 0. Logs for the caller. -1 without the profile.
int load_profile(unsigned index, Tavrik_DataProfile &profile, int *error, Site site = Site::here()) {
    UciStore store(site);
    if (!store.open("data_profile", "uci_alloc_context faild", "uci_load failed"))
        return -1;
    char name[12];
    snprintf(name, sizeof name, "%u", index);
    uci_section *const section = store.section(name);
    if (!section) {
        log(Level::error, site, "%d, no such profile_idx", site.line);
        *error = kBadRequest;
        return -1;
    }
    read_profile(section, &profile, site);
    return 0;
}

const char *pdp_type(uint32_t stored) {
    return stored == 2 ? "IPV6" : stored == 3 ? "IPV4V6" : "IP";
}

// A quote would end the name in the command, and a line end the command itself.
bool fits_a_command(const char *apn) {
    for (; *apn; ++apn)
        if (static_cast<unsigned char>(*apn) < ' ' || *apn == '"' || *apn == 0x7F)
            return false;
    return true;
}

} // namespace

int Tavrik_DataCall_Init(Tavrik_DataCb callback) {
    if (tavrik_ubus_init()) {
        TAVRIK_LOG_ERROR("ubus init failed!");
        return -1;
    }
    if (Tavrik_AT_Init()) {
        TAVRIK_LOG_ERROR("Tavrik AT init failed!");
        return -1;
    }
    if (initialised()) {
        TAVRIK_LOG_WARNING("datacall has been already inited");
        return 0;
    }
    for (const char *package : {"data_profile", kStatistics, "network", "dhcp"})
        UciStore::remove_leftovers(package);
    if (!file_is_there("/etc/config/data_profile", 0600) || !file_is_there(kStatistics, 0644))
        return -1;
    {
        UciStore store; // whether it is usable; the modem is asked without it
        if (!open_statistics(store))
            return -1;
    }
    Tavrik_profile_idx_cid_Init();
    if (zero_all_counters())
        return -1;
    if (callback && tavrik_indication_register(TAVRIK_IND_DATA, reinterpret_cast<Tavrik_IndicationCb>(callback))) {
        TAVRIK_LOG_ERROR("sms indication register failed");
        return -1;
    }
    set_initialised(true);
    return 0;
}

int Tavrik_DataCall_Destroy(void) {
    if (!initialised()) {
        TAVRIK_LOG_WARNING("datacall not init");
        return -1;
    }
    if (tavrik_indication_datacallderegister())
        TAVRIK_LOG_ERROR("datacall indication deregister failed");
    clear_contexts();
    set_initialised(false);
    return 0;
}

int Tavrik_DataCall_Start(const Tavrik_DataCallReq *request, int *error) {
    if (!request || !error) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    const unsigned index = request->profile_idx;
    if (index > kLastProfile || request->reconnect) {
        *error = kBadRequest;
        return -1;
    }
    Tavrik_DataProfile profile = {};
    if (load_profile(index, profile, error))
        return -1;
    TAVRIK_LOG_DEBUG("apn:%s, ip_type:%d, auth_type:%d, username:%s, password:%s, reconnect:%d",
                     LogText(profile.apn).c_str(), int(profile.pdp_type), int(profile.auth_type),
                     LogText(profile.usr_name).c_str(), LogText(profile.password).c_str(), request->reconnect);
    const int cid = int(index) + 1;
    char definition[128];
    snprintf(definition, sizeof definition, "AT*ZGDCONT=%d,\"%s\",\"%s\",%d", cid, pdp_type(profile.pdp_type),
             profile.apn, index != 0);
    if (!fits_a_command(profile.apn) || data_call_command().send("%s", definition)) {
        TAVRIK_LOG_ERROR("Failed to define pdp %s", LogText(definition).c_str());
        return -1;
    }
    AtCommand at = data_call_command();
    if (at.send("AT+ZGACT=1,%d", cid)) {
        TAVRIK_LOG_ERROR("Failed to atctive pdp %s", at.command());
        return -1;
    }
    set_context(int(index), cid);
    return 0;
}

int Tavrik_DataCall_Stop(unsigned profile_idx, int *error) {
    if (!error) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    if (profile_idx > kLastProfile) {
        *error = kBadRequest;
        return -1;
    }
    const int cid = int(profile_idx) + 1;
    AtCommand deactivation = data_call_command();
    if (deactivation.send("AT+ZGACT=0,%d", cid)) {
        TAVRIK_LOG_ERROR("Failed to atctive pdp %s", deactivation.command());
        return -1;
    }
    AtCommand at = data_call_command();
    if (at.send("AT*ZGDCONT=%d", cid))
        TAVRIK_LOG_WARNING("Failed to atctive pdp %s", at.command());
    set_context(int(profile_idx), 0);
    return 0;
}
