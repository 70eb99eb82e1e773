// Lines of /proc/net/if_inet6: an IPv6 address of an interface each.
#pragma once

namespace tavrik {

struct InterfaceAddress {
    char text[40]; // eight groups of four digits
    unsigned prefix;
    unsigned scope;
    char ifname[20];

    // False for a line of another shape.
    bool parse(const char *line);
    bool global() const { return !(scope & 0xf0); }
};

} // namespace tavrik
