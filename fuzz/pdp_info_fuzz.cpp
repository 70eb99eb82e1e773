// A modem's address texts, taken into a record.
#include "fuzz.h"
#include "tavrik_sdk.h"

#include <cstring>

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int kTypes[] = {4, 6, 10, 0};
    fuzz::Input input(data, size);
    const int type = kTypes[input.byte() & 3];
    std::string text = input.rest();
    Tavrik_PdpText texts;
    text.resize(sizeof texts);
    memcpy(&texts, text.data(), sizeof texts);
    Tavrik_DataCallInfo info = {}, before;
    info.cid = 1;
    info.ip_type = uint8_t(type);
    memset(info.netmask_end, 0x5A, sizeof info.netmask_end);
    before = info;
    for (const char *key : {"addr", "gateway", "dns", "submask", "x"})
        fuzz::check(!data_configure_pdp_info(&info, &texts, key));
    fuzz::check(!memcmp(&info, &before, offsetof(Tavrik_DataCallInfo, ipv4_addr)));
    fuzz::check(!memcmp(info.netmask_end, before.netmask_end, sizeof info.netmask_end));
    fuzz::check(type == 4 || type == 10 || (!info.ipv4_addr && !info.ipv4_gateway && !info.ipv4_netmask));
    fuzz::check(type == 6 || type == 10 || !memcmp(info.ipv6_addr, before.ipv6_addr, sizeof info.ipv6_addr));
    fuzz::check(data_configure_pdp_info(nullptr, &texts, "addr") == -1);
    return 0;
}
