// The configuration of the network: what uci's files hold afterwards, and what the network service is told.
#include <arpa/inet.h>
#include <chrono>
#include <map>
#include <sstream>

#include "support/descriptors.h"
#include "support/shell.h"
#include "support/sim.h"

namespace {

using nlohmann::json;
using Texts = std::vector<std::string>;

uint32_t ipv4(const char *text) {
    uint32_t address = 0;
    inet_pton(AF_INET, text, &address);
    return address;
}

// Addresses that differ in each of their bytes.
Tavrik_DataCallInfo info_of(int cid, int type, const char *gateway = "10.64.1.1", const char *address = "10.64.1.2") {
    Tavrik_DataCallInfo info;
    memset(&info, 0xEE, sizeof info);
    info.cid = uint8_t(cid);
    info.ip_type = type;
    info.ipv4_addr = ipv4(address);
    info.ipv4_netmask = ipv4("255.255.255.252");
    info.ipv4_gateway = ipv4(gateway);
    memset(info.netmask_end, 0, sizeof info.netmask_end);
    info.ipv4_dns1 = ipv4("192.0.2.53");
    info.ipv4_dns2 = ipv4("192.0.2.54");
    inet_pton(AF_INET6, "2001:db8:64:1:a:b:c:d", info.ipv6_addr);
    return info;
}

// A file's sections by name, and in front of the first what there is.
std::map<std::string, std::string> sections_of(const std::string &package) {
    std::map<std::string, std::string> sections;
    std::istringstream file(read_file("/etc/config/" + package));
    std::string name;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("config ", 0) == 0)
            name = line.substr(line.find('\'') + 1, line.rfind('\'') - line.find('\'') - 1);
        else if (!line.empty())
            sections[name] += line.substr(1) + "\n";
    }
    return sections;
}

std::string line(const std::string &text, const char *function = "data_config_network_info") {
    return function + (": " + text) + "\n";
}

// What the network service was told, in order.
Texts told() {
    Texts texts;
    const json record = sim::call("record", {{"clear", true}});
    for (const json &entry : record["entries"])
        if (entry["kind"] == "network" || entry["kind"] == "network.interface")
            texts.push_back(entry["text"].get<std::string>());
    return texts;
}
std::string order(const std::string &method, const std::string &interface) {
    return method + " {\"interface\":\"" + interface + "\"}";
}
void wait_for(const std::string &text) {
    sim::call("wait", {{"kind", "network.interface"}, {"text", text}});
}

class Network : public testing::Test {
  protected:
    Network() {
        sim::call("reset");
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    }
    ~Network() override {
        tavrik_ubus_deinit();
        sim::call("reset");
    }
};

TEST_F(Network, WritesItsOptionsAndNoOther) {
    const std::string deleted = "warn " + line(" delete DNS "),
                      no_gateway = "warn " + line(" gateway is NULL, will use IP address as gateway"),
                      done = "info " + line("dc_config_network_info done"),
                      six = "warn " + line(" add V6 PrimaryDNS : c000:235:c000:236:2001:db8:64:1") + "warn " +
                            line(" add V6 SecondaryDNS : c000:236:2001:db8:64:1:a:b") + "warn " +
                            line(" add ipv6addr : fe80::a:b:c:d/64"),
                      dns4 = "list dns '192.0.2.54'\nlist dns '192.0.2.53'\n",
                      dns6 = "list dns 'c000:235:c000:236:2001:db8:64:1'\nlist dns 'c000:236:2001:db8:64:1:a:b'\n",
                      local = "option ip6addr 'fe80::a:b:c:d/64'\n";
    const auto head = [](const std::string &n, const char *dedicate = "1") {
        return "option ifname 'ccinet" + n + "'\noption proto 'static'\noption auto '1'\noption dedicate '" + dedicate +
               "'\n";
    };
    const auto route = [](const std::string &address, const std::string &gateway, const std::string &mask) {
        return (address.empty() ? "" : "option ipaddr '" + address + "'\n") + "option gateway '" + gateway +
               "'\noption netmask '" + mask + "'\n";
    };
    Tavrik_DataCallInfo ended = info_of(15, 4);
    ended.netmask_end[3] = 128;
    const struct {
        Tavrik_DataCallInfo info;
        int dedicate;
        std::string wan, log;
    } cases[] = {
        {info_of(1, 4), 1, head("0") + route("10.64.1.2", "10.64.1.1", "255.255.255.0") + dns4, deleted + done},
        {info_of(2, 10, "10.64.0.255"), 0,
         head("1", "0") + route("10.64.1.2", "10.64.0.255", "255.255.0.0") + dns4 + dns6 + local, deleted + six + done},
        {info_of(3, 6, "0.0.0.0", "0.0.0.0"), -7, head("2", "-7") + route("", "0.0.0.0", "255.0.0.0") + dns6 + local,
         no_gateway + six + done},
        {info_of(4, 4, "0.0.0.0"), 1, head("3") + route("10.64.1.2", "10.64.1.2", "255.255.255.0") + dns4,
         no_gateway + done},
        {info_of(5, 4, "10.0.255.255"), 1, head("4") + route("10.64.1.2", "10.0.255.255", "255.0.0.0") + dns4, done},
        {info_of(6, 0, "10.1.2.0"), 1, head("5") + route("", "10.1.2.0", "255.255.0.0"), done},
        {ended, 1, head("14") + route("10.64.1.2", "10.64.1.1", "255.255.255.128") + dns4, done},
    };
    for (const auto &c : cases)
        for (const bool again : {false, true}) { // nothing grows
            const std::string wan = "wan" + std::to_string(c.info.cid - 1),
                              wan6 = "wan6" + std::to_string(c.info.cid - 1);
            SCOPED_TRACE(wan);
            auto expected = sections_of("network");
            expected[wan] = c.wan;
            if (c.info.ip_type == 6 || c.info.ip_type == 10)
                expected[wan6] =
                    "option ifname 'ccinet" + wan.substr(3) + "'\noption proto 'dhcpv6'\noption auto '1'\n";
            const std::string log = sim::log_of([&] { data_config_network_info(c.info, c.dedicate); });
            if (!again) {
                EXPECT_EQ(log, c.log);
            }
            // As a list of "option value", so that only lists have an order.
            auto found = sections_of("network");
            const auto sorted = [](const std::string &text) {
                Texts options, dns;
                std::istringstream lines(text);
                for (std::string one; std::getline(lines, one);)
                    (one.rfind("list", 0) == 0 ? dns : options).push_back(one);
                std::sort(options.begin(), options.end());
                return std::pair(options, dns);
            };
            EXPECT_EQ(sorted(found[wan]), sorted(expected[wan]));
            found[wan] = expected[wan];
            EXPECT_EQ(found, expected);
        }
    EXPECT_EQ(shell("uci get network.wan1.dns").output,
              "192.0.2.54 192.0.2.53 c000:235:c000:236:2001:db8:64:1 c000:236:2001:db8:64:1:a:b\n");
    EXPECT_EQ(shell("uci get network.wan61.auto; uci get network.wan0.gateway; uci changes").output, "1\n10.64.1.1\n");
    EXPECT_EQ(shell("uci get network.wan60.auto").output, "0\n");
}

TEST_F(Network, WritesDhcpWhereThereIsASection) {
    const std::string start = "info " +
                              line(" start to configure dhcp to master 1 ra relay ndp realy", "data_config_dhcp_info"),
                      done = "info " + line("dc_config_dhcp_info done", "data_config_dhcp_info");
    auto expected = sections_of("dhcp");
    expected["wan2"] += "option master '1'\noption ra 'relay'\noption ndp 'relay'\n";
    EXPECT_EQ(sim::log_of([] { data_config_dhcp_info(info_of(3, 4), 0); }), start + done);
    EXPECT_EQ(sections_of("dhcp"), expected);
    EXPECT_EQ(shell("uci show dhcp.wan2 | grep -v ignore").output,
              "dhcp.wan2=dhcp\ndhcp.wan2.interface='wan2'\ndhcp.wan2.master='1'\ndhcp.wan2.ra='relay'\ndhcp.wan2.ndp='"
              "relay'\n");
    const std::string other = "\nconfig dnsmasq 'dnsmasq'\n\toption domainneeded '1'\n\n";
    sim::call("uci", {{"package", "dhcp"}, {"text", other}});
    EXPECT_EQ(sim::log_of([] { data_config_dhcp_info(info_of(3, 4), 1); }), start + done);
    EXPECT_EQ(read_file("/etc/config/dhcp"), other);
}

TEST_F(Network, LogsWhatItCannotWrite) {
    const std::string before = read_file("/etc/config/network");
    const auto run = [](int cid, int type = 10) {
        return sim::log_of([=] {
            data_config_network_info(info_of(cid, type), 1);
            data_config_dhcp_info(info_of(cid, type), 1);
        });
    };
    for (const int cid : {0, 16, 255}) {
        const std::string text = "no network interface has context " + std::to_string(cid);
        EXPECT_EQ(run(cid), "warn " + line(text) + "warn " + line(text, "data_config_dhcp_info"));
        EXPECT_EQ(sim::log_of([=] { data_config_ip_info(info_of(cid, 4), 1); }),
                  "warn " + line(text, "data_config_ip_info"));
        EXPECT_EQ(sim::log_of([=] { EXPECT_EQ(data_delete_ip_info(cid), -1); }),
                  "warn " + line(text, "data_delete_ip_info"));
    }
    sim::call("fault", {{"service", "etc"}, {"full", true}});
    EXPECT_NE(run(1).find("data_config_network_info: uci: /etc/config/network not committed"), std::string::npos);
    sim::call("clear");
    EXPECT_EQ(read_file("/etc/config/network"), before);
    // A section that is missing is not made.
    const std::string lan = "\nconfig interface 'lan'\n\toption proto 'static'\n\n";
    sim::call("uci", {{"package", "network"}, {"text", lan}});
    EXPECT_EQ(sim::log_of([] { data_config_network_info(info_of(1, 10), 1); }),
              "warn " + line("no section wan0") + "warn " + line("no section wan60") + "info " +
                  line("dc_config_network_info done"));
    EXPECT_EQ(read_file("/etc/config/network"), lan);
    for (const char *package : {"network", "dhcp"})
        sim::call("uci", {{"package", package}});
    EXPECT_EQ(run(1), line(" load network file failed") + line(" load dhcp file failed", "data_config_dhcp_info"));
    const std::string log = sim::log_of([] {
        EXPECT_EQ(data_delete_ip_info(1), -1);
        sim::call("wait", {{"kind", "network"}});
    });
    EXPECT_EQ(log.rfind(line(" load network file failed", "data_delete_ip_info") +
                            line(" load dhcp file failed", "data_delete_ip_info"),
                        0),
              0u)
        << log;
    EXPECT_EQ(told(), Texts{"reload {}"}); // and goes on
}

TEST_F(Network, DeletesWhatItHasWritten) {
    const auto network = sections_of("network"), dhcp = sections_of("dhcp");
    data_config_network_info(info_of(3, 10), 1);
    data_config_dhcp_info(info_of(3, 10), 1);
    EXPECT_EQ(data_delete_ip_info(3), 0);
    auto expected = network;
    expected["wan2"] = "option ifname 'ccinet2'\n";
    expected["wan62"] = "option ifname 'ccinet2'\noption proto 'dhcpv6'\n";
    EXPECT_EQ(sections_of("network"), expected);
    EXPECT_EQ(sections_of("dhcp"), dhcp);
    EXPECT_EQ(data_delete_ip_info(3), 0); // there is nothing more to delete
    sim::call("wait", {{"kind", "network"}, {"count", 2}});
    EXPECT_EQ(told(), (Texts{"reload {}", "reload {}"}));
}

bool is_up(const char *link) {
    return shell("ifconfig").output.find(link) != std::string::npos;
}

TEST_F(Network, ConfiguresAContextStepByStep) {
    sim::call("state", {{"link_up", false},
                        {"pdp", {{{"cid", 1}, {"type", "IPV4V6"}}, {{"cid", 3}, {"type", "IP"}}}},
                        {"contexts", "1"}});
    sim::call("state", {{"link_up", true}, {"contexts", "1,3"}});
    EXPECT_FALSE(is_up("ccinet0:"));
    data_config_ip_info(info_of(1, 10), 0);
    EXPECT_EQ(told(), Texts{});
    const auto began = std::chrono::steady_clock::now();
    data_config_ip_info(info_of(1, 10), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(495));
    EXPECT_TRUE(is_up("ccinet0:"));
    wait_for(order("up", "wan60"));
    EXPECT_EQ(told(), (Texts{"reload {}", order("down", "lan"), order("up", "lan"), order("down", "wan0"),
                             order("up", "wan0"), order("down", "wan60"), order("up", "wan60")}));
    EXPECT_EQ(shell("uci get network.wan0.dedicate; uci get dhcp.wan0.ra").output, "1\nrelay\n");
    data_config_ip_info(info_of(3, 4), 1);
    wait_for(order("up", "wan2"));
    EXPECT_EQ(told(), (Texts{"reload {}", order("down", "lan"), order("up", "lan"), order("down", "wan2"),
                             order("up", "wan2")}));
    EXPECT_EQ(data_send_if_command(14, 0, 6), 0);
    wait_for(order("down", "wan614"));
    EXPECT_EQ(told(), Texts{order("down", "wan614")});
    EXPECT_EQ(data_up_down_br_lan(0, "guest"), 0);
    EXPECT_EQ(told(), Texts{order("down", "guest")});
}

TEST_F(Network, GoesOnWhenTheServiceFails) {
    const auto send = [](const char *text) { return line(text, "data_send_if_command"); };
    const auto lan = [](const char *text) { return line(text, "data_up_down_br_lan"); };
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(data_send_if_command(0, 1, 4), -1); }), send("no ccinet interface is up"));
    // Three more attempts, and no link.
    std::string log = sim::log_of([] { data_config_ip_info(info_of(1, 4), 1); }),
                tail = line(" ccinet0 up failed", "data_config_ip_info");
    for (int i = 0; i < 3; ++i)
        tail = line(" ccinet0 up failed", "data_config_ip_info") + "debug " + line("count++", "data_config_ip_info") +
               send("no ccinet interface is up") + tail;
    EXPECT_NE(log.find(send("no ccinet interface is up") + tail), std::string::npos) << log;
    EXPECT_EQ(told(), (Texts{"reload {}", order("down", "lan"), order("up", "lan")}));

    sim::call("state", {{"pdp", {{{"cid", 1}, {"type", "IP"}}}}, {"contexts", "1"}});
    sim::fault("network.interface", "down *", {{"status", 2}});
    EXPECT_EQ(sim::log_of([&] { EXPECT_EQ(data_up_down_br_lan(1, "lan"), 2); }), lan("ifdown fail: Invalid argument"));
    sim::fault("network.interface", "up *", {{"status", 4}});
    EXPECT_EQ(sim::log_of([&] { EXPECT_EQ(data_up_down_br_lan(1, "lan"), 2); }),
              lan("ifdown fail: Invalid argument") + lan("ifup fail: Not found"));
    EXPECT_EQ(told(), (Texts{order("down", "lan"), order("up", "lan"), order("down", "lan"), order("up", "lan")}));
    // Of the answers to what nobody waits for the log alone tells.
    log = sim::log_of([] {
        EXPECT_EQ(data_send_if_command(0, 1, 4), 0);
        wait_for(order("up", "wan0"));
        usleep(300000);
    });
    EXPECT_EQ(log, send("Failed to ubus invoke: Invalid argument") + "info " +
                       line("interface down or up: Invalid argument", "data_ifupdown_complete") +
                       send("Failed to ubus invoke: Not found") + "info " +
                       line("interface down or up: Not found", "data_ifupdown_complete"));
    sim::call("clear");
    log = sim::log_of([] {
        EXPECT_EQ(data_reload_network(), 0);
        sim::call("wait", {{"kind", "network"}});
        usleep(200000);
    });
    EXPECT_EQ(log, "info " + line("network reload: Success", "dc_reload_network_complete"));

    // One that does not answer.
    sim::fault("network.interface", "*", {{"drop", true}});
    sim::fault("network", "*", {{"drop", true}});
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(sim::log_of([&] { EXPECT_EQ(data_up_down_br_lan(1, "lan"), 7); }),
              lan("ifdown fail: Request timed out") + lan("ifup fail: Request timed out"));
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(9990));
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(data_reload_network() + data_send_if_command(0, 1, 4), 0); }), "");
    log = sim::log_of([] { tavrik_ubus_deinit(); });
    const std::string aborted = "asynchronous request aborted", late = "interface down or up: Request timed out";
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 6) << log;
    EXPECT_NE(log.find(line(aborted, "data_reload_network") + "info " +
                       line("network reload: Request timed out", "dc_reload_network_complete")),
              std::string::npos)
        << log;
    EXPECT_NE(log.find(send(aborted.c_str()) + "info " + line(late, "data_ifupdown_complete") + send(aborted.c_str())),
              std::string::npos)
        << log;
    sim::call("clear");

    // None at all.
    for (const char *service : {"network", "network.interface"})
        sim::call("fault", {{"service", service}, {"stop", true}});
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(data_reload_network(), -1); }),
              line("lookup network id failed", "data_reload_network"));
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(data_up_down_br_lan(1, "lan"), 4); }), lan("Failed to lookup id: Not found"));
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(data_send_if_command(0, 1, 4), -3); }),
              send("Failed to lookup id: Not found"));
    sim::call("clear");
    sim::call("fault", {{"service", "bus"}, {"stop", true}});
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(data_reload_network(), -1); }),
              line("Failed to connect to ubus", "data_reload_network"));
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(data_up_down_br_lan(1, "lan"), -1); }), lan("Failed to connect to ubus"));
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(data_send_if_command(0, 1, 4), -2); }), send("Failed to connect to ubus"));
    sim::call("clear");
    tavrik_ubus_deinit();
    EXPECT_NE(sim::log_of([] {
                  const NoDescriptors none;
                  EXPECT_EQ(data_reload_network(), -1);
              }).find(line("ubus_thread init failed!", "data_reload_network")),
              std::string::npos);
}

} // namespace
