#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <optional>

#include "model/addresses.h"
#include "net/far_end.h"
#include "services/context.h"

namespace tavrik::sim {

namespace {

constexpr char name_servers_file[] = "/etc/resolv.conf";
constexpr int first_number = 1000; // of links; what a program makes itself is numbered from below
constexpr uint32_t first_metric = 100;

// The links ccinet*, which follow the packet data contexts. One is made when it is needed for the first time.
class Links : public Service {
  public:
    explicit Links(Context &context) : context_(context) {
        context_.modem.on_change = [this] { follow(); };
    }
    ~Links() override { context_.modem.on_change = nullptr; }

    void start() override {}
    void stop() override {}
    std::string_view effects() const override { return ""; }
    void stand(const Standing &) override {}
    void renew() override;

  private:
    struct Link {
        bool made = false;
        std::optional<PdpContext> pdp; // that it is there for
    };

    void follow();
    void make(int32_t cid);
    void go_up(int32_t cid);
    void go_down(int32_t cid);
    void write_name_servers();

    static int number(int32_t cid) { return first_number + cid; }
    static bool has_ipv4(const Link &link) { return link.pdp && link.pdp->type != "IPV6"; }
    static bool has_ipv6(const Link &link) { return link.pdp && link.pdp->type != "IP" && sim::has_ipv6(); }

    Context &context_;
    std::optional<FarEnd> far_;
    std::optional<Netlink> netlink_;
    std::array<Link, last_pdp_cid + 1> links_; // by cid
    std::string name_servers_;
};

void Links::make(int32_t cid) {
    if (!far_) {
        netlink_.emplace();
        far_.emplace();
        // Two links lead to the same addresses: an answer may come over another than the kernel would ask over. Where
        // the file cannot be written, the setting is left to chance.
        std::ofstream("/proc/sys/net/ipv4/conf/all/rp_filter") << 0;
    }
    const std::string name = link_name(cid);
    netlink_->make_pair(number(cid), name, name, far_->network());
    links_[static_cast<size_t>(cid)].made = true;
    if (sim::has_ipv6())
        netlink_->without_own_addresses(number(cid));
    far_->connect(cid, number(cid));
}

void Links::go_up(int32_t cid) {
    Link &link = links_[static_cast<size_t>(cid)];
    if (!link.made)
        make(cid);
    const PdpContext *defined = find_pdp(context_.modem.state(), cid);
    link.pdp = defined ? *defined : PdpContext{};
    const bool up = context_.modem.state().link_up;
    const uint32_t metric = first_metric + static_cast<uint32_t>(cid);
    if (up)
        netlink_->set_up(number(cid), true);
    if (has_ipv4(link))
        netlink_->add_address(number(cid), link_ipv4(cid, 2), prefix_ipv4);
    if (has_ipv6(link)) {
        netlink_->add_address(number(cid), link_local, prefix_ipv6);
        netlink_->add_address(number(cid), link_ipv6(cid, 2), prefix_ipv6);
    }
    if (up && has_ipv4(link))
        netlink_->add_default_route(number(cid), link_ipv4(cid, 1), metric);
    if (up && has_ipv6(link))
        netlink_->add_default_route(number(cid), link_ipv6(cid, 1), metric);
}

void Links::go_down(int32_t cid) {
    Link &link = links_[static_cast<size_t>(cid)];
    link.pdp.reset();
    if (!link.made)
        return;
    netlink_->set_up(number(cid), false);
    netlink_->remove_address(number(cid), link_ipv4(cid, 2), prefix_ipv4);
    for (const std::string &address : {std::string(link_local), link_ipv6(cid, 2)}) // of one that was down already
        netlink_->remove_address(number(cid), address, prefix_ipv6);
}

void Links::follow() {
    const std::vector<std::string> contexts = contexts_in(context_.modem.state().contexts);
    for (int32_t cid = 1; cid <= last_pdp_cid; cid++) {
        const bool wanted = std::count(contexts.begin(), contexts.end(), std::to_string(cid)) > 0;
        if (wanted == links_[static_cast<size_t>(cid)].pdp.has_value())
            continue;
        try {
            wanted ? go_up(cid) : go_down(cid);
        } catch (const std::exception &error) {
            fprintf(stderr, "tavrik-sim: %s: %s\n", link_name(cid).c_str(), error.what());
        }
    }
    write_name_servers();
}

void Links::write_name_servers() {
    std::string text;
    auto add = [&text](const char *address) {
        const std::string line = std::string("nameserver ") + address + "\n";
        if (text.find(line) == std::string::npos)
            text += line;
    };
    for (const Link &link : links_) {
        for (const char *address : dns_ipv4)
            if (has_ipv4(link))
                add(address);
        for (const char *address : dns_ipv6)
            if (has_ipv6(link))
                add(address);
    }
    if (text != name_servers_)
        std::ofstream(name_servers_file) << text;
    name_servers_ = text;
}

// Whatever a program did to one, it is down.
void Links::renew() {
    for (int32_t cid = 1; cid <= last_pdp_cid; cid++)
        if (links_[static_cast<size_t>(cid)].made)
            go_down(cid);
    follow();
}

} // namespace

std::unique_ptr<Service> make_links(Context &context) {
    return std::make_unique<Links>(context);
}

} // namespace tavrik::sim
