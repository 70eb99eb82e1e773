// The configuration of the network: what uci's files hold afterwards, and what the network service is told.
#include "data.h"

#include <arpa/inet.h>
#include <chrono>

namespace {

const std::string kLan = section("interface lan proto=static");

// Addresses that differ in each of their bytes.
Tavrik_DataCallInfo info_of(int cid, int type, const char *gateway = "10.64.1.1", const char *address = "10.64.1.2") {
    Tavrik_DataCallInfo info;
    memset(&info, 0xEE, sizeof info);
    info.cid = uint8_t(cid);
    info.ip_type = type;
    info.ipv4_addr = inet_addr(address);
    info.ipv4_gateway = inet_addr(gateway);
    memset(info.netmask_end, 0, sizeof info.netmask_end);
    info.ipv4_dns1 = inet_addr("192.0.2.53");
    info.ipv4_dns2 = inet_addr("192.0.2.54");
    inet_pton(AF_INET6, "2001:db8:64:1:a:b:c:d", info.ipv6_addr);
    return info;
}

// What the network service was told, in order, as soon as it was told `last`.
std::string told(const std::string &last = "") {
    if (!last.empty())
        sim::call("wait", {{"text", last}});
    std::string texts;
    const json record = sim::call("record", {{"clear", true}});
    for (const json &entry : record["entries"])
        if (entry["kind"] == "network" || entry["kind"] == "network.interface")
            texts += entry["text"].get<std::string>() + ";";
    return std::regex_replace(texts, std::regex("\\{(\"interface\":\"(\\w+)\")?\\}"), "$2");
}

using Network = DataTest;

TEST_F(Network, WritesItsOptionsAndNoOther) {
    const std::string name = "data_config_network_info: ", deleted = "warn " + name + " delete DNS \n",
                      no_gateway = "warn " + name + " gateway is NULL, will use IP address as gateway\n",
                      primary = "c000:235:c000:236:2001:db8:64:1", secondary = "c000:236:2001:db8:64:1:a:b",
                      six = "warn " + name + " add V6 PrimaryDNS : " + primary + "\nwarn " + name +
                            " add V6 SecondaryDNS : " + secondary + "\nwarn " + name +
                            " add ipv6addr : fe80::a:b:c:d/64\n",
                      dns4 = " dns+=192.0.2.54 dns+=192.0.2.53",
                      dns6 = " dns+=" + primary + " dns+=" + secondary + " ip6addr=fe80::a:b:c:d/64",
                      address = " ipaddr=10.64.1.2";
    Tavrik_DataCallInfo ended = info_of(15, 4);
    ended.netmask_end[3] = 128;
    const std::tuple<Tavrik_DataCallInfo, int, std::string, std::string, std::string> cases[] = {
        {info_of(1, 4), 1, " dns+=9.9.9.9 dns+=8.8.8.8", address + " gateway=10.64.1.1 netmask=255.255.255.0" + dns4,
         deleted},
        {info_of(2, 10, "10.64.0.255"), 0, " dns=9.9.9.9",
         address + " gateway=10.64.0.255 netmask=255.255.0.0" + dns4 + dns6, deleted + six},
        {info_of(3, 6, "0.0.0.0", "0.0.0.0"), -7, "", " gateway=0.0.0.0 netmask=255.0.0.0" + dns6, no_gateway + six},
        {info_of(4, 4, "0.0.0.0"), 1, "", address + " gateway=10.64.1.2 netmask=255.255.255.0" + dns4, no_gateway},
        {info_of(6, 0, "10.1.2.0"), 1, "", " gateway=10.1.2.0 netmask=255.255.0.0", ""},
        {ended, 1, "", address + " gateway=10.64.1.1 netmask=255.255.255.128" + dns4, ""},
    };
    for (const auto &[info, dedicate, before, after, log] : cases) {
        const std::string n = std::to_string(info.cid - 1), wan = "interface wan" + n + " ifname=ccinet" + n,
                          wan6 = "interface wan6" + n + " ifname=ccinet" + n + " proto=dhcpv6 auto=",
                          head = wan + " proto=static auto=1 dedicate=" + std::to_string(dedicate),
                          expected =
                              kLan + section(head + after) + section(wan6 + (info.ip_type < 6 ? "0" : "1")) + "\n";
        put("network", kLan + section(wan + before) + section(wan6 + "0"));
        EXPECT_EQ(did(data_config_network_info, info, dedicate),
                  log + "info " + name + "dc_config_network_info done\n");
        EXPECT_EQ(read_file("/etc/config/network"), expected);
        const std::string dns = shell("uci get network.wan" + n + ".dns").output;
        data_config_network_info(info, dedicate); // nothing grows
        EXPECT_EQ(read_file("/etc/config/network").size(), expected.size());
        EXPECT_EQ(shell("uci get network.wan" + n + ".dns; uci changes").output, dns);
    }
}

TEST_F(Network, WritesDhcpWhereThereIsASection) {
    const std::string other = section("dnsmasq dnsmasq domainneeded=1"), wan = "dhcp wan2 interface=wan2",
                      log = "info data_config_dhcp_info:  start to configure dhcp to master 1 ra relay ndp realy\n"
                            "info data_config_dhcp_info: dc_config_dhcp_info done\n";
    put("dhcp", other);
    EXPECT_EQ(did(data_config_dhcp_info, info_of(3, 4), 0), log);
    EXPECT_EQ(read_file("/etc/config/dhcp"), other);
    put("dhcp", other + section(wan));
    EXPECT_EQ(did(data_config_dhcp_info, info_of(3, 4), 1), log);
    EXPECT_EQ(read_file("/etc/config/dhcp"), other + section(wan + " master=1 ra=relay ndp=relay") + "\n");
}

TEST_F(Network, LogsWhatItCannotWrite) {
    const std::string network = "data_config_network_info: ", dhcp = "data_config_dhcp_info: ",
                      remove = "data_delete_ip_info: ", no_network = " load network file failed\n",
                      no_dhcp = " load dhcp file failed\n", before = read_file("/etc/config/network");
    for (const int cid : {0, 16, 255}) {
        const std::string text = "no network interface has context " + std::to_string(cid) + "\n";
        EXPECT_EQ(did(data_config_network_info, info_of(cid, 10), 1), "warn " + network + text);
        EXPECT_EQ(did(data_config_dhcp_info, info_of(cid, 10), 1), "warn " + dhcp + text);
        EXPECT_EQ(did(data_config_ip_info, info_of(cid, 4), 1), "warn data_config_ip_info: " + text);
        EXPECT_EQ(did(data_delete_ip_info, cid), "-1 warn " + remove + text);
    }
    sim::fault("etc", "*", {{"full", true}});
    std::string log = did(data_config_network_info, info_of(1, 10), 1);
    EXPECT_TRUE(std::regex_search(log, std::regex("uci: /etc/config/network not committed: No space left"))) << log;
    sim::call("clear");
    EXPECT_EQ(read_file("/etc/config/network"), before);
    put("network", kLan); // a section that is missing is not made
    const std::string none = "warn " + network + "no section wan0\nwarn " + network + "no section wan60\n";
    EXPECT_EQ(did(data_config_network_info, info_of(1, 10), 1),
              none + "info " + network + "dc_config_network_info done\n");
    EXPECT_EQ(read_file("/etc/config/network"), kLan);
    for (const char *package : {"network", "dhcp"})
        sim::call("uci", {{"package", package}});
    EXPECT_EQ(did(data_config_network_info, info_of(1, 10), 1), network + no_network);
    EXPECT_EQ(did(data_config_dhcp_info, info_of(1, 10), 1), dhcp + no_dhcp);
    log = did(data_delete_ip_info, 1);
    EXPECT_EQ(log.substr(0, log.find("info ")), "-1 " + remove + no_network + remove + no_dhcp);
    EXPECT_EQ(told("reload {}"), "reload ;"); // and goes on
}

TEST_F(Network, DeletesWhatItHasWritten) {
    const std::string wan = section("interface wan2 ifname=ccinet2"), wan6 = section("interface wan62 ifname=ccinet2"),
                      network = kLan + wan + wan6, dhcp = section("dhcp wan2 interface=wan2");
    put("network", network);
    put("dhcp", dhcp);
    data_config_network_info(info_of(3, 10), 1);
    data_config_dhcp_info(info_of(3, 10), 1);
    for (int i = 0; i < 2; ++i) { // then there is nothing more to delete
        EXPECT_EQ(data_delete_ip_info(3), 0);
        EXPECT_EQ(read_file("/etc/config/network") + read_file("/etc/config/dhcp"), network + "\n" + dhcp + "\n");
        EXPECT_EQ(told("reload {}"), "reload ;");
    }
}

TEST_F(Network, ConfiguresAContextStepByStep) {
    sim::call("state",
              R"({"link_up": false, "pdp": [{"cid": 1, "type": "IPV4V6"}, {"cid": 3}], "contexts": "1"})"_json);
    sim::call("state", R"({"link_up": true, "contexts": "1,3"})"_json);
    data_config_ip_info(info_of(1, 10), 0);
    EXPECT_EQ(told(), "");
    EXPECT_EQ(shell("ifconfig | grep ccinet0:").output, "");
    const auto began = std::chrono::steady_clock::now();
    data_config_ip_info(info_of(1, 10), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(495));
    EXPECT_NE(shell("ifconfig | grep ccinet0:").output, "");
    EXPECT_EQ(shell("uci get network.wan0.dedicate; uci get dhcp.wan0.ra").output, "1\nrelay\n");
    EXPECT_EQ(told(R"(up {"interface":"wan60"})"), "reload ;down lan;up lan;down wan0;up wan0;down wan60;up wan60;");
    data_config_ip_info(info_of(3, 4), 1);
    EXPECT_EQ(told(R"(up {"interface":"wan2"})"), "reload ;down lan;up lan;down wan2;up wan2;");
    EXPECT_EQ(data_send_if_command(14, 0, 6), 0);
    EXPECT_EQ(told(R"(down {"interface":"wan614"})"), "down wan614;");
    EXPECT_EQ(data_up_down_br_lan(0, "guest"), 0);
    EXPECT_EQ(told(), "down guest;");
}

TEST_F(Network, GoesOnWhenTheServiceFails) {
    const std::string send = "data_send_if_command: ", lan = "data_up_down_br_lan: ", ip = "data_config_ip_info: ",
                      reload = "data_reload_network: ", no_link = send + "no ccinet interface is up\n",
                      failed = no_link + ip + " ccinet0 up failed\n", more = failed + "debug " + ip + "count++\n",
                      ended = "info data_ifupdown_complete: interface down or up: ",
                      reloaded = "info dc_reload_network_complete: network reload: ",
                      refused = send + "Failed to ubus invoke: ", invalid = "Invalid argument\n",
                      absent = "Not found\n", late = "Request timed out\n", aborted = "asynchronous request aborted\n",
                      no_id = "Failed to lookup id: Not found\n", no_bus = "Failed to connect to ubus\n";
    EXPECT_EQ(did(data_send_if_command, 0, 1, 4), "-1 " + no_link);
    std::string log = did(data_config_ip_info, info_of(1, 4), 1); // no link at three more attempts
    EXPECT_EQ(log.substr(log.find(send)), more + more + more + failed);
    EXPECT_EQ(told(), "reload ;down lan;up lan;");

    sim::call("state", R"({"pdp": [{"cid": 1}], "contexts": "1"})"_json);
    sim::fault("network.interface", "down *", {{"status", 2}});
    EXPECT_EQ(did(data_up_down_br_lan, 1, "lan"), "2 " + lan + "ifdown fail: " + invalid);
    sim::fault("network.interface", "up *", {{"status", 4}});
    EXPECT_EQ(did(data_up_down_br_lan, 1, "lan"),
              "2 " + lan + "ifdown fail: " + invalid + lan + "ifup fail: " + absent);
    EXPECT_EQ(told(), "down lan;up lan;down lan;up lan;");
    log = sim::log_of([] { // which alone tells of the answers to what nobody waits for
        EXPECT_EQ(data_reload_network(), 0);
        EXPECT_EQ(told("reload {}"), "reload ;");
        usleep(200000);
        EXPECT_EQ(data_send_if_command(0, 1, 4), 0);
        EXPECT_EQ(told(R"(up {"interface":"wan0"})"), "down wan0;up wan0;");
        usleep(300000);
    });
    EXPECT_EQ(log, reloaded + "Success\n" + refused + invalid + ended + invalid + refused + absent + ended + absent);

    // One that does not answer.
    sim::call("clear");
    for (const char *service : {"network", "network.interface"})
        sim::fault(service, "*", {{"drop", true}});
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(did(data_up_down_br_lan, 1, "lan"), "7 " + lan + "ifdown fail: " + late + lan + "ifup fail: " + late);
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(9990));
    EXPECT_EQ(did(data_reload_network), "0 ");
    EXPECT_EQ(did(tavrik_ubus_deinit), reload + aborted + reloaded + late);
    EXPECT_EQ(did(data_send_if_command, 0, 1, 4), "0 ");
    EXPECT_EQ(did(tavrik_ubus_deinit), send + aborted + ended + late + send + aborted + ended + late);

    // None at all.
    for (const char *service : {"network", "network.interface"})
        sim::call("fault", {{"service", service}, {"stop", true}});
    EXPECT_EQ(did(data_reload_network), "-1 " + reload + "lookup network id failed\n");
    EXPECT_EQ(did(data_up_down_br_lan, 1, "lan"), "4 " + lan + no_id);
    EXPECT_EQ(did(data_send_if_command, 0, 1, 4), "-3 " + send + no_id);
    sim::call("fault", {{"service", "bus"}, {"stop", true}});
    EXPECT_EQ(did(data_reload_network), "-1 " + reload + no_bus);
    EXPECT_EQ(did(data_up_down_br_lan, 1, "lan"), "-1 " + lan + no_bus);
    EXPECT_EQ(did(data_send_if_command, 0, 1, 4), "-2 " + send + no_bus);
    tavrik_ubus_deinit();
    log = did([] {
        const NoDescriptors none;
        return data_reload_network();
    });
    EXPECT_TRUE(std::regex_match(log, std::regex("-1 (.*\n)*" + reload + "ubus_thread init failed!\n"))) << log;
}

} // namespace
