// Data calls against the simulated modem: what is sent, which files are made, what is logged.
#include <sys/stat.h>

#include "support/events.h"
#include "support/shell.h"
#include "support/sim.h"

namespace {

using nlohmann::json;
using sim::refused;
using Wire = std::vector<std::string>;

constexpr char kProfiles[] = "/etc/config/data_profile", kStatistics[] = "/etc/stat/data_statistics";

std::string profile(int index, const std::string &apn, const char *type = "0") {
    return "config profile_idx '" + std::to_string(index) + "'\n\toption pdp_type '" + type + "'\n\toption apn '" +
           apn + "'\n\toption auth_type '1'\n\toption usr_name 'me'\n\toption password 'secret'\n";
}
json stored(const std::string &text, json given = json::object()) {
    given["uci"] = {{"data_profile", text}};
    return given;
}
json at(const char *match, json effect) {
    effect["match"] = match;
    return {{"fault", effect}};
}
const json error = {{"error", "ERROR"}}, nothing = json::object();

// The result, the error code that was 77 before, and after success the row of the table.
std::string outcome(int result, int code, int index) {
    std::string text = std::to_string(result) + " " + std::to_string(code);
    if (!result && index < TAVRIK_IDX_CID_COUNT)
        text += " " + std::to_string(g_idx_cid[index].cid) + "," + std::to_string(g_idx_cid[index].reconnect);
    return result || index < TAVRIK_IDX_CID_COUNT ? text : text + " -";
}
template <int Index, int Reconnect = 0>
std::string start() {
    const Tavrik_DataCallReq request = {Index, Reconnect};
    int code = 77;
    const int result = Tavrik_DataCall_Start(&request, &code);
    return outcome(result, code, Index);
}
template <unsigned Index>
std::string stop() {
    int code = 77;
    const int result = Tavrik_DataCall_Stop(Index, &code);
    return outcome(result, code, Index < 16 ? int(Index) : 15);
}
std::string line(const std::string &text, const char *function = "Tavrik_DataCall_Start") {
    return function + (": " + text) + "\n";
}

class DataCall : public sim::AtTest {
  protected:
    ~DataCall() override {
        Tavrik_DataCall_Destroy();
        tavrik_indication_deregister(); // each Destroy() takes one registration away, whether there was one or not
        memset(g_idx_cid, 0, sizeof g_idx_cid);
    }
};

TEST_F(DataCall, Starts) {
    const auto debug = [](const std::string &apn, int type) {
        return "debug " + line("apn:" + apn + ", ip_type:" + std::to_string(type) +
                               ", auth_type:1, username:me, password:secret, reconnect:0");
    };
    const auto bad = [&](const std::string &apn, const std::string &quoted = "") {
        return debug(apn, 0) +
               line("Failed to define pdp AT*ZGDCONT=1,\"IP\",\"" + (quoted.empty() ? apn : quoted) + "\",0");
    };
    const std::string missing = "warn " + line("lookup option faild"), long_apn(63, 'a');
    const auto no_profile = std::regex("Start: [0-9]+, no");
    check({
        {"IPv4",
         stored(profile(0, "internet")),
         start<0>,
         {"AT*ZGDCONT=1,\"IP\",\"internet\",0", "AT+ZGACT=1,1"},
         "0 77 1,0",
         debug("internet", 0)},
        {"IPv6",
         stored(profile(3, "a b.c", "2")),
         start<3>,
         {"AT*ZGDCONT=4,\"IPV6\",\"a b.c\",1", "AT+ZGACT=1,4"},
         "0 77 4,0",
         debug("a b.c", 2)},
        {"both",
         stored(profile(14, "x", "3")),
         start<14>,
         {"AT*ZGDCONT=15,\"IPV4V6\",\"x\",1", "AT+ZGACT=1,15"},
         "0 77 15,0",
         debug("x", 3)},
        {"without a row",
         stored(profile(15, "x", "1")),
         start<15>,
         {"AT*ZGDCONT=16,\"IP\",\"x\",1", "AT+ZGACT=1,16"},
         "0 77 -",
         debug("x", 1)},
        {"unknown type",
         stored(profile(0, "x", "7")),
         start<0>,
         {"AT*ZGDCONT=1,\"IP\",\"x\",0", "AT+ZGACT=1,1"},
         "0 77 1,0",
         debug("x", 7)},
        {"longest name",
         stored(profile(0, long_apn)),
         start<0>,
         {"AT*ZGDCONT=1,\"IP\",\"" + long_apn + "\",0", "AT+ZGACT=1,1"},
         "0 77 1,0",
         debug(long_apn, 0)},
        {"no options",
         stored("config profile_idx '2'\n"),
         start<2>,
         {"AT*ZGDCONT=3,\"IP\",\"\",1", "AT+ZGACT=1,3"},
         "0 77 3,0",
         missing + missing + missing + missing + missing + "debug " +
             line("apn:, ip_type:0, auth_type:0, username:, password:, reconnect:0")},
        {"a name in two lines", stored(profile(0, "a\nAT+ZGACT=0,1")), start<0>, {}, "-1 77", bad("a\nAT+ZGACT=0,1")},
        {"a quote", stored(profile(0, "a\"b")), start<0>, {}, "-1 77", bad("a\"b")},
        {"a carriage return", stored(profile(0, "a\rb")), start<0>, {}, "-1 77", bad("a\rb")},
        {"a control byte", stored(profile(0, "a\x7f")), start<0>, {}, "-1 77", bad("a\x7f")},
        {"a tabulator", stored(profile(0, "a\tb")), start<0>, {}, "-1 77", bad("a\tb")},
        {"index", stored(profile(0, "x")), start<16>, {}, "-1 1", ""},
        {"reconnect", stored(profile(0, "x")), start<0, 1>, {}, "-1 1", ""},
        {"no file", nothing, start<0>, {}, "-1 77", line("uci_load failed")},
        {"not defined",
         stored(profile(0, "x"), at("AT*ZGDCONT*", error)),
         start<0>,
         {"AT*ZGDCONT=1,\"IP\",\"x\",0"},
         "-1 77",
         debug("x", 0) + refused + line("Failed to define pdp AT*ZGDCONT=1,\"IP\",\"x\",0")},
        {"not activated",
         stored(profile(0, "x"), {{"state", {{"attached", false}}}}),
         start<0>,
         {"AT*ZGDCONT=1,\"IP\",\"x\",0", "AT+ZGACT=1,1"},
         "-1 77",
         debug("x", 0) + refused + line("Failed to atctive pdp AT+ZGACT=1,1")},
        {"the answer echoed",
         stored(profile(0, "OK"), {{"state", {{"echo", true}, {"mode", 0}}}}),
         start<0>,
         {"AT*ZGDCONT=1,\"IP\",\"OK\",0", "AT+ZGACT=1,1"},
         "-1 77",
         debug("OK", 0) + refused + line("Failed to atctive pdp AT+ZGACT=1,1")},
    });
    // The name must be the index as it is written, and a stopped profile leaves no trace in the table.
    sim::call("uci", {{"package", "data_profile"}, {"text", profile(3, "x") + "config profile_idx '03'\n"}});
    const std::string log = sim::log_of([] { EXPECT_EQ(start<0>(), "-1 1"); });
    EXPECT_TRUE(std::regex_search(log, no_profile)) << log;
}

TEST_F(DataCall, Stops) {
    const std::string function = "Tavrik_DataCall_Stop";
    check({
        {"one that is up",
         {{"state", {{"pdp", {{{"cid", 1}, {"type", "IP"}}}}, {"contexts", "1"}}}},
         stop<0>,
         {"AT+ZGACT=0,1", "AT*ZGDCONT=1"},
         "0 77 0,0",
         ""},
        {"one never started", nothing, stop<15>, {"AT+ZGACT=0,16", "AT*ZGDCONT=16"}, "0 77 -", ""},
        {"index", nothing, stop<16>, {}, "-1 1", ""},
        {"large index", nothing, stop<4294967295u>, {}, "-1 1", ""},
        {"not deactivated",
         at("AT+ZGACT*", error),
         stop<2>,
         {"AT+ZGACT=0,3"},
         "-1 77",
         refused + line("Failed to atctive pdp AT+ZGACT=0,3", "Tavrik_DataCall_Stop")},
        {"still defined",
         at("AT*ZGDCONT*", error),
         stop<2>,
         {"AT+ZGACT=0,3", "AT*ZGDCONT=3"},
         "0 77 0,0",
         refused + "warn " + line("Failed to atctive pdp AT*ZGDCONT=3", "Tavrik_DataCall_Stop")},
    });
    // What could not be taken down is still up.
    sim::call("uci", {{"package", "data_profile"}, {"text", profile(4, "x")}});
    EXPECT_EQ(start<4>(), "0 77 5,0");
    sim::fault("at", "AT+ZGACT=0,5", {{"error", "ERROR"}, {"count", 1}});
    EXPECT_EQ(stop<4>(), "-1 77");
    EXPECT_EQ(g_idx_cid[4].cid, 5);
    EXPECT_EQ(stop<4>(), "0 77 0,0");

    const Tavrik_DataCallReq request = {};
    int code = 77;
    EXPECT_EQ(sim::log_of([&] {
                  EXPECT_EQ(Tavrik_DataCall_Start(nullptr, &code), -1);
                  EXPECT_EQ(Tavrik_DataCall_Start(&request, nullptr), -1);
                  EXPECT_EQ(Tavrik_DataCall_Stop(0, nullptr), -1);
              }),
              line("Parameter input error") + line("Parameter input error") +
                  line("Parameter input error", "Tavrik_DataCall_Stop"));
    EXPECT_EQ(code, 77);
}

const char kCounters[] = "\toption rx_bytes '0'\n\toption tx_bytes '0'\n\toption rx_pkts '0'\n\toption tx_pkts '0'\n"
                         "\toption rx_dropped_pkts '0'\n\toption tx_dropped_pkts '0'\n";

std::string init_log(Tavrik_DataCb callback = nullptr, int result = -1) {
    return sim::log_of([=] { EXPECT_EQ(Tavrik_DataCall_Init(callback), result); });
}
std::string init_line(const char *text) {
    return line(text, "Tavrik_DataCall_Init");
}

unsigned mode_of(const char *path) {
    struct stat status = {};
    stat(path, &status);
    return status.st_mode & 07777;
}

TEST_F(DataCall, InitMakesFilesAndResetsCounters) {
    umask(022);
    write_file("/etc/config/.data_profile.uci-abcdef", "left by one that was killed");
    EXPECT_EQ(Tavrik_DataCall_Init(nullptr), 0);
    EXPECT_EQ(g_datacll_init_flag, 1);
    EXPECT_EQ(mode_of(kProfiles), 0600u);
    EXPECT_EQ(mode_of(kStatistics), 0644u);
    EXPECT_EQ(read_file(kProfiles) + read_file(kStatistics), "");
    EXPECT_EQ(read_file("/etc/config/.data_profile.uci-abcdef"), "");
    EXPECT_EQ(sim::sent(), Wire{"AT+CGCONTRDP=?"});
    // Once more it leaves the files alone.
    const std::string kept = "config interface_name 'ccinet0'\n\toption rx_bytes '5'\n";
    write_file(kStatistics, kept);
    EXPECT_EQ(init_log(nullptr, 0), "warn " + init_line("datacall has been already inited"));
    EXPECT_EQ(read_file(kStatistics), kept);
    EXPECT_EQ(sim::sent(), Wire{});
    EXPECT_EQ(Tavrik_DataCall_Destroy(), 0);
    EXPECT_EQ(g_datacll_init_flag, 0);

    // What is up gets new counters, in its section or a new one; the others keep theirs.
    write_file(kStatistics, "\nconfig interface_name 'ccinet2'\n\toption rx_bytes '7'\n" + kept);
    sim::call("state", {{"contexts", "1,5"}});
    EXPECT_EQ(Tavrik_DataCall_Init(nullptr), 0);
    EXPECT_EQ(g_idx_cid[0].cid, 1);
    EXPECT_EQ(g_idx_cid[4].cid, 5);
    EXPECT_EQ(read_file(kStatistics),
              "\nconfig interface_name 'ccinet2'\n\toption rx_bytes '7'\n\nconfig interface_name 'ccinet0'\n" +
                  std::string(kCounters) + "\nconfig interface_name 'ccinet4'\n" + kCounters + "\n");
    EXPECT_EQ(Tavrik_DataCall_Destroy(), 0);
    EXPECT_EQ(g_idx_cid[0].cid + g_idx_cid[4].cid, 0);
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_DataCall_Destroy(), -1); }),
              "warn " + line("datacall not init", "Tavrik_DataCall_Destroy"));
}

TEST_F(DataCall, InitStopsAtTheFirstStepThatFails) {
    const auto ends = [](const std::string &text, const std::string &end) {
        EXPECT_TRUE(text.size() >= end.size() && text.substr(text.size() - end.size()) == end) << text;
        EXPECT_EQ(g_datacll_init_flag, 0);
    };
    sim::call("fault", {{"service", "etc"}, {"read_only", true}});
    ends(init_log(), init_line("touch file faild"));
    sim::call("clear");
    EXPECT_EQ(sim::sent(), Wire{});
    write_file(kProfiles, "");
    write_file(kStatistics, "no package");
    ends(init_log(), init_line(" open file error!"));
    EXPECT_EQ(sim::sent(), Wire{});
    // Counters that cannot be written.
    const std::string old = "config interface_name 'ccinet0'\n\toption rx_bytes '5'\n";
    write_file(kStatistics, old);
    sim::call("state", {{"contexts", "1"}});
    sim::call("fault", {{"service", "etc"}, {"read_only", true}});
    EXPECT_NE(init_log().find("uci: /etc/stat/data_statistics not committed"), std::string::npos);
    sim::call("clear");
    EXPECT_EQ(read_file(kStatistics), old);
    // No sockets.
    const auto ignore = [](const Tavrik_DataEvent *) {};
    sim::call("fault", {{"service", "atind"}, {"stop", true}});
    ends(init_log(ignore), init_line("sms indication register failed"));
    sim::call("clear");
    Tavrik_AT_Deinit();
    sim::call("fault", {{"service", "at"}, {"stop", true}});
    ends(init_log(ignore), init_line("Tavrik AT init failed!"));
    sim::call("clear");
    EXPECT_EQ(Tavrik_DataCall_Init(ignore), 0);
}

Events g_events;

void on_data(const Tavrik_DataEvent *event) {
    g_events.add(std::to_string(event->kind) + " " + event->ifname + (event->state ? " up" : " down"));
}

// Two calls at once, each over its own link; the end of one leaves the other.
TEST_F(DataCall, CarriesTwoCallsAtOnce) {
    ASSERT_EQ(Tavrik_DataCall_Init(on_data), 0);
    sim::call("wait", {{"kind", "connect"}, {"text", "atind"}});
    for (const int index : {0, 1}) {
        Tavrik_DataProfile stored = {uint8_t(index), index ? 0u : 3u, "internet", 0, "", ""};
        ASSERT_EQ(Tavrik_DataCall_SetProfile(&stored), 0);
    }
    const auto page = [](const std::string &link) {
        return shell("curl --silent --max-time 10 --interface " + link + " http://192.0.2.1/").output;
    };
    EXPECT_EQ(start<0>(), "0 77 1,0");
    EXPECT_EQ(start<1>(), "0 77 2,0");
    EXPECT_EQ(g_events.take(2), (Wire{"2 ccinet0 up", "2 ccinet1 up"}));
    EXPECT_EQ(page("ccinet0"), "ccinet0\n");
    EXPECT_EQ(page("ccinet1"), "ccinet1\n");
    EXPECT_EQ(stop<0>(), "0 77 0,0");
    EXPECT_EQ(page("ccinet1"), "ccinet1\n");
    EXPECT_EQ(page("ccinet0"), "");
    EXPECT_EQ(g_events.take(1).size(), 1u);
    sim::call("context", {{"cid", 2}, {"state", 0}}); // the network ends it
    EXPECT_EQ(g_events.take(1), Wire{"4 ccinet1 down"});
    EXPECT_EQ(Tavrik_DataCall_Destroy(), 0);
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
}

} // namespace
