// Records of data calls, as the radio interface layer reports them, into the handlers that configure the network and
// keep the counters. The stores are this process's own; data_targets.cmake gives the library this file's nanosleep and
// posix_spawn.
#include "fuzz.h"
#include "tavrik_sdk.h"
#include "ubus/ril.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <initializer_list>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void put(const char *path, const std::string &text) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    fuzz::check(fd >= 0 && write(fd, text.data(), text.size()) == ssize_t(text.size()));
    close(fd);
}

// Nothing of the machine's is read or written, and no bus is there.
bool own_stores() {
    const std::string user = "0 " + std::to_string(getuid()) + " 1", group = "0 " + std::to_string(getgid()) + " 1";
    fuzz::check(!unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWNET));
    put("/proc/self/setgroups", "deny");
    put("/proc/self/uid_map", user);
    put("/proc/self/gid_map", group);
    mkdir("/tmp/.uci", 0777);
    for (const char *folder : {"/etc", "/run", "/tmp/.uci"})
        fuzz::check(!mount("none", folder, "tmpfs", 0, nullptr));
    fuzz::check(!mkdir("/etc/config", 0755) && !mkdir("/etc/stat", 0755));
    put("/etc/config/data_profile",
        "config profile_idx '0'\n\toption apn 'a'\nconfig profile_idx '14'\n\toption apn 'net'\n"
        "config profile_idx '15'\n\toption apn 'a'\nconfig profile_idx 'x'\n\tlist apn 'a'\n");
    put("/etc/config/network", "config interface 'wan0'\nconfig interface 'wan60'\n"
                               "config interface 'wan1'\n\tlist dns '192.0.2.1'\nconfig interface 'wan2'\n"
                               "config interface 'wan62'\n");
    put("/etc/config/dhcp", "config dhcp 'wan0'\n");
    put("/etc/stat/data_statistics", "");
    return true;
}

const bool g_own_stores = own_stores(); // before there are threads

} // namespace

// The pauses between the steps of configuring an interface are for services that are not here.
extern "C" int __wrap_nanosleep(const timespec *, timespec *left) {
    if (left)
        *left = {};
    return 0;
}

// Nor is a shell started, which would look for an interface that cannot be there.
extern "C" int __wrap_posix_spawn() {
    return EAGAIN;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input input(data, size);
    const unsigned how = input.byte();
    const std::string records = input.rest();
    const uint32_t id = how & 1 ? 57 : how & 2 ? 38 : 596;
    const int32_t error = how & 4 ? int(how) : 0;
    tavrik::BlobBuf reply;
    fuzz::check(g_own_stores && reply.ok);
    if (rilutil_make_reply(&reply.buf, id, error, records.empty() ? nullptr : records.data(), records.size()))
        return 0;
    if (how & 8) // a reply of another shape
        memcpy(blob_data(reply.head()), records.data(), std::min(records.size(), size_t(blob_len(reply.head()))));
    uint8_t profile = uint8_t(how >> 4);
    ubus_request request = {};
    request.priv = &profile;
    DataCall_Start_cb(&request, 0, reply.head());
    fuzz::check(profile == how >> 4 || profile == 255);
    DataCall_Start_cb(nullptr, 0, reply.head());
    DataCall_Init_cb(nullptr, 0, reply.head());
    DataCall_Stop_cb(nullptr, 0, reply.head());
    if (how & 16)
        data_delete_ip_info(profile);
    for (const auto &row : g_idx_cid)
        fuzz::check(row.cid >= 0 && row.cid <= TAVRIK_IDX_CID_COUNT);
    return 0;
}
