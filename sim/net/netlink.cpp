#include "net/netlink.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <string_view>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace tavrik::sim {

namespace {

// From headers of the kernel that cannot be had beside those of libc.
constexpr uint16_t inet6_addr_gen_mode = 8;
constexpr uint8_t addr_gen_mode_none = 1;

void check(int error, const char *what) {
    if (error)
        throw std::system_error(error, std::generic_category(), what);
}

// An address as bytes, 4 or 16 of them.
std::string bytes_of(const std::string &address) {
    char bytes[16];
    const bool ipv6 = address.find(':') != std::string::npos;
    if (inet_pton(ipv6 ? AF_INET6 : AF_INET, address.c_str(), bytes) != 1)
        check(EINVAL, address.c_str());
    return {bytes, ipv6 ? size_t(16) : size_t(4)};
}

unsigned char family_of(const std::string &bytes) {
    return bytes.size() == 16 ? AF_INET6 : AF_INET;
}

} // namespace

// A request: a header, the structure that belongs to its type, attributes.
class Netlink::Message {
  public:
    template <class Body>
    Message(uint16_t type, int flags, const Body &body) {
        nlmsghdr head = {};
        head.nlmsg_type = type;
        head.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
        add(head);
        add(body);
    }
    template <class Value>
    void add(const Value &value) {
        put({reinterpret_cast<const char *>(&value), sizeof value});
    }
    void attribute(uint16_t type, std::string_view value) {
        const size_t from = begin(type);
        put(value);
        end(from);
    }
    template <class Value>
    void number(uint16_t type, Value value) {
        attribute(type, {reinterpret_cast<const char *>(&value), sizeof value});
    }
    // What is added in between is the attribute's value.
    size_t begin(uint16_t type) {
        const size_t from = bytes_.size();
        add(rtattr{0, type});
        return from;
    }
    void end(size_t from) {
        const auto length = static_cast<uint16_t>(bytes_.size() - from);
        memcpy(&bytes_[from], &length, sizeof length);
        bytes_.resize((bytes_.size() + 3) & ~size_t(3));
    }
    const std::string &finished() {
        const auto length = static_cast<uint32_t>(bytes_.size());
        memcpy(&bytes_[0], &length, sizeof length);
        return bytes_;
    }

  private:
    void put(std::string_view bytes) { bytes_ += bytes; }

    std::string bytes_;
};

Netlink::Netlink() : socket_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {
    check(socket_ < 0 ? errno : 0, "netlink");
}

Netlink::~Netlink() {
    close(socket_);
}

// Requests are answered while they are sent.
int Netlink::ask(Message &message) {
    const std::string &bytes = message.finished();
    alignas(nlmsghdr) char answer[8192];
    if (send(socket_, bytes.data(), bytes.size(), 0) < 0)
        return errno;
    const ssize_t length = recv(socket_, answer, sizeof answer, 0);
    if (length < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(nlmsgerr))))
        return length < 0 ? errno : EPROTO;
    return -static_cast<const nlmsgerr *>(NLMSG_DATA(answer))->error;
}

void Netlink::make_pair(int number, const std::string &name, const std::string &far_name, int far_namespace) {
    ifinfomsg link = {};
    link.ifi_index = number;
    Message message(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL, link);
    message.attribute(IFLA_IFNAME, {name.c_str(), name.size() + 1});
    const size_t info = message.begin(IFLA_LINKINFO);
    message.attribute(IFLA_INFO_KIND, "veth");
    const size_t data = message.begin(IFLA_INFO_DATA), peer = message.begin(VETH_INFO_PEER);
    message.add(link);
    message.attribute(IFLA_IFNAME, {far_name.c_str(), far_name.size() + 1});
    message.number(IFLA_NET_NS_FD, far_namespace);
    message.end(peer);
    message.end(data);
    message.end(info);
    check(ask(message), "make a link");
}

void Netlink::without_own_addresses(int number) {
    ifinfomsg link = {};
    link.ifi_index = number;
    Message message(RTM_SETLINK, 0, link);
    const size_t families = message.begin(IFLA_AF_SPEC), ipv6 = message.begin(AF_INET6);
    message.number(inet6_addr_gen_mode, addr_gen_mode_none);
    message.end(ipv6);
    message.end(families);
    check(ask(message), "set the addresses of a link");
}

void Netlink::set_up(int number, bool up) {
    ifinfomsg link = {};
    link.ifi_index = number;
    link.ifi_flags = up ? IFF_UP : 0;
    link.ifi_change = IFF_UP;
    Message message(RTM_SETLINK, 0, link);
    check(ask(message), "switch a link");
}

namespace {

ifaddrmsg address_head(int number, const std::string &bytes, int prefix) {
    ifaddrmsg head = {};
    head.ifa_family = family_of(bytes);
    head.ifa_prefixlen = static_cast<unsigned char>(prefix);
    head.ifa_index = static_cast<unsigned>(number);
    return head;
}

} // namespace

void Netlink::add_address(int number, const std::string &address, int prefix) {
    const std::string bytes = bytes_of(address);
    Message message(RTM_NEWADDR, NLM_F_CREATE | NLM_F_REPLACE, address_head(number, bytes, prefix));
    message.attribute(IFA_LOCAL, bytes);
    message.attribute(IFA_ADDRESS, bytes);
    if (bytes.size() == 16)
        message.number(IFA_FLAGS, uint32_t(IFA_F_NODAD));
    check(ask(message), "give a link its address");
}

bool Netlink::remove_address(int number, const std::string &address, int prefix) {
    const std::string bytes = bytes_of(address);
    Message message(RTM_DELADDR, 0, address_head(number, bytes, prefix));
    message.attribute(IFA_LOCAL, bytes);
    return ask(message) == 0;
}

void Netlink::add_default_route(int number, const std::string &gateway, uint32_t metric) {
    const std::string bytes = bytes_of(gateway);
    rtmsg route = {};
    route.rtm_family = family_of(bytes);
    route.rtm_table = RT_TABLE_MAIN;
    route.rtm_protocol = RTPROT_STATIC;
    route.rtm_scope = RT_SCOPE_UNIVERSE;
    route.rtm_type = RTN_UNICAST;
    Message message(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_REPLACE, route);
    message.attribute(RTA_GATEWAY, bytes);
    message.number(RTA_OIF, number);
    message.number(RTA_PRIORITY, metric);
    check(ask(message), "route to a link");
}

} // namespace tavrik::sim
