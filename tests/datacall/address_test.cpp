// Addresses: texts into records and into their usual form, and those of links. No modem is asked.
#include "datacall/netmask.h"
#include "support/descriptors.h"
#include "support/shell.h"
#include "support/sim.h"

#include <arpa/inet.h>

namespace {

std::string text_of(int family, const void *address) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(family, address, text, sizeof text);
}

std::string netmask(int c, int d, int end) {
    return text_of(AF_INET, tavrik::netmask_for(uint8_t(c), uint8_t(d), uint8_t(end)).dotted);
}

TEST(Address, NetmaskOfEveryGateway) {
    int others = 0;
    for (int c = 0; c < 256; ++c)
        for (int d = 0; d < 256; ++d) {
            if (d == 255 || d == 0)
                EXPECT_EQ(netmask(c, d, 9), c == d ? "255.0.0.0" : "255.255.0.0");
            else
                others += netmask(c, d, 0) == "255.255.255.0" && netmask(c, d, 9) == "255.255.255.9";
        }
    EXPECT_EQ(others, 254 * 256);
}

// All addresses of a record, those that are 0 left out.
std::string fill(int type, const std::string &key, const std::string &text) {
    Tavrik_DataCallInfo info = {};
    Tavrik_PdpText texts;
    memset(&texts, ' ', sizeof texts);
    info.ip_type = type;
    for (char *field : {texts.addr, texts.gateway, texts.dns, texts.submask})
        strncpy(field, "203.0.113.9 2001:db8::9", TAVRIK_PDP_TEXT_SIZE);
    char *const field = key == "addr"      ? texts.addr
                        : key == "dns"     ? texts.dns
                        : key == "gateway" ? texts.gateway
                                           : texts.submask;
    memset(field, ' ', TAVRIK_PDP_TEXT_SIZE);
    text.copy(field, TAVRIK_PDP_TEXT_SIZE);
    if (text.size() < TAVRIK_PDP_TEXT_SIZE)
        field[text.size()] = 0;
    EXPECT_EQ(data_configure_pdp_info(&info, &texts, key.c_str()), 0);
    std::string all;
    for (const auto &[name, address] :
         {std::pair("a", &info.ipv4_addr), std::pair("m", &info.ipv4_netmask), std::pair("g", &info.ipv4_gateway),
          std::pair("1", &info.ipv4_dns1), std::pair("2", &info.ipv4_dns2)})
        if (*address)
            all += name + ("=" + text_of(AF_INET, address)) + " ";
    const uint8_t none[16] = {};
    for (const auto &[name, address] : {std::pair("A", info.ipv6_addr), std::pair("G", info.ipv6_gateway),
                                        std::pair("D", info.ipv6_dns1), std::pair("E", info.ipv6_dns2)})
        if (memcmp(address, none, 16))
            all += name + ("=" + text_of(AF_INET6, address)) + " ";
    return all;
}

TEST(Address, TextsIntoARecord) {
    const std::string pair = "10.0.0.1 2001:db8::1", four = "192.0.2.1 192.0.2.2 2001:db8::1 2001:db8::2";
    const struct {
        int type;
        const char *key;
        std::string text, filled;
    } cases[] = {
        {4, "addr", pair, "a=10.0.0.1 "},
        {6, "addr", pair, "A=2001:db8::1 "},
        {10, "addr", pair, "a=10.0.0.1 A=2001:db8::1 "},
        {10, "addr", "10.0.0.1", "a=10.0.0.1 "},
        {10, "addr", "2001:db8::1 10.0.0.1", "a=10.0.0.1 A=2001:db8::1 "},
        {0, "addr", pair, ""},
        {4, "gateway", pair, "g=10.0.0.1 "},
        {6, "gateway", pair, "G=2001:db8::1 "},
        {10, "gateway", pair, "g=10.0.0.1 G=2001:db8::1 "},
        {4, "dns", four, "1=192.0.2.1 2=192.0.2.2 "},
        {6, "dns", four, "D=2001:db8::1 E=2001:db8::2 "},
        {10, "dns", four, "1=192.0.2.1 2=192.0.2.2 D=2001:db8::1 E=2001:db8::2 "},
        {10, "dns", "2001:db8::1 192.0.2.1 2001:db8::2 192.0.2.2 192.0.2.3 2001:db8::3",
         "1=192.0.2.1 2=192.0.2.2 D=2001:db8::1 E=2001:db8::2 "},
        {10, "dns", "300.0.0.1 192.0.2.2  :: x 2001:db8::g 2001:db8::2", "1=192.0.2.2 E=2001:db8::2 "}, // :: is one
        {4, "submask", "255.255.255.0", "m=255.255.255.0 "},
        {10, "submask", "255.255.255.0 ffff::", "m=255.255.255.0 "},
        {6, "submask", "255.255.255.0", ""},
        {10, "Addr", pair, ""},
        {4, "addr", "", ""},
        {4, "addr", " 10.0.0.1 ", "a=10.0.0.1 "},
        {4, "dns", std::string(165, 'x') + " 192.0.2.53", "1=192.0.2.53 "}, // full, without a zero byte
    };
    for (const auto &c : cases)
        EXPECT_EQ(fill(c.type, c.key, c.text), c.filled) << c.type << " " << c.key << " " << c.text;
}

TEST(Address, DottedNotation) {
    const std::string six = "32.1.13.184.0.0.0.0.0.0.0.0.0.0.0.1", ones = "255.255.255.255";
    const struct {
        std::string dotted, text; // empty: refused
    } cases[] = {
        {"10.0.0.1", "10.0.0.1"},
        {"10.0.0.1.255.255.255.0", "10.0.0.1"},
        {six, "2001:db8::1"},
        {six + "." + six, "2001:db8::1"},
        {ones + "." + ones + "." + ones + "." + ones, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
        {"010.00.0.001", "10.0.0.1"},
        {"", ""},
        {"10.0.0", ""},
        {"10.0.0.1.2", ""},
        {"10.0.0.256", ""},
        {"10.0.0.1.255.255.255.256", ""},
        {"10.0.0.0001", ""},
        {"10..0.1", ""},
        {"10.0.0.", ""},
        {".10.0.0", ""},
        {"10.0.0.-1", ""},
        {" 10.0.0.1", ""},
        {"10.0.0.1 ", ""},
        {"2001:db8::1", ""},
        {six + ".0", ""},
    };
    for (const auto &c : cases) {
        char text[TAVRIK_IP_TEXT_SIZE] = "";
        EXPECT_EQ(data_convertDotNotation2IpString(c.dotted.c_str(), text), c.text.empty() ? -1 : 0) << c.dotted;
        EXPECT_EQ(text, c.text);
    }
    EXPECT_EQ(data_charCountInStr("a.b..", '.'), 3);
    EXPECT_EQ(data_charCountInStr("", '.'), 0);
}

TEST(Address, RefusesNull) {
    Tavrik_DataCallInfo info = {};
    Tavrik_PdpText texts = {};
    char out[TAVRIK_IP_TEXT_SIZE];
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    const std::string log = sim::log_of([&] {
        for (const int result :
             {data_configure_pdp_info(nullptr, &texts, "addr"), data_configure_pdp_info(&info, nullptr, "addr"),
              data_configure_pdp_info(&info, &texts, nullptr), data_charCountInStr(nullptr, '.'),
              data_convertDotNotation2IpString(nullptr, out), data_convertDotNotation2IpString("1.2.3.4", nullptr),
              data_get_interface_addr6(nullptr, out, sizeof out), data_get_interface_addr6("lo", nullptr, 46),
              data_get_interface_addr6("lo", out, 0), data_up_down_br_lan(2, "lan"), data_up_down_br_lan(-1, "lan"),
              data_up_down_br_lan(1, nullptr), data_send_if_command(-1, 1, 4), data_send_if_command(15, 1, 4),
              data_send_if_command(0, 1, 10)})
            EXPECT_EQ(result, -1);
    });
    std::string expected;
    for (const auto &[name, times] :
         {std::pair("data_configure_pdp_info", 3), std::pair("data_charCountInStr", 1),
          std::pair("data_convertDotNotation2IpString", 2), std::pair("data_get_interface_addr6", 3),
          std::pair("data_up_down_br_lan", 3), std::pair("data_send_if_command", 3)})
        for (int i = 0; i < times; ++i)
            expected += name + std::string(": Parameter input error\n");
    EXPECT_EQ(log, expected);
}

TEST(Address, GlobalAddressOfALink) {
    sim::call("reset");
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    sim::call("state",
              {{"pdp", {{{"cid", 1}, {"type", "IP"}, {"apn", "a"}}, {{"cid", 2}, {"type", "IPV6"}, {"apn", "b"}}}},
               {"contexts", "1,2"}});
    const auto asked = [](const char *name, int size = TAVRIK_IP_TEXT_SIZE) {
        char out[TAVRIK_IP_TEXT_SIZE] = "-";
        const int result = data_get_interface_addr6(name, out, size);
        return std::to_string(result) + " " + out;
    };
    const std::string address = "2001:0db8:0064:0002:0000:0000:0000:0002";
    EXPECT_EQ(sim::log_of([&] { EXPECT_EQ(asked("ccinet1"), "0 " + address); }),
              "info data_get_interface_addr6: ccinet1 Global inet6 addr: " + address + "/64\n");
    EXPECT_EQ(sim::log_of([&] {
                  for (const char *name : {"ccinet0", "ccinet", "ccinet10", "lo", ""}) // link-local alone, and none
                      EXPECT_EQ(asked(name), "-1 -");
              }),
              "");
    EXPECT_EQ(asked("ccinet1", 10), "0 2001:0db8");
    EXPECT_EQ(asked("ccinet1", 1), "0 ");
    EXPECT_EQ(sim::log_of([&] {
                  const NoDescriptors none;
                  EXPECT_EQ(asked("ccinet1"), "-1 -");
              }),
              "data_get_interface_addr6:  open if_inet6 faild\n");
    sim::call("reset");
}

} // namespace
