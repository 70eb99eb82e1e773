// The kernel's list of IPv6 addresses, as the library reads it, and each of its lines. data_targets.cmake gives the
// library this file's fopen (with the name that it has for files of any size).
#include "datacall/if_inet6.h"
#include "fuzz.h"
#include "tavrik_sdk.h"

#include <cstdio>
#include <cstring>

namespace {

std::string g_list;

} // namespace

extern "C" FILE *__wrap_fopen64(const char *path, const char *) {
    fuzz::check(!strcmp(path, "/proc/net/if_inet6"));
    return g_list.empty() ? nullptr : fmemopen(g_list.data(), g_list.size(), "r");
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input input(data, size);
    const std::string name = input.text();
    g_list = input.rest();
    tavrik::InterfaceAddress address;
    if (address.parse(g_list.c_str()))
        fuzz::check(strlen(address.text) <= 39 && strlen(address.ifname) <= 19);
    // Into room of every size there may be, and of exactly that.
    const int room = int((g_list.size() + name.size()) % 44);
    std::string out(size_t(room), '\x5a');
    if (!data_get_interface_addr6(name.c_str(), out.data(), room))
        fuzz::check(strlen(out.c_str()) < size_t(room) && g_list.find(name) != g_list.npos);
    else
        fuzz::check(out == std::string(size_t(room), '\x5a'));
    fuzz::check(data_get_interface_addr6(nullptr, out.data(), room) == -1);
    return 0;
}
