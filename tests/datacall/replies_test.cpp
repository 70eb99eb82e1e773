// Reply handlers of the radio interface layer: inside a request, on the loop thread, and with replies as they should
// not be.
#include <array>

#include "bus.h"
#include "rilutil.h"
#include "support/events.h"
#include "support/shell.h"
#include "support/sim.h"

namespace {

using nlohmann::json;

std::string call_of(int status, int cid, const std::string &apn, const std::string &type = "IP", char rest = 0) {
    RilDataCall call;
    memset(&call, rest, sizeof call);
    call.status = status;
    call.cid = cid;
    type.copy(call.type, sizeof call.type);
    apn.copy(call.apn, sizeof call.apn);
    std::string("usb7").copy(call.ifname, sizeof call.ifname);
    std::string("10.64.1.2 2001:db8::2").copy(call.addr, sizeof call.addr);
    std::string("10.64.1.1").copy(call.gateway, sizeof call.gateway);
    return {reinterpret_cast<const char *>(&call), sizeof call};
}

// As libubus hands them over. What it logs.
std::string handle(Tavrik_UbusDataCb handler, uint32_t id, int error, const std::string &data, uint8_t *profile) {
    blob_buf reply = {};
    blob_buf_init(&reply, 0);
    rilutil_make_reply(&reply, id, error, data.empty() ? nullptr : data.data(), data.size());
    ubus_request request = {};
    request.priv = profile;
    const std::string log = sim::log_of([&] { handler(&request, 0, reply.head); });
    blob_buf_free(&reply);
    return log;
}

std::string table() {
    std::string text;
    for (const Tavrik_IdxCid &row : g_idx_cid)
        text += std::to_string(row.cid) + " ";
    return text;
}
std::string table_with(std::initializer_list<std::pair<int, int>> rows) {
    int cids[TAVRIK_IDX_CID_COUNT] = {};
    for (const auto &[index, cid] : rows)
        cids[index] = cid;
    std::string text;
    for (const int cid : cids)
        text += std::to_string(cid) + " ";
    return text;
}

class Replies : public testing::Test {
  protected:
    Replies() {
        sim::call("reset");
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
        EXPECT_EQ(Tavrik_DataCall_Init(nullptr), 0);
    }
    ~Replies() override {
        clear();
        Tavrik_AT_Deinit();
        tavrik_ubus_deinit();
        sim::call("reset");
    }
    static void clear() { Tavrik_DataCall_Destroy(); }
};

TEST_F(Replies, ListOfCalls) {
    const std::string name = "DataCall_Init_cb: ",
                      stored = "config profile_idx '2'\n\toption apn 'net'\nconfig profile_idx 'x'\n\toption apn 'y'\n"
                               "config profile_idx '4'\n\toption apn 'net'\nconfig profile_idx '5'\n"
                               "config profile_idx '15'\n\toption apn 'net'\n";
    sim::call("uci", {{"package", "data_profile"}, {"text", stored}});
    const std::string full = std::string(125, 'y') + "net"; // without a zero byte behind it, but with text
    const struct {
        uint32_t id;
        int error;
        std::string data, log, table;
    } cases[] = {
        {57, 0, call_of(0, 3, "internet"), "", table_with({{2, 3}, {4, 3}})},
        {57, 0, call_of(0, 3, "internet") + call_of(0, 7, "netx") + call_of(0, 9, "y"), "",
         table_with({{0, 9}, {2, 7}, {4, 7}})},
        {57, 0, call_of(0, 1, full, "IP", 'n'), "", table_with({{0, 1}, {2, 1}, {4, 1}})},
        {57, 0, call_of(0, 1, "Net"), "", table_with({})},
        {57, 0, call_of(0, 0, "net") + call_of(0, 16, "net") + call_of(0, 300, "net") + call_of(0, INT32_MIN, "net"),
         "", table_with({})},
        {57, 0, call_of(0, 3, "net") + call_of(0, 4, "net").substr(1), "", table_with({{2, 3}, {4, 3}})},
        {57, 0, call_of(0, 3, "net").substr(1), "", table_with({})},
        {57, 0, "", "debug " + name + " response_data is NULL\n", table_with({})},
        {57, -2, call_of(0, 3, "net"), name + " rilerrno: -2\n", table_with({})},
        {596, 0, call_of(0, 3, "net"), name + " The response not for the request\n", table_with({})},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(handle(DataCall_Init_cb, c.id, c.error, c.data, nullptr), c.log);
        EXPECT_EQ(table(), c.table);
        clear();
        Tavrik_DataCall_Init(nullptr);
    }
    EXPECT_EQ(sim::log_of([] { DataCall_Init_cb(nullptr, 0, nullptr); }), name + "Parse failed\n");
    sim::call("uci", {{"package", "data_profile"}});
    EXPECT_EQ(handle(DataCall_Init_cb, 57, 0, call_of(0, 3, "net"), nullptr), name + "uci_load failed\n");
    EXPECT_EQ(sim::log_of([] { DataCall_Stop_cb(nullptr, 0, nullptr); }),
              "info DataCall_Stop_cb:  deactive data call done\n");
}

TEST_F(Replies, SetUpThatFailed) {
    const std::string name = "DataCall_Start_cb: ", none = name + " null response data\n";
    const struct {
        uint32_t id;
        int error;
        std::string data, log;
        int profile;
    } cases[] = {
        {596, 0, "", none, 255},
        {596, 0, call_of(0, 3, "net").substr(1), none, 255},
        {596, 3, "", none, 255},
        {596, 3, "x", name + " errorNo 3\n", 7},
        {57, 0, call_of(0, 3, "net"), name + " The response not for the request\n", 7},
        {596, 0, call_of(30, 3, "net"), name + "Setup datacall with cause:30\n", 255},
    };
    for (const auto &c : cases) {
        uint8_t profile = 7;
        EXPECT_EQ(handle(DataCall_Start_cb, c.id, c.error, c.data, &profile), c.log);
        EXPECT_EQ(profile, c.profile);
    }
    uint8_t profile = 7;
    ubus_request request = {};
    request.priv = &profile;
    EXPECT_EQ(sim::log_of([&] { DataCall_Start_cb(&request, 0, nullptr); }), none);
    EXPECT_EQ(profile, 255);
    for (ubus_request *without : {static_cast<ubus_request *>(nullptr), &request}) {
        request.priv = nullptr;
        const std::string log = sim::log_of([&] { DataCall_Start_cb(without, 0, nullptr); });
        EXPECT_TRUE(std::regex_match(log, std::regex(name + "error, [0-9]+\n"))) << log;
    }
    EXPECT_EQ(table(), table_with({}));
    EXPECT_EQ(read_file("/etc/stat/data_statistics"), "");
}

// Contexts that the library has no interface for.
TEST_F(Replies, SetUpOfStrangeContexts) {
    const std::string before = read_file("/etc/config/network");
    for (const int cid : {0, 16, 300, INT32_MAX, INT32_MIN}) {
        uint8_t profile = 2;
        const std::string log = handle(DataCall_Start_cb, 596, 0,
                                       call_of(0, cid, std::string(128, 'a'), std::string(32, 't'), '1'), &profile);
        EXPECT_NE(log.find("info DataCall_Start_cb: start " + std::to_string(cid) + " pdp with 2 profile\n"),
                  std::string::npos)
            << log;
        EXPECT_NE(log.find("data_convert_ip_proto: unexcept IP TYPE[" + std::string(32, 't') + "]\n"),
                  std::string::npos);
        EXPECT_EQ(profile, 2);
    }
    EXPECT_EQ(table(), table_with({}));
    EXPECT_EQ(read_file("/etc/config/network"), before);
    EXPECT_EQ(read_file("/etc/stat/data_statistics"), "");
}

void check_configured(const std::string &log) {
    EXPECT_NE(log.find("info DataCall_Start_cb: idx:2, ifname:ccinet0, iptype:10\n"), std::string::npos) << log;
    EXPECT_NE(log.find("info DataCall_Start_cb: start 1 pdp with 2 profile\n"), std::string::npos) << log;
    EXPECT_EQ(table(), table_with({{2, 1}}));
    EXPECT_EQ(shell("uci get network.wan0.ipaddr; uci get network.wan0.gateway; uci get network.wan60.auto; uci get "
                    "dhcp.wan0.ndp;"
                    "uci -c /etc/stat get data_statistics.ccinet0.rx_bytes")
                  .output,
              "10.64.0.2\n10.64.0.1\n1\nrelay\n0\n");
    sim::call("wait", {{"kind", "network.interface"}, {"text", "up {\"interface\":\"wan60\"}"}});
}

const json context = {{"pdp", {{{"cid", 1}, {"type", "IPV4V6"}, {"apn", "internet"}}}}};

TEST_F(Replies, SetUpInsideARequest) {
    sim::call("state", context);
    uint8_t profile = 2;
    check_configured(sim::log_of([&] { EXPECT_EQ(tavrik_ubus_invoke(596, DataCall_Start_cb, &profile, 20000), 0); }));
    EXPECT_EQ(profile, 2);
    // Counters that there are stay.
    EXPECT_EQ(shell("uci -c /etc/stat set data_statistics.ccinet0.rx_bytes=5; uci -c /etc/stat commit").code, 0);
    EXPECT_EQ(tavrik_ubus_invoke(596, DataCall_Start_cb, &profile, 20000), 0);
    EXPECT_EQ(shell("uci -c /etc/stat get data_statistics.ccinet0.rx_bytes").output, "5\n");
    // And what it has set up is in the list.
    EXPECT_EQ(Tavrik_DataCall_SetProfile(std::array{Tavrik_DataProfile{9, 0, "inter", 0, "", ""}}.data()), 0);
    EXPECT_EQ(tavrik_ubus_invoke(57, DataCall_Init_cb, nullptr, 20000), 0);
    EXPECT_EQ(table(), table_with({{2, 1}, {9, 1}}));
    write_file("/etc/stat/data_statistics", "no package");
    EXPECT_NE(sim::log_of([&] {
                  tavrik_ubus_invoke(596, DataCall_Start_cb, &profile, 20000);
              }).find("DataCall_Start_cb:  open file error!\n"),
              std::string::npos);
    EXPECT_EQ(shell("curl --silent --max-time 10 --interface ccinet0 http://192.0.2.1/").output, "ccinet0\n");
}

Events g_events;

TEST_F(Replies, SetUpOnTheLoopThread) {
    sim::call("state", context);
    SmsMessage message = {};
    strcpy(message.number, "1");
    strcpy(message.text, "x");
    message.length = 1;
    static uint8_t profile;
    profile = 2;
    const auto on_sent = [](void *, int, int32_t) {
        g_events.add(std::to_string(tavrik_ubus_invoke(596, DataCall_Start_cb, &profile, 20000)));
    };
    check_configured(sim::log_of([&] {
        EXPECT_EQ(Tavrik_SMS_SendMsg_AsyncEx(&message, 20000, on_sent, nullptr), 0);
        EXPECT_EQ(g_events.take(1), std::vector<std::string>{"0"});
    }));
}

} // namespace
