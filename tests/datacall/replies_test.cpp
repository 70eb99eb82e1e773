// Reply handlers of the radio interface layer: inside a request, on the loop thread, and with replies as they should
// not be.
#include "data.h"
#include "support/events.h"
#include "ubus/ril.h"

namespace {

std::string call_of(int cid, const std::string &apn, int status = 0, const std::string &type = "IP", char rest = 0) {
    RilDataCall call;
    memset(&call, rest, sizeof call);
    call.status = status;
    call.cid = cid;
    type.copy(call.type, sizeof call.type);
    apn.copy(call.apn, sizeof call.apn);
    return {reinterpret_cast<const char *>(&call), sizeof call};
}

// As libubus hands them over. What it logs.
std::string handle(Tavrik_UbusDataCb handler, uint32_t id, int error, const std::string &data, uint8_t *profile) {
    tavrik::BlobBuf reply;
    rilutil_make_reply(&reply.buf, id, error, data.empty() ? nullptr : data.data(), data.size());
    ubus_request request = {};
    request.priv = profile;
    return did(handler, &request, 0, reply.head());
}

using Replies = DataTest;

TEST_F(Replies, ListOfCalls) {
    const std::string name = "DataCall_Init_cb: ", net3 = call_of(3, "net"),
                      full = std::string(125, 'y') + "net"; // without a zero byte behind it, but with text
    put("data_profile",
        profile("2 apn=net") + profile("x apn=y") + profile("4 apn=net") + profile("5") + profile("15 apn=net"));
    const std::tuple<uint32_t, int, std::string, std::string, std::string> cases[] = {
        {57, 0, call_of(3, "internet"), "", "2:3 4:3 "},
        {57, 0, call_of(3, "internet") + call_of(7, "netx") + call_of(9, "y"), "", "0:9 2:7 4:7 "},
        {57, 0, call_of(1, full, 0, "IP", 'n'), "", "0:1 2:1 4:1 "},
        {57, 0, call_of(1, "Net"), "", ""},
        {57, 0, call_of(0, "net") + call_of(16, "net") + call_of(300, "net") + call_of(INT32_MIN, "net"), "", ""},
        {57, 0, net3 + net3.substr(1), "", "2:3 4:3 "},
        {57, 0, net3.substr(1), "", ""},
        {57, 0, "", "debug " + name + " response_data is NULL\n", ""},
        {57, -2, net3, name + " rilerrno: -2\n", ""},
        {596, 0, net3, name + " The response not for the request\n", ""},
    };
    for (const auto &[id, error, data, log, table] : cases) {
        memset(g_idx_cid, 0, sizeof g_idx_cid);
        EXPECT_EQ(handle(DataCall_Init_cb, id, error, data, nullptr), log);
        EXPECT_EQ(contexts(), table);
    }
    EXPECT_EQ(did(DataCall_Init_cb, nullptr, 0, nullptr), name + "Parse failed\n");
    sim::call("uci", {{"package", "data_profile"}});
    EXPECT_EQ(handle(DataCall_Init_cb, 57, 0, net3, nullptr), name + "uci_load failed\n");
    EXPECT_EQ(did(DataCall_Stop_cb, nullptr, 0, nullptr), "info DataCall_Stop_cb:  deactive data call done\n");
}

TEST_F(Replies, SetUpThatCannotBeConfigured) {
    const std::string name = "DataCall_Start_cb: ", none = name + " null response data\n", t32(32, 't'),
                      strange = "data_convert_ip_proto: unexcept IP TYPE[" + t32 + "]\ninfo " + name +
                                "idx:7, ifname:" + std::string(32, '1') +
                                ", iptype:0\nwarn data_config_ip_info: no network interface has context 0\ninfo " +
                                name,
                      before = read_file("/etc/config/network");
    std::vector<std::tuple<uint32_t, int, std::string, std::string, int>> cases = {
        {596, 0, "", none, 255},
        {596, 0, call_of(3, "net").substr(1), none, 255},
        {596, 3, "", none, 255},
        {596, 3, "x", name + " errorNo 3\n", 7},
        {57, 0, call_of(3, "net"), name + " The response not for the request\n", 7},
        {596, 0, call_of(3, "net", 30), name + "Setup datacall with cause:30\n", 255},
    };
    for (const int cid : {0, 16, 300, INT32_MAX, INT32_MIN}) // which the library has no interface for
        cases.push_back({596, 0, call_of(cid, std::string(128, 'a'), 0, t32, '1'),
                         strange + "start " + std::to_string(cid) + " pdp with 7 profile\n", 7});
    for (const auto &[id, error, data, log, result] : cases) {
        uint8_t profile = 7;
        EXPECT_EQ(handle(DataCall_Start_cb, id, error, data, &profile), log);
        EXPECT_EQ(profile, result);
    }
    EXPECT_EQ(handle(DataCall_Start_cb, 596, 0, call_of(3, "net"), nullptr), name + "error, LINE\n");
    EXPECT_EQ(did(DataCall_Start_cb, nullptr, 0, nullptr), name + "error, LINE\n");
    EXPECT_EQ(contexts() + shell("ls /etc/stat").output, "");
    EXPECT_EQ(read_file("/etc/config/network"), before);
}

Events g_events;
uint8_t g_profile;

int set_up() {
    return tavrik_ubus_invoke(596, DataCall_Start_cb, &g_profile, 20000);
}
void on_sent(void *, int, int32_t) {
    g_events.add(std::to_string(set_up()));
}

// Inside the request of a program's own thread, and on the loop thread.
TEST_F(Replies, SetUp) {
    const SmsMessage message = {.number = "1", .text = "x", .length = 1};
    for (const bool on_loop : {true, false}) {
        Tavrik_DataCall_Destroy();
        sim::call("reset");
        EXPECT_EQ(Tavrik_DataCall_Init(nullptr), 0);
        sim::call("state", R"({"pdp": [{"cid": 1, "type": "IPV4V6", "apn": "internet"}]})"_json);
        g_profile = 2;
        const std::string log = sim::log_of([&] {
            if (on_loop)
                EXPECT_EQ(Tavrik_SMS_SendMsg_AsyncEx(&message, 20000, on_sent, nullptr), 0);
            else
                on_sent(nullptr, 0, 0);
            EXPECT_EQ(g_events.take(1), Texts{"0"});
        });
        EXPECT_NE(log.find("info DataCall_Start_cb: idx:2, ifname:ccinet0, iptype:10\n"), std::string::npos) << log;
        EXPECT_NE(log.find("info DataCall_Start_cb: start 1 pdp with 2 profile\n"), std::string::npos) << log;
        EXPECT_EQ(contexts(), "2:1 ");
        EXPECT_EQ(shell("for of in network.wan0.ipaddr network.wan0.gateway network.wan60.auto dhcp.wan0.ndp; do uci "
                        "get $of; done; cat /etc/stat/data_statistics")
                      .output,
                  "10.64.0.2\n10.64.0.1\n1\nrelay\n" +
                      section("interface_name ccinet0 rx_bytes=0 tx_bytes=0 rx_pkts=0 tx_pkts=0 rx_dropped_pkts=0 "
                              "tx_dropped_pkts=0") +
                      "\n");
        sim::call("wait", {{"text", R"(up {"interface":"wan60"})"}});
    }
    EXPECT_EQ(g_profile, 2);
    // Counters that there are stay, and what has been set up is in the list.
    const std::string counted = section("interface_name ccinet0 rx_bytes=5");
    write_file("/etc/stat/data_statistics", counted);
    put("data_profile", profile("9 apn=inter"));
    EXPECT_EQ(set_up(), 0);
    EXPECT_EQ(read_file("/etc/stat/data_statistics"), counted);
    EXPECT_EQ(tavrik_ubus_invoke(57, DataCall_Init_cb, nullptr, 20000), 0);
    EXPECT_EQ(contexts(), "2:1 9:1 ");
    write_file("/etc/stat/data_statistics", "no package");
    EXPECT_NE(sim::log_of(set_up).find("DataCall_Start_cb:  open file error!\n"), std::string::npos);
    EXPECT_EQ(shell("curl --silent --max-time 10 --interface ccinet0 http://192.0.2.1/").output, "ccinet0\n");
}

} // namespace
