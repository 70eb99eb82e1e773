// Addresses from a modem's texts into records.
#include "core/log.h"
#include "tavrik_sdk.h"

#include <arpa/inet.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

using namespace tavrik;

static_assert(sizeof(Tavrik_DataCallInfo) == 128 && offsetof(Tavrik_DataCallInfo, ifname) == 12 &&
                  offsetof(Tavrik_DataCallInfo, ip_type) == 28 && offsetof(Tavrik_DataCallInfo, ipv4_addr) == 32 &&
                  offsetof(Tavrik_DataCallInfo, ipv4_netmask) == 36 &&
                  offsetof(Tavrik_DataCallInfo, ipv4_gateway) == 40 &&
                  offsetof(Tavrik_DataCallInfo, netmask_end) == 44 && offsetof(Tavrik_DataCallInfo, ipv4_dns1) == 48 &&
                  offsetof(Tavrik_DataCallInfo, ipv4_dns2) == 52 && offsetof(Tavrik_DataCallInfo, ipv6_addr) == 56 &&
                  offsetof(Tavrik_DataCallInfo, ipv6_gateway) == 76 && offsetof(Tavrik_DataCallInfo, ipv6_dns1) == 96 &&
                  offsetof(Tavrik_DataCallInfo, ipv6_dns2) == 112,
              "layout that applications were built with");
static_assert(sizeof(Tavrik_PdpText) == 4 * TAVRIK_PDP_TEXT_SIZE, "layout that applications were built with");

namespace {

// Where the addresses of one kind go; NULL for no more.
struct Places {
    void *by_family[2][2]; // IPv4, IPv6

    void fill(const char (&field)[TAVRIK_PDP_TEXT_SIZE]) const {
        char text[sizeof field + 1];
        snprintf(text, sizeof text, "%.*s", int(sizeof field), field);
        char *rest = text;
        int filled[2] = {};
        while (const char *const address = strsep(&rest, " ")) {
            const int family = strchr(address, ':') != nullptr;
            int &next = filled[family];
            void *const place = next < 2 ? by_family[family][next] : nullptr;
            uint8_t bytes[16];
            if (!place || inet_pton(family ? AF_INET6 : AF_INET, address, bytes) != 1)
                continue;
            memcpy(place, bytes, family ? 16 : 4);
            ++next;
        }
    }
};

} // namespace

int data_configure_pdp_info(Tavrik_DataCallInfo *info, const Tavrik_PdpText *texts, const char *key) {
    if (!info || !texts || !key) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    const bool ipv4 = info->ip_type == 4 || info->ip_type == 10;
    const bool ipv6 = info->ip_type == 6 || info->ip_type == 10;
    const struct {
        const char *key;
        const char (&text)[TAVRIK_PDP_TEXT_SIZE];
        Places places;
    } rows[] = {{"addr", texts->addr, {{{&info->ipv4_addr}, {info->ipv6_addr}}}},
                {"gateway", texts->gateway, {{{&info->ipv4_gateway}, {info->ipv6_gateway}}}},
                {"dns", texts->dns, {{{&info->ipv4_dns1, &info->ipv4_dns2}, {info->ipv6_dns1, info->ipv6_dns2}}}},
                {"submask", texts->submask, {{{&info->ipv4_netmask}, {}}}}};
    for (auto row : rows) {
        if (strcmp(row.key, key) != 0)
            continue;
        if (!ipv4)
            row.places.by_family[0][0] = nullptr;
        if (!ipv6)
            row.places.by_family[1][0] = nullptr;
        row.places.fill(row.text);
    }
    return 0;
}
