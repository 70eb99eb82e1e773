#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>

#include "io/loop.h"
#include "net/netlink.h"

namespace tavrik::sim {

// The network on the other side of the module's links: a namespace that lives as long as the sockets in it, with a web
// server whose page names the link it was asked over, and name servers that know every name. The kernel answers pings.
class FarEnd {
  public:
    // Throws std::system_error.
    FarEnd();
    ~FarEnd();

    // The other end of a link, to be given to the namespace under its number, before it is set up here.
    int network() const { return network_; }
    void connect(int32_t cid, int number);

  private:
    struct Visitor {
        explicit Visitor(int descriptor);
        ~Visitor() { leave(); }
        void read();
        void leave();

        int fd;
        Watch watch;
        std::string request;
    };
    struct NameServer {
        explicit NameServer(const char *address);
        ~NameServer();
        void answer() const;

        int fd;
        Watch watch;
    };

    void build();
    void welcome();

    int network_ = -1;
    bool ipv6_ = true; // the kernel has it
    std::optional<Netlink> netlink_;
    int web_ = -1;
    Watch web_watch_;
    std::list<Visitor> visitors_;
    std::list<NameServer> name_servers_;
};

// Has this machine's kernel IPv6?
bool has_ipv6();

} // namespace tavrik::sim
