// What data calls take in from modem, radio interface layer and kernel: address texts, dotted notation, lines of
// /proc/net/if_inet6, and records of calls.
#include "datacall/if_inet6.h"
#include "fuzz.h"
#include "tavrik_sdk.h"
#include "ubus/ril.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// An /etc of its own, with profiles for calls to match; nothing of the machine's is read or written.
const bool g_own_etc = [] {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWNET) || mount("none", "/etc", "tmpfs", 0, nullptr))
        return false;
    mkdir("/etc/config", 0755);
    const int fd = open("/etc/config/data_profile", O_WRONLY | O_CREAT, 0600);
    const char text[] = "config profile_idx '0'\n\toption apn 'a'\nconfig profile_idx '14'\n\toption apn 'net'\n"
                        "config profile_idx '15'\n\toption apn 'a'\nconfig profile_idx 'x'\n\tlist apn 'a'\n";
    const bool written = write(fd, text, sizeof text - 1) == sizeof text - 1;
    close(fd);
    return written;
}();

void configure(int type, std::string text) {
    Tavrik_PdpText texts;
    text.resize(sizeof texts);
    memcpy(&texts, text.data(), sizeof texts);
    Tavrik_DataCallInfo info = {};
    info.ip_type = type;
    info.netmask_end[0] = 0x5A;
    for (const char *key : {"addr", "gateway", "dns", "submask", texts.addr[0] ? "" : "x"})
        data_configure_pdp_info(&info, &texts, key);
    if (info.ip_type != type || info.netmask_end[0] != 0x5A || info.cid || info.reserved2 || info.reserved3)
        abort();
}

void convert(const std::string &dotted) {
    char out[TAVRIK_IP_TEXT_SIZE] = "";
    in6_addr address;
    const int dots = data_charCountInStr(dotted.c_str(), '.');
    if (!data_convertDotNotation2IpString(dotted.c_str(), out) &&
        inet_pton(dots == 3 || dots == 7 ? AF_INET : AF_INET6, out, &address) != 1)
        abort();
}

void read_line(const std::string &line) {
    tavrik::InterfaceAddress address;
    if (address.parse(line.c_str()) && (strlen(address.text) > 39 || strlen(address.ifname) > 19))
        abort();
}

void handle(uint32_t id, int32_t error, std::string data) {
    // A context with an interface would have the network configured, which takes half a second.
    for (size_t at = offsetof(RilDataCall, cid); id == 596 && at + 4 <= data.size(); at += sizeof(RilDataCall)) {
        int32_t cid;
        memcpy(&cid, &data[at], sizeof cid);
        if (cid > 0 && cid < 16)
            data[at] = 0;
    }
    tavrik::BlobBuf reply;
    if (!reply.ok || rilutil_make_reply(&reply.buf, id, error, data.empty() ? nullptr : data.data(), data.size()))
        return;
    uint8_t profile = 3;
    ubus_request request = {};
    request.priv = &profile;
    DataCall_Start_cb(&request, 0, reply.head());
    DataCall_Init_cb(nullptr, 0, reply.head());
    for (int i = 0; i < TAVRIK_IDX_CID_COUNT; ++i)
        if (g_idx_cid[i].cid < 0 || g_idx_cid[i].cid > TAVRIK_IDX_CID_COUNT)
            abort();
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int kTypes[] = {4, 6, 10, 0};
    fuzz::Input input(data, size);
    const unsigned how = input.byte();
    switch (how & 3) {
    case 0:
        configure(kTypes[how >> 2 & 3], input.rest());
        break;
    case 1:
        convert(input.text());
        break;
    case 2:
        read_line(input.text());
        break;
    default:
        handle(how & 4 ? 57 : how & 8 ? 38 : 596, how & 16 ? int(how) : 0, input.rest());
    }
    return 0;
}
