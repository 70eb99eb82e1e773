#pragma once

#include <cstdint>
#include <string>

namespace tavrik::sim {

// What this needs of the kernel's routing socket. A socket stays in the network namespace in which it was made,
// whichever one its process is in later. Numbers of links are the caller's choice. All throw std::system_error.
class Netlink {
  public:
    Netlink();
    ~Netlink();
    Netlink(const Netlink &) = delete;
    Netlink &operator=(const Netlink &) = delete;

    // A link here, and its other end under the same number in another namespace.
    void make_pair(int number, const std::string &name, const std::string &far_name, int far_namespace);
    // It has the addresses that it is given and none of its own making.
    void without_own_addresses(int number);
    void set_up(int number, bool up);
    // IPv4 or IPv6, the latter to be used at once, without asking whether somebody else has it.
    void add_address(int number, const std::string &address, int prefix);
    // False when it has no such address.
    bool remove_address(int number, const std::string &address, int prefix);
    void add_default_route(int number, const std::string &gateway, uint32_t metric);

  private:
    class Message;
    int ask(Message &message); // the kernel's answer: 0, or a number of errno

    int socket_;
};

} // namespace tavrik::sim
