// Addresses: texts into records and into their usual form, and those of links. No modem is asked.
#include "data.h"
#include "datacall/netmask.h"

#include <arpa/inet.h>

namespace {

std::string text_of(int family, const void *address) {
    char text[INET6_ADDRSTRLEN];
    return inet_ntop(family, address, text, sizeof text);
}

using Address = DataTest;

TEST_F(Address, NetmaskOfEveryGateway) {
    for (int c = 0; c < 256; ++c)
        for (int d = 0; d < 256; ++d)
            for (const char *end : {"0", "9"}) {
                const auto mask = tavrik::netmask_for(uint8_t(c), uint8_t(d), uint8_t(atoi(end)));
                EXPECT_EQ(text_of(AF_INET, mask.dotted), d != 0 && d != 255 ? "255.255.255." + std::string(end)
                                                         : c == d           ? "255.0.0.0"
                                                                            : "255.255.0.0")
                    << c << "." << d;
            }
}

// All addresses of a record, those that are 0 left out.
std::string fill(int type, const std::string &key, const std::string &text) {
    Tavrik_DataCallInfo info = {};
    Tavrik_PdpText texts;
    info.ip_type = type;
    for (const auto &[name, field] : {std::pair("addr", texts.addr), std::pair("gateway", texts.gateway),
                                      std::pair("dns", texts.dns), std::pair("submask", texts.submask)})
        strncpy(field, key == name ? text.c_str() : "203.0.113.9 2001:db8::9", TAVRIK_PDP_TEXT_SIZE);
    EXPECT_EQ(data_configure_pdp_info(&info, &texts, key.c_str()), 0);
    const void *const places[] = {&info.ipv4_addr,   &info.ipv4_netmask, &info.ipv4_gateway,
                                  &info.ipv4_dns1,   &info.ipv4_dns2,    info.ipv6_addr,
                                  info.ipv6_gateway, info.ipv6_dns1,     info.ipv6_dns2};
    std::string all;
    for (int i = 0; i < 9; ++i)
        all += "amg12AGDE"[i] + ("=" + text_of(i < 5 ? AF_INET : AF_INET6, places[i]) + " ");
    return std::regex_replace(all, std::regex(".=(0\\.0\\.0\\.0|::) "), "");
}

TEST_F(Address, TextsIntoARecord) {
    const std::string pair = "10.0.0.1 2001:db8::1", four = "192.0.2.1 192.0.2.2 2001:db8::1 2001:db8::2",
                      mixed = "2001:db8::1 192.0.2.1 2001:db8::2 192.0.2.2 192.0.2.3 2001:db8::3",
                      wrong = "300.0.0.1 192.0.2.2  :: x 2001:db8::g 2001:db8::2";
    const std::tuple<int, const char *, std::string, std::string> cases[] = {
        {4, "addr", pair, "a=10.0.0.1 "},
        {6, "addr", pair, "A=2001:db8::1 "},
        {10, "addr", "2001:db8::1 10.0.0.1", "a=10.0.0.1 A=2001:db8::1 "},
        {0, "addr", pair, ""},
        {4, "gateway", pair, "g=10.0.0.1 "},
        {6, "gateway", pair, "G=2001:db8::1 "},
        {10, "gateway", pair, "g=10.0.0.1 G=2001:db8::1 "},
        {4, "dns", four, "1=192.0.2.1 2=192.0.2.2 "},
        {6, "dns", four, "D=2001:db8::1 E=2001:db8::2 "},
        {10, "dns", mixed, "1=192.0.2.1 2=192.0.2.2 D=2001:db8::1 E=2001:db8::2 "},
        {10, "dns", wrong, "1=192.0.2.2 E=2001:db8::2 "}, // :: is the first
        {4, "submask", "255.255.255.0", "m=255.255.255.0 "},
        {10, "submask", "255.255.255.0 ffff::", "m=255.255.255.0 "},
        {6, "submask", "255.255.255.0", ""},
        {10, "Addr", pair, ""},
        {4, "dns", std::string(165, 'x') + " 192.0.2.53", "1=192.0.2.53 "}, // full, without a zero byte
    };
    for (const auto &[type, key, text, filled] : cases)
        EXPECT_EQ(fill(type, key, text), filled) << type << " " << key << " " << text;
}

TEST_F(Address, DottedNotation) {
    const std::string six = "32.1.13.184.0.0.0.0.0.0.0.0.0.0.0.1", ones = "255.255.255.255.255.255.255.255";
    const std::pair<std::string, const char *> taken[] = {
        {"10.0.0.1.255.255.255.0", "10.0.0.1"},
        {"010.00.0.001", "10.0.0.1"},
        {six, "2001:db8::1"},
        {ones + "." + ones + "." + six, "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}};
    char text[TAVRIK_IP_TEXT_SIZE] = "-";
    for (const char *dotted : {"", "10.0.0", "10.0.0.1.2", "10.0.0.256", "10.0.0.1.255.255.255.256", "10.0.0.0001",
                               "10..0.1", "10.0.0.", ".10.0.0", "10.0.0.-1", " 10.0.0.1", "10.0.0.1 ", "2001:db8::1"})
        EXPECT_EQ(data_convertDotNotation2IpString(dotted, text), -1) << dotted;
    EXPECT_EQ(data_convertDotNotation2IpString((six + ".0").c_str(), text), -1);
    EXPECT_STREQ(text, "-");
    for (const auto &[dotted, usual] : taken) {
        EXPECT_EQ(data_convertDotNotation2IpString(dotted.c_str(), text), 0) << dotted;
        EXPECT_STREQ(text, usual);
    }
    EXPECT_EQ(data_charCountInStr("a.b..", '.'), 3);
}

TEST_F(Address, RefusesWhatIsMissing) {
    Tavrik_DataCallInfo info = {};
    Tavrik_PdpText texts = {};
    char out[TAVRIK_IP_TEXT_SIZE];
    const std::regex error(
        "-1 (data_configure_pdp_info|data_charCountInStr|data_convertDotNotation2IpString|"
        "data_get_interface_addr6|data_up_down_br_lan|data_send_if_command): Parameter input error\n");
    for (const std::string &outcome :
         {did(data_configure_pdp_info, nullptr, &texts, "addr"), did(data_configure_pdp_info, &info, nullptr, "addr"),
          did(data_configure_pdp_info, &info, &texts, nullptr), did(data_charCountInStr, nullptr, '.'),
          did(data_convertDotNotation2IpString, nullptr, out),
          did(data_convertDotNotation2IpString, "1.2.3.4", nullptr), did(data_get_interface_addr6, nullptr, out, 46),
          did(data_get_interface_addr6, "lo", nullptr, 46), did(data_get_interface_addr6, "lo", out, 0),
          did(data_up_down_br_lan, 2, "lan"), did(data_up_down_br_lan, -1, "lan"), did(data_up_down_br_lan, 1, nullptr),
          did(data_send_if_command, -1, 1, 4), did(data_send_if_command, 15, 1, 4),
          did(data_send_if_command, 0, 1, 10)})
        EXPECT_TRUE(std::regex_match(outcome, error)) << outcome;
}

TEST_F(Address, GlobalAddressOfALink) {
    sim::call("state", R"({"pdp": [{"cid": 1, "type": "IP"}, {"cid": 2, "type": "IPV6"}], "contexts": "1,2"})"_json);
    char out[TAVRIK_IP_TEXT_SIZE] = "-";
    const std::string address = "2001:0db8:0064:0002:0000:0000:0000:0002",
                      found = "0 info data_get_interface_addr6: ccinet1 Global inet6 addr: " + address + "/64\n";
    for (const char *name : {"ccinet0", "ccinet", "ccinet10", "lo", ""}) // link-local alone, and none
        EXPECT_EQ(did(data_get_interface_addr6, name, out, 46), "-1 ");
    const auto asked = [&] {
        const NoDescriptors none;
        return data_get_interface_addr6("ccinet1", out, 46);
    };
    EXPECT_EQ(did(asked), "-1 data_get_interface_addr6:  open if_inet6 faild\n");
    EXPECT_STREQ(out, "-");
    EXPECT_EQ(did(data_get_interface_addr6, "ccinet1", out, 46), found);
    EXPECT_EQ(out, address);
    EXPECT_EQ(did(data_get_interface_addr6, "ccinet1", out, 10), found);
    EXPECT_STREQ(out, "2001:0db8");
}

} // namespace
