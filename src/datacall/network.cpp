// A context's addresses in the store of the network service: packages network and dhcp.
#include "core/log.h"
#include "core/sync.h"
#include "core/uci_store.h"
#include "datacall/names.h"
#include "datacall/netmask.h"
#include "tavrik_sdk.h"

#include <arpa/inet.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

using namespace tavrik;

namespace {

constexpr int kRetries = 3;

bool can_configure(int cid, Site site = Site::here()) {
    if (!has_interface(cid))
        log(Level::warning, site, "no network interface has context %d", cid);
    return has_interface(cid);
}

bool wants_ipv6(int ip_type) {
    return ip_type == 6 || ip_type == 10;
}

bool is_there(const UciStore &store, const ContextName &section, Site site = Site::here()) {
    const bool found = store.section(section.text);
    if (!found)
        log(Level::warning, site, "no section %s", section.text);
    return found;
}

struct IpText {
    IpText(int family, const void *address) { inet_ntop(family, address, text, sizeof text); }
    explicit IpText(uint32_t address) : IpText(AF_INET, &address) {}
    char text[TAVRIK_IP_TEXT_SIZE];
};

void set_ipv4_route(UciStore &store, const char *wan, const Tavrik_DataCallInfo &info, Site site) {
    uint32_t gateway = info.ipv4_gateway;
    if (!gateway) {
        log(Level::warning, site, " gateway is NULL, will use IP address as gateway");
        gateway = info.ipv4_addr;
    }
    store.set(wan, "gateway", IpText(gateway).text);
    uint8_t octets[4];
    memcpy(octets, &gateway, sizeof octets);
    store.set(wan, "netmask", IpText(AF_INET, netmask_for(octets[2], octets[3], info.netmask_end[3]).dotted).text);
}

void set_dns(UciStore &store, const char *wan, const Tavrik_DataCallInfo &info, Site site) {
    if (store.has(wan, "dns")) {
        log(Level::warning, site, " delete DNS ");
        store.remove(wan, "dns"); // a text, too: with each call it would grow by one
    }
    if (info.ip_type == 4 || info.ip_type == 10) {
        store.add(wan, "dns", IpText(info.ipv4_dns2).text);
        store.add(wan, "dns", IpText(info.ipv4_dns1).text);
    }
    if (!wants_ipv6(info.ip_type))
        return;
    // Programs on the module expect these very bytes, which are not those of the IPv6 servers.
    const auto *const record = reinterpret_cast<const char *>(&info);
    const IpText primary(AF_INET6, record + offsetof(Tavrik_DataCallInfo, ipv4_dns1));
    log(Level::warning, site, " add V6 PrimaryDNS : %s", primary.text);
    store.add(wan, "dns", primary.text);
    const IpText secondary(AF_INET6, record + offsetof(Tavrik_DataCallInfo, ipv4_dns2));
    log(Level::warning, site, " add V6 SecondaryDNS : %s", secondary.text);
    store.add(wan, "dns", secondary.text);
}

void set_link_local(UciStore &store, const char *wan, const Tavrik_DataCallInfo &info, Site site) {
    uint8_t address[16] = {0xfe, 0x80};
    memcpy(address + 8, info.ipv6_addr + 8, 8);
    char text[TAVRIK_IP_TEXT_SIZE + 4];
    snprintf(text, sizeof text, "%s/64", IpText(AF_INET6, address).text);
    log(Level::warning, site, " add ipv6addr : %s", text);
    store.set(wan, "ip6addr", text);
}

void set_wan(UciStore &store, const char *wan, const Tavrik_DataCallInfo &info, int dedicate,
             Site site = Site::here()) {
    char number[12];
    snprintf(number, sizeof number, "%d", dedicate);
    store.set(wan, "proto", "static");
    store.set(wan, "auto", "1");
    store.set(wan, "dedicate", number);
    if (info.ip_type == 4 || info.ip_type == 10)
        store.set(wan, "ipaddr", IpText(info.ipv4_addr).text);
    set_ipv4_route(store, wan, info, site);
    set_dns(store, wan, info, site);
    if (wants_ipv6(info.ip_type))
        set_link_local(store, wan, info, site);
}

constexpr char kNoContext[] = " fail to get uci ctx";

// Takes options out of the sections that there are. 0 or -1.
struct Written {
    const char *prefix, *option;
};
template <size_t count>
int remove_options(const char *package, int cid, const Written (&options)[count], const char *unloadable,
                   Site site = Site::here()) {
    UciStore store(site);
    if (!store.open(package, kNoContext, unloadable))
        return -1;
    for (const Written &row : options)
        store.remove(ContextName(row.prefix, cid).text, row.option);
    return store.commit();
}

void bring_up(int cid, int ip_type, Site site = Site::here()) {
    for (int count = 0; data_send_if_command(cid - 1, 1, ip_type); ++count) {
        log(Level::error, site, " ccinet%d up failed", cid - 1);
        if (count == kRetries)
            return;
        log(Level::debug, site, "count++");
        sleep_ms(200);
    }
}

} // namespace

void data_config_network_info(Tavrik_DataCallInfo info, int dedicate) {
    if (!can_configure(info.cid))
        return;
    UciStore store;
    if (!store.open("network", kNoContext, " load network file failed"))
        return;
    const ContextName wan("wan", info.cid), wan6("wan6", info.cid);
    if (is_there(store, wan))
        set_wan(store, wan.text, info, dedicate);
    if (wants_ipv6(info.ip_type) && is_there(store, wan6))
        store.set(wan6.text, "auto", "1");
    if (!store.commit())
        TAVRIK_LOG_INFO("dc_config_network_info done");
}

void data_config_dhcp_info(Tavrik_DataCallInfo info, int) {
    if (!can_configure(info.cid))
        return;
    UciStore store;
    if (!store.open("dhcp", kNoContext, " load dhcp file failed"))
        return;
    TAVRIK_LOG_INFO(" start to configure dhcp to master 1 ra relay ndp realy");
    const ContextName wan("wan", info.cid);
    if (store.section(wan.text)) {
        store.set(wan.text, "master", "1");
        store.set(wan.text, "ra", "relay");
        store.set(wan.text, "ndp", "relay");
    }
    if (!store.commit())
        TAVRIK_LOG_INFO("dc_config_dhcp_info done");
}

int data_delete_ip_info(int cid) {
    if (!can_configure(cid))
        return -1;
    constexpr Written kNetwork[] = {{"wan", "proto"},  {"wan", "auto"},    {"wan", "dedicate"},
                                    {"wan", "ipaddr"}, {"wan", "gateway"}, {"wan", "netmask"},
                                    {"wan", "dns"},    {"wan", "ip6addr"}, {"wan6", "auto"}};
    constexpr Written kDhcp[] = {{"wan", "master"}, {"wan", "ra"}, {"wan", "ndp"}};
    int result = remove_options("network", cid, kNetwork, " load network file failed");
    result |= remove_options("dhcp", cid, kDhcp, " load dhcp file failed");
    return result | data_reload_network();
}

void data_config_ip_info(Tavrik_DataCallInfo info, int dedicate) {
    if (dedicate != 1 || !can_configure(info.cid))
        return;
    data_config_network_info(info, dedicate);
    data_config_dhcp_info(info, dedicate);
    data_reload_network();
    sleep_ms(200);
    data_up_down_br_lan(1, "lan");
    sleep_ms(100);
    bring_up(info.cid, 4);
    if (wants_ipv6(info.ip_type)) {
        sleep_ms(200);
        bring_up(info.cid, 6);
    }
}
