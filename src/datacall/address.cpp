// Addresses: from texts of the modem into records and into their usual form, and from the kernel's list.
#include "core/log.h"
#include "core/sync.h"
#include "datacall/if_inet6.h"
#include "tavrik_sdk.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
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
        if (strcmp(row.key, key))
            continue;
        if (!ipv4)
            row.places.by_family[0][0] = nullptr;
        if (!ipv6)
            row.places.by_family[1][0] = nullptr;
        row.places.fill(row.text);
    }
    return 0;
}

bool InterfaceAddress::parse(const char *line) {
    char groups[8][5];
    unsigned index, flags;
    if (sscanf(line, "%4s%4s%4s%4s%4s%4s%4s%4s %08x %02x %02x %02x %19s", groups[0], groups[1], groups[2], groups[3],
               groups[4], groups[5], groups[6], groups[7], &index, &prefix, &scope, &flags, ifname) != 13)
        return false;
    snprintf(text, sizeof text, "%s:%s:%s:%s:%s:%s:%s:%s", groups[0], groups[1], groups[2], groups[3], groups[4],
             groups[5], groups[6], groups[7]);
    return true;
}

int data_get_interface_addr6(const char *ifname, char *out, int size) {
    if (!ifname || !out || size <= 0) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    FILE *const list = fopen("/proc/net/if_inet6", "re");
    if (!list) {
        TAVRIK_LOG_ERROR(" open if_inet6 faild");
        return -1;
    }
    InterfaceAddress address;
    char line[128];
    bool found = false;
    while (!found && fgets(line, sizeof line, list))
        found = address.parse(line) && address.global() && !strcmp(address.ifname, ifname);
    fclose(list);
    if (!found)
        return -1;
    snprintf(out, size_t(size), "%s", address.text);
    TAVRIK_LOG_INFO("%s Global inet6 addr: %s/%d", ifname, address.text, int(address.prefix));
    return 0;
}

int data_charCountInStr(const char *text, char character) {
    if (!text) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    int count = 0;
    for (; *text; ++text)
        count += *text == character;
    return count;
}

int data_convertDotNotation2IpString(const char *dotted, char *out) {
    if (!dotted || !out) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    constexpr int kMost = 32;
    const int count = data_charCountInStr(dotted, '.') + 1;
    if (count != 4 && count != 8 && count != 16 && count != kMost)
        return -1;
    uint8_t bytes[kMost];
    const char *next = dotted;
    for (int i = 0; i < count; ++i) {
        int number = 0, digits = 0;
        for (; isdigit(static_cast<unsigned char>(*next)) && digits < 3; ++next, ++digits)
            number = number * 10 + (*next - '0');
        if (!digits || number > 255 || *next != (i == count - 1 ? '\0' : '.'))
            return -1;
        bytes[i] = uint8_t(number);
        ++next;
    }
    inet_ntop(count <= 8 ? AF_INET : AF_INET6, bytes, out, TAVRIK_IP_TEXT_SIZE);
    return 0;
}
