// Data profiles: the uci package data_profile, a section for each index.
#include "datacall/profile.h"
#include "core/at_command.h"
#include "core/log.h"
#include "core/text.h"
#include "core/uci_store.h"
#include "datacall/cid_table.h"
#include "tavrik_sdk.h"

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

extern "C" {
#include <uci.h>
}

static_assert(sizeof(Tavrik_DataProfile) == 204 && offsetof(Tavrik_DataProfile, pdp_type) == 4 &&
                  offsetof(Tavrik_DataProfile, apn) == 8 && offsetof(Tavrik_DataProfile, auth_type) == 72 &&
                  offsetof(Tavrik_DataProfile, usr_name) == 76 && offsetof(Tavrik_DataProfile, password) == 140,
              "layout that applications were built with");

namespace {

constexpr unsigned kProfiles = 16, kPdpTypes = 4, kAuthTypes = 4;
constexpr size_t kValueSize = 64;
constexpr char kSectionType[] = "profile_idx";

struct SectionName {
    explicit SectionName(unsigned index) { snprintf(text, sizeof text, "%u", index); }
    char text[12];
};

// A field's text; one that fills it has no terminator.
struct Value {
    explicit Value(const char *field) { snprintf(text, sizeof text, "%.*s", int(kValueSize) - 1, field); }
    explicit Value(uint32_t number) { snprintf(text, sizeof text, "%d", int(number)); }
    char text[kValueSize] = {};
};

} // namespace

int set_uci_element(uci_context *context, const char *package, const char *section, const char *option,
                    const char *value) {
    if (!context || !package || !section || !value) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    const tavrik::UciLock lock;
    if (!lock)
        return -1;
    uci_ptr element = {};
    element.package = package;
    element.section = section;
    element.option = option;
    element.value = value;
    return uci_set(context, &element);
}

int Tavrik_DataCall_SetProfile(const Tavrik_DataProfile *profile) {
    if (!profile || profile->profile_idx >= kProfiles || profile->pdp_type >= kPdpTypes ||
        profile->auth_type >= kAuthTypes) {
        TAVRIK_LOG_ERROR("error parameter");
        return -1;
    }
    const struct {
        const char *option;
        Value value;
    } rows[] = {{"pdp_type", Value(profile->pdp_type)},
                {"apn", Value(profile->apn)},
                {"auth_type", Value(profile->auth_type)},
                {"usr_name", Value(profile->usr_name)},
                {"password", Value(profile->password)}};
    for (const auto &row : rows)
        if (!uci_validate_text(row.value.text)) { // the store would silently keep the old value
            TAVRIK_LOG_ERROR("error parameter");
            return -1;
        }

    tavrik::UciStore store;
    if (!store.open("data_profile", "uci_alloc_context faild", "uci_load failed."))
        return -1;
    uci_section *section = store.next();
    while (section && atoi(store.name(section)) != profile->profile_idx)
        section = store.next(section);
    const SectionName name(profile->profile_idx);
    if (!section) {
        TAVRIK_LOG_DEBUG("%d, set_value:%s", __LINE__, name.text);
        store.set(name.text, nullptr, kSectionType);
        if (store.commit())
            return -1;
    }
    // Into the section of this very name, even if another one reads as the same number: without it the commit fails.
    for (const auto &row : rows)
        store.set(name.text, row.option, row.value.text);
    return store.commit();
}

int Tavrik_DataCall_DeleteProfile(int profile_idx) {
    tavrik::UciStore store;
    if (!store.open("data_profile", "uci_alloc_context faild", "uci_load failed."))
        return -1;
    const SectionName name{unsigned(profile_idx)};
    if (!store.section(name.text))
        return 0;
    store.remove(name.text, nullptr);
    return store.commit();
}

bool tavrik::read_profile(uci_section *section, Tavrik_DataProfile *profile, Site site) {
    bool complete = true;
    const auto read = [&](const char *option, char *field, uint32_t *number) {
        const char *const text = UciStore::text(section, option);
        if (!text) {
            log(Level::warning, site, "lookup option faild");
            complete = false;
            return;
        }
        const Value value(text);
        if (number)
            *number = uint32_t(atoi(value.text));
        else
            memcpy(field, value.text, sizeof value.text);
    };
    read("pdp_type", nullptr, &profile->pdp_type);
    read("apn", profile->apn, nullptr);
    read("auth_type", nullptr, &profile->auth_type);
    read("usr_name", profile->usr_name, nullptr);
    read("password", profile->password, nullptr);
    return complete;
}

int Tavrik_DataCall_GetProfile(int profile_idx, Tavrik_DataProfile *profile) {
    if (!profile) {
        TAVRIK_LOG_ERROR("error parameter");
        return -1;
    }
    tavrik::UciStore store;
    if (!store.open("data_profile", "uci_alloc_context faild", "uci_load failed."))
        return -1;
    const SectionName name{unsigned(profile_idx)};
    if (uci_section *const section = store.section(name.text)) {
        TAVRIK_LOG_DEBUG("section name:%s", name.text);
        tavrik::read_profile(section, profile);
    } else {
        TAVRIK_LOG_ERROR("%d, no such profile_idx", __LINE__);
        memset(reinterpret_cast<char *>(profile) + 1, 0, sizeof *profile - 1);
    }
    profile->profile_idx = uint8_t(profile_idx);
    return 0;
}

void Tavrik_profile_idx_cid_Init(void) {
    tavrik::AtCommand at = tavrik::data_call_command();
    if (at.send("AT+CGCONTRDP=?"))
        TAVRIK_LOG_WARNING("Failed to define pdp %s", at.command());
    char *const list = strstr(at.answer(), "CGCONTRDP:");
    if (!list) {
        TAVRIK_LOG_DEBUG("no pdp alive");
        return;
    }
    char *const open = strchr(list, '(');
    char *const close = open ? strchr(open, ')') : nullptr;
    if (!close) {
        TAVRIK_LOG_ERROR("error response");
        return;
    }
    *close = 0;
    char cids[128];
    snprintf(cids, sizeof cids, "%s", open + 1);
    const char *next = cids;
    for (int count = 0; count < TAVRIK_IDX_CID_COUNT; ++count) {
        char *end;
        const int cid = tavrik::decimal(next, &end);
        if (end == next)
            break;
        if (cid > 0)
            tavrik::set_context(cid - 1, cid);
        next += strcspn(next, ", "); // a range counts as its first
        next += strspn(next, ", ");
    }
}

int data_convert_ip_proto(const char *type) {
    constexpr struct {
        const char *name;
        int family;
    } kTypes[] = {{"IP", 4}, {"IPV6", 6}, {"IPV4V6", 10}};
    if (!type)
        return 0;
    for (const auto &row : kTypes)
        if (!strcasecmp(type, row.name))
            return row.family;
    TAVRIK_LOG_ERROR("unexcept IP TYPE[%s]", tavrik::LogText(type).c_str());
    return 0;
}
