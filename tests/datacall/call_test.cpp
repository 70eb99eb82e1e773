// Data calls against the simulated modem: what is sent, which files are made, what is logged.
#include "data.h"
#include "support/events.h"

#include <climits>
#include <sys/stat.h>

namespace {

constexpr char kProfiles[] = "/etc/config/data_profile", kStatistics[] = "/etc/stat/data_statistics";

std::string stored(int index, const std::string &apn, const std::string &type = "0") {
    return profile(std::to_string(index) + " auth_type=1 usr_name=me password=secret pdp_type=" + type) +
           "\toption apn '" + apn + "'\n";
}

// The error code that was 77 before, the result, what was logged, sent, and is in the table.
template <class Call, class... Args>
std::string ends(Call call, Args... args) {
    int code = 77;
    const std::string all = did(call, args..., &code);
    return std::to_string(code) + " " + all + sent() + contexts();
}
std::string start(int index, int reconnect = 0) {
    const Tavrik_DataCallReq request = {uint8_t(index), uint8_t(reconnect)};
    return ends(Tavrik_DataCall_Start, &request);
}
std::string stop(unsigned index) {
    return ends(Tavrik_DataCall_Stop, index);
}

using DataCall = DataTest;

TEST_F(DataCall, Starts) {
    const std::string name = "Tavrik_DataCall_Start: ", define = name + "Failed to define pdp ",
                      failed = sim::refused + name + "Failed to atctive pdp AT+ZGACT=1,1\n", a63(63, 'a'),
                      x = R"(AT*ZGDCONT=1,"IP","x",0)", missing = "warn " + name + "lookup option faild\n";
    const auto debug = [&](const std::string &apn, const std::string &type) {
        return "debug " + name + "apn:" + apn + ", ip_type:" + type +
               ", auth_type:1, username:me, password:secret, reconnect:0\n";
    };
    const std::tuple<const char *, int, const char *, std::string, const char *, std::string> rows[] = {
        {"", 0, "0", "internet", "77 0 ", R"(AT*ZGDCONT=1,"IP","internet",0;AT+ZGACT=1,1;0:1 )"},
        {"", 3, "2", "a b.c", "77 0 ", R"(AT*ZGDCONT=4,"IPV6","a b.c",1;AT+ZGACT=1,4;3:4 )"},
        {"", 14, "3", a63, "77 0 ", R"(AT*ZGDCONT=15,"IPV4V6",")" + a63 + R"(",1;AT+ZGACT=1,15;14:15 )"},
        {"", 15, "1", "x", "77 0 ", R"(AT*ZGDCONT=16,"IP","x",1;AT+ZGACT=1,16;)"},
        {"", 0, "7", "x", "77 0 ", x + ";AT+ZGACT=1,1;0:1 "},
        {R"({"attached": false})", 0, "0", "x", "77 -1 ", failed + x + ";AT+ZGACT=1,1;"},
        {R"({"echo": true, "mode": 0})", 0, "0", "OK", "77 -1 ", failed + R"(AT*ZGDCONT=1,"IP","OK",0;AT+ZGACT=1,1;)"},
    };
    for (const auto &[state, index, type, apn, result, end] : rows) {
        sim::call("reset");
        sim::call("state", json::parse(*state ? state : "{}"));
        put("data_profile", stored(index, apn, type));
        EXPECT_EQ(start(index), result + debug(apn, type) + end);
        g_idx_cid[index % 15].cid = 0;
    }
    for (const std::string apn : {"a\nAT+ZGACT=0,1", "a\"b", "a\rb", "a\x1f", "a\x7f"}) {
        put("data_profile", stored(0, apn));
        EXPECT_EQ(start(0), "77 -1 " + debug(apn, "0") + define + R"(AT*ZGDCONT=1,"IP",")" + apn + "\",0\n");
    }
    sim::call("reset");
    put("data_profile", stored(1, "x") + profile("00") + profile("2"));
    EXPECT_EQ(start(2), "77 0 " + missing + missing + missing + missing + missing + "debug " + name +
                            "apn:, ip_type:0, auth_type:0, username:, password:, reconnect:0\n"
                            R"(AT*ZGDCONT=3,"IP","",1;AT+ZGACT=1,3;2:3 )");
    EXPECT_EQ(start(0), "1 -1 " + name + "LINE, no such profile_idx\n2:3 "); // the name is the index as it is written
    EXPECT_EQ(start(16), "1 -1 2:3 ");
    EXPECT_EQ(start(2, 1), "1 -1 2:3 ");
    sim::fault("at", "AT*ZGDCONT*", {{"error", "ERROR"}});
    const std::string second = R"(AT*ZGDCONT=2,"IP","x",1)";
    EXPECT_EQ(start(1), "77 -1 " + debug("x", "0") + sim::refused + define + second + "\n" + second + ";2:3 ");
    sim::call("uci", {{"package", "data_profile"}});
    EXPECT_EQ(start(0), "77 -1 " + name + "uci_load failed\n2:3 ");
    EXPECT_EQ(did(Tavrik_DataCall_Start, nullptr, nullptr), "-1 " + name + "Parameter input error\n");
    const Tavrik_DataCallReq request = {};
    EXPECT_EQ(did(Tavrik_DataCall_Start, &request, nullptr), "-1 " + name + "Parameter input error\n");
}

TEST_F(DataCall, Stops) {
    const std::string name = "Tavrik_DataCall_Stop: ", failed = name + "Failed to atctive pdp ";
    g_idx_cid[2].cid = 3; // as if it were up
    EXPECT_EQ(stop(15), "77 0 AT+ZGACT=0,16;AT*ZGDCONT=16;2:3 ");
    EXPECT_EQ(stop(16), "1 -1 2:3 ");
    EXPECT_EQ(stop(UINT_MAX), "1 -1 2:3 ");
    EXPECT_EQ(did(Tavrik_DataCall_Stop, 2, nullptr), "-1 " + name + "Parameter input error\n");
    sim::fault("at", "*=0,3", {{"error", "ERROR"}, {"count", 1}});
    EXPECT_EQ(stop(2), "77 -1 " + sim::refused + failed + "AT+ZGACT=0,3\nAT+ZGACT=0,3;2:3 "); // what is still up
    sim::fault("at", "AT*ZGDCONT*", {{"error", "ERROR"}});
    EXPECT_EQ(stop(2), "77 0 " + sim::refused + "warn " + failed + "AT*ZGDCONT=3\nAT+ZGACT=0,3;AT*ZGDCONT=3;");
}

TEST_F(DataCall, InitMakesFilesAndResetsCounters) {
    umask(022);
    write_file("/etc/config/.data_profile.uci-abcdef", "left by one that was killed");
    EXPECT_EQ(Tavrik_DataCall_Init(nullptr), 0);
    EXPECT_EQ(g_datacll_init_flag, 1);
    EXPECT_EQ(shell("cd /etc; stat -c '%a %s' config/data_profile stat/data_statistics; ls -A config").output,
              "600 0\n644 0\ndata_profile\ndhcp\nnetwork\nwireless\n");
    EXPECT_EQ(sent(), "AT+CGCONTRDP=?;");
    // Once more it leaves the files alone.
    const std::string kept = section("interface_name ccinet0 rx_bytes=5"),
                      others = section("interface_name ccinet2 rx_bytes=7"),
                      counters = " rx_bytes=0 tx_bytes=0 rx_pkts=0 tx_pkts=0 rx_dropped_pkts=0 tx_dropped_pkts=0";
    write_file(kStatistics, others + kept);
    EXPECT_EQ(did(Tavrik_DataCall_Init, nullptr), "0 warn Tavrik_DataCall_Init: datacall has been already inited\n");
    EXPECT_EQ(read_file(kStatistics), others + kept);
    EXPECT_EQ(sent(), "");
    EXPECT_EQ(Tavrik_DataCall_Destroy(), 0);
    EXPECT_EQ(g_datacll_init_flag, 0);

    // What is up gets new counters, in its section or a new one; the others keep theirs.
    sim::call("state", {{"contexts", "1,5"}});
    EXPECT_EQ(Tavrik_DataCall_Init(nullptr), 0);
    EXPECT_EQ(contexts(), "0:1 4:5 ");
    EXPECT_EQ(read_file(kStatistics), others + section("interface_name ccinet0" + counters) +
                                          section("interface_name ccinet4" + counters) + "\n");
    EXPECT_EQ(Tavrik_DataCall_Destroy(), 0);
    EXPECT_EQ(contexts(), "");
    EXPECT_EQ(did(Tavrik_DataCall_Destroy), "-1 warn Tavrik_DataCall_Destroy: datacall not init\n");
}

TEST_F(DataCall, InitStopsAtTheFirstStepThatFails) {
    const auto fails = [](const json &fault, const std::string &end) {
        if (!fault.is_null())
            sim::call("fault", fault);
        const std::string all = did(Tavrik_DataCall_Init, [](const Tavrik_DataEvent *) {});
        EXPECT_TRUE(std::regex_match(all, std::regex("-1 (.*\n)*Tavrik_DataCall_Init: " + end + "\n"))) << all;
        EXPECT_EQ(g_datacll_init_flag, 0);
        sim::call("clear");
    };
    const json read_only = {{"service", "etc"}, {"read_only", true}};
    const std::string old = section("interface_name ccinet0 rx_bytes=5");
    fails(read_only, "touch file faild");
    write_file(kProfiles, "");
    write_file(kStatistics, "no package");
    fails({}, " open file error!");
    EXPECT_EQ(sent(), "");
    write_file(kStatistics, old);
    sim::call("state", {{"contexts", "1"}});
    fails(read_only, "uci: /etc/stat/data_statistics not committed: Read-only file system");
    EXPECT_EQ(read_file(kStatistics), old);
    fails({{"service", "atind"}, {"stop", true}}, "sms indication register failed");
    Tavrik_AT_Deinit();
    fails({{"service", "at"}, {"stop", true}}, "Tavrik AT init failed!");
    EXPECT_EQ(Tavrik_DataCall_Init(nullptr), 0);
}

Events g_events;

void on_data(const Tavrik_DataEvent *event) {
    g_events.add(std::to_string(event->kind) + " " + event->ifname + (event->state ? " up" : " down"));
}

// Two calls at once, each over its own link; the end of one leaves the other.
TEST_F(DataCall, CarriesTwoCallsAtOnce) {
    ASSERT_EQ(Tavrik_DataCall_Init(on_data), 0);
    sim::call("wait", {{"kind", "connect"}, {"text", "atind"}});
    put("data_profile", stored(0, "internet", "3") + stored(1, "internet"));
    const auto page = [](const std::string &link) {
        return shell("curl --silent --max-time 10 --interface " + link + " http://192.0.2.1/").output;
    };
    EXPECT_EQ(start(0).substr(0, 5), "77 0 ");
    EXPECT_EQ(start(1).substr(0, 5), "77 0 ");
    EXPECT_EQ(g_events.take(2), (Texts{"2 ccinet0 up", "2 ccinet1 up"}));
    EXPECT_EQ(page("ccinet0") + page("ccinet1"), "ccinet0\nccinet1\n");
    EXPECT_EQ(stop(0), "77 0 AT+ZGACT=0,1;AT*ZGDCONT=1;1:2 ");
    EXPECT_EQ(page("ccinet1") + page("ccinet0"), "ccinet1\n");
    EXPECT_EQ(g_events.take(1).size(), 1u);
    sim::call("context", {{"cid", 2}, {"state", 0}}); // the network ends it
    EXPECT_EQ(g_events.take(1), Texts{"4 ccinet1 down"});
    EXPECT_EQ(Tavrik_DataCall_Destroy(), 0);
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
}

} // namespace
