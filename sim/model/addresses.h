#pragma once

#include <cstdint>
#include <string>

namespace tavrik::sim {

// What the network gives a context, and what there is on its other side. Addresses for documentation, so that none of
// them means anything else anywhere.
inline constexpr char far_ipv4[] = "192.0.2.1", far_ipv6[] = "2001:db8::1";
inline constexpr const char *dns_ipv4[] = {"192.0.2.53", "192.0.2.54"};
inline constexpr const char *dns_ipv6[] = {"2001:db8::53", "2001:db8::54"};
inline constexpr char link_local[] = "fe80::2"; // of every link
inline constexpr char netmask_ipv4[] = "255.255.255.0";
inline constexpr int prefix_ipv4 = 24, prefix_ipv6 = 64;

inline std::string link_name(int32_t cid) {
    return "ccinet" + std::to_string(cid - 1);
}

// An address of a context's link: host 1 is its gateway, 2 the module.
inline std::string link_ipv4(int32_t cid, int host) {
    return "10.64." + std::to_string(cid - 1) + "." + std::to_string(host);
}
inline std::string link_ipv6(int32_t cid, int host) {
    return "2001:db8:64:" + std::to_string(cid) + "::" + std::to_string(host);
}

} // namespace tavrik::sim
