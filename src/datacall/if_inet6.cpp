#include "datacall/if_inet6.h"

#include "core/log.h"
#include "tavrik_sdk.h"

#include <stdio.h>
#include <string.h>

using namespace tavrik;

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
