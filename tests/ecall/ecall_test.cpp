// eCall against the simulated modem: what is sent, what comes out, what is logged.
#include <chrono>
#include <csignal>

#include "support/descriptors.h"
#include "support/events.h"
#include "support/sim.h"

namespace {

using nlohmann::json;
using sim::refused;
using Wire = std::vector<std::string>;

Tavrik_EcallReq request(int length, int type = 0, int automatic = 0, const std::string &number = "+4989") {
    Tavrik_EcallReq made;
    memset(&made, '#', sizeof made);
    made.msd_len = length;
    const uint8_t bytes[] = {0x01, 0xAB, 0xFF};
    for (size_t i = 0; i < sizeof made.msd; ++i)
        made.msd[i] = bytes[i % 3];
    made.call_type = type;
    made.auto_trigger = automatic;
    number.copy(made.test_number, sizeof made.test_number);
    if (number.size() < sizeof made.test_number)
        made.test_number[number.size()] = 0;
    return made;
}

template <int Length, int Type, int Automatic>
std::string start() {
    const Tavrik_EcallReq made = request(Length, Type, Automatic);
    return std::to_string(Tavrik_Ecall_Start(&made));
}
constexpr auto manual = start<3, 0, 0>;
constexpr auto automatic = start<3, 2, -1>;
constexpr auto test = start<3, 1, 7>;

std::string test_long_number() {
    const Tavrik_EcallReq made = request(3, 1, 0, "12345678901234567890123456789012"); // no zero byte behind it
    return std::to_string(Tavrik_Ecall_Start(&made));
}

template <int Length>
std::string update() {
    const Tavrik_EcallReq made = request(Length);
    return std::to_string(Tavrik_Ecall_UpdateMSD(&made));
}

template <int (*Run)()>
std::string simple() {
    return std::to_string(Run());
}

std::string cause() {
    int number = 77;
    char text[TAVRIK_FAIL_CAUSE_SIZE] = "-";
    const int result = Tavrik_GetEcallFailCause(&number, text);
    return std::to_string(result) + " " + std::to_string(number) + " " + text;
}

json at(const char *match, json effect, json given = json::object()) {
    effect["match"] = match;
    given["fault"] = effect;
    return given;
}
json ril(json effect) {
    return {{"ril", effect}};
}

const json error = {{"error", "ERROR"}};
const std::string msd = "AT*ECALLMSD=\"01ABFF\"", ask = "at*ecallonly?", only = "AT*ECALLONLY=";

std::string line(const std::string &text, const char *function = "Tavrik_Ecall_Start") {
    return function + (": " + text) + "\n";
}

class Ecall : public sim::AtTest {};

TEST_F(Ecall, Starts) {
    std::string longest;
    for (int i = 0; i < 140; ++i)
        longest += i % 3 == 0 ? "01" : i % 3 == 1 ? "AB" : "FF";
    const std::string data = line("3:01ABFF");
    check({
        {"by hand", json::object(), manual, {msd, "AT+CECALL=2"}, "0", data},
        {"automatically", json::object(), automatic, {msd, "AT+CECALL=3"}, "0", data},
        {"without data", json::object(), start<0, 0, 1>, {"AT*ECALLMSD=\"\"", "AT+CECALL=3"}, "0", line("0:")},
        {"with the longest data",
         json::object(),
         start<140, 0, 0>,
         {"AT*ECALLMSD=\"" + longest + "\"", "AT+CECALL=2"},
         "0",
         line("140:" + longest)},
        {"too long data", json::object(), start<141, 0, 0>, {}, "-1", line("msd input error")},
        {"negative length", json::object(), start<-1, 1, 0>, {}, "-1", line("msd input error")},
        {"data refused", at("AT*ECALLMSD*", error), manual, {msd}, "-1", data + refused + line("ecall msd set failed")},
        {"by hand refused",
         at("AT+CECALL=2", error),
         manual,
         {msd, "AT+CECALL=2"},
         "-1",
         data + refused + line("ecall manually start failed")},
        {"automatically refused",
         at("*", {{"close", true}, {"nth", 2}}),
         automatic,
         {msd, "AT+CECALL=3"},
         "-1",
         data + "Tavrik_AT_Send: read error!\n" + line("ecall automatically start failed")},
    });
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_Ecall_Start(nullptr), -1); }), line("msd input error"));
}

TEST_F(Ecall, StartsATestCall) {
    const std::string data = line("3:01ABFF"), none = line("No model information found.");
    const auto sent = [](const std::string &setting, bool called = true) {
        Wire wire = {msd, ask, only + setting + ",+4989"};
        if (called)
            wire.push_back("AT+CECALL=0");
        return wire;
    };
    const auto told = [&](const std::string &text) { return data + line("Model: " + text); };
    const auto raw = [](const std::string &text) { return at(ask.c_str(), {{"raw", text}}); };
    const std::string c63(63, '7');
    check({
        {"as it is", json::object(), test, sent("0"), "0", told("0")},
        {"as it is, the other", {{"state", {{"ecall_only", 1}}}}, test, sent("1"), "0", told("1")},
        {"number of full length",
         json::object(),
         test_long_number,
         {msd, ask, only + "0,12345678901234567890123456789012", "AT+CECALL=0"},
         "0",
         told("0")},
        {"ends at a carriage return", raw("\r\n*ECALLONLY: 1\r\r\n\r\nOK\r\n"), test, sent("1"), "0", told("1")},
        {"the first of two", raw("\r\n*ECALLONLY: 1,2\r\n*ECALLONLY: 0,2\r\nOK\r\n"), test, sent("1"), "0", told("1")},
        {"nothing", at(ask.c_str(), error), test, sent(""), "0", data + none},
        {"nothing to cut out", raw("\r\n*ECALLONLY:1\r\n\r\nOK\r\n"), test, sent(""), "0", told("")},
        {"100 characters", raw("\r\n*ECALLONLY: " + std::string(100, '7') + "\r\n\r\nOK\r\n"), test, sent(c63, false),
         "-1", told(c63) + refused + line(" test ecallonly failed")},
        {"no server for the program", at(ask.c_str(), {{"close", true}}), test, sent(""), "0", data + none},
        {"the command after it refused", at("AT+CECALL=0", error), test, sent("0"), "-1",
         told("0") + refused + line("ecall test start failed")},
        {"the third command refused", at("AT*", {{"error", 3}, {"nth", 2}}), test, sent("0", false), "-1",
         told("0") + refused + line(" test ecallonly failed")},
    });
}

// A program that hangs, and what it has started, is gone after 3 s.
TEST_F(Ecall, DoesNotHangOnTheProgram) {
    sim::fault("at", ask, {{"drop", true}});
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(test(), "0"); }), line("3:01ABFF") + line("No model information found."));
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(2995));
    sim::call("wait", {{"kind", "disconnect"}, {"text", "at"}});
    EXPECT_EQ(sim::sent(), (Wire{msd, ask, only + ",+4989", "AT+CECALL=0"}));
}

// Where SIGCHLD is ignored nobody learns how a command ended.
TEST_F(Ecall, RunsTheProgramInAnyHost) {
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(test(), "0"); }), line("3:01ABFF") + line("Model: 0"));
    signal(SIGCHLD, SIG_DFL);
}

TEST_F(Ecall, EndsTheProcessWithoutAShell) {
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_EXIT(
        {
            std::atexit([] { // the leak sanitizer opens files when the process ends
                rlimit all;
                getrlimit(RLIMIT_NOFILE, &all);
                all.rlim_cur = all.rlim_max;
                setrlimit(RLIMIT_NOFILE, &all);
            });
            const NoDescriptors none;
            test();
        },
        testing::ExitedWithCode(1), "^popen: Too many open files\n$");
    EXPECT_EQ(sim::sent(), Wire{msd});
}

TEST_F(Ecall, ObeysSimpleOrders) {
    const auto info = [](const char *function, const char *text) { return "info " + line(text, function); };
    const std::string push = info("Tavrik_Ecall_PushMSD", "call push"),
                      leave = info("Tavrik_Ecall_DeregisterNetwork", "deregister from network"),
                      enter = info("Tavrik_Ecall_RegisterNetwork", "register in network"),
                      bad = line("msd input error", "Tavrik_Ecall_UpdateMSD");
    check({
        {"end", at("AT+CECALL=5", {{"raw", "\r\nOK\r\n"}}), simple<Tavrik_Ecall_End>, {"AT+CECALL=5"}, "0", ""},
        {"nothing to end", json::object(), simple<Tavrik_Ecall_End>, {"AT+CECALL=5"}, "-1", refused},
        {"push",
         at("AT*ECALLPUSH", {{"raw", "\r\nOK\r\n"}}),
         simple<Tavrik_Ecall_PushMSD>,
         {"AT*ECALLPUSH"},
         "0",
         push},
        {"nothing to push", json::object(), simple<Tavrik_Ecall_PushMSD>, {"AT*ECALLPUSH"}, "-1", push + refused},
        {"leave the network", json::object(), simple<Tavrik_Ecall_DeregisterNetwork>, {"AT*ECALLREG=0"}, "0", leave},
        {"not left",
         at("AT*", error),
         simple<Tavrik_Ecall_DeregisterNetwork>,
         {"AT*ECALLREG=0"},
         "-1",
         leave + refused},
        {"enter the network", json::object(), simple<Tavrik_Ecall_RegisterNetwork>, {"AT*ECALLREG=1"}, "0", enter},
        {"not entered",
         at("AT*", error),
         simple<Tavrik_Ecall_RegisterNetwork>,
         {"AT*ECALLREG=1"},
         "-1",
         enter + refused},
        {"new data", json::object(), update<3>, {msd}, "0", ""},
        {"new data refused", at("AT*", error), update<3>, {msd}, "-1", refused},
        {"too long new data", json::object(), update<141>, {}, "-1", bad},
        {"new data of negative length", json::object(), update<INT32_MIN>, {}, "-1", bad},
    });
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_Ecall_UpdateMSD(nullptr), -1); }), bad);
}

// All settings as they are sent, with their lines in the log.
const struct {
    const char *one, *other; // with value 1, and the highest one
    const char *success[2], *failure[2];
} settings[] = {
    {"AT*ECALLONLY=1",
     "AT*ECALLONLY=0",
     {"info ecallonly success", "info  not ecallonly success"},
     {"ecallonly failed", "not ecallonly failed"}},
    {"AT*ECALLMODE=\"ERA\"",
     "AT*ECALLMODE=\"EU\"",
     {"info set ERA mode success", "info set EU mode success"},
     {"set ERA mode failed", "set EU mode failed"}},
    {"AT*ECALLTIMER=cleardown,1",
     "AT*ECALLTIMER=cleardown,4294967295",
     {"info set T2 success"},
     {"info set T2 failed"}},
    {"AT*ECALLDATA=5,1,1", "AT*ECALLDATA=5,1,65535", {"info set T5 success"}, {"info set T5 failed"}},
    {"AT*ECALLDATA=5,2,1", "AT*ECALLDATA=5,2,65535", {"info set T6 success"}, {"info set T6 failed"}},
    {"AT*ECALLDATA=5,3,1", "AT*ECALLDATA=5,3,65535", {"info set T7 success"}, {"info set T7 failed"}},
    {"AT*ECALLTIMER=callback,1", "AT*ECALLTIMER=callback,4294967295", {"info set T9 success"}, {"info set T9 failed"}},
    {"AT*ECALLTIMER=dereg,1", "AT*ECALLTIMER=dereg,4294967295", {"info set T10 success"}, {"info set T10 failed"}},
    {"AT*ECALLTIMER=redialcnt,1",
     "AT*ECALLTIMER=redialcnt,4294967295",
     {"info set redail number success"},
     {"info set redail number failed"}},
    {"AT*ECALLTIMER=smsmsdcnt,1",
     "AT*ECALLTIMER=smsmsdcnt,4294967295",
     {"info set sms resend number success"},
     {"info set sms resend number failed"}},
    {"AT*ECALLTIMER=redialtmr,1",
     "AT*ECALLTIMER=redialtmr,65535",
     {"info set redail timer success"},
     {"info set redail timer failed"}},
    {"AT*ECALLTIMER=sms,1",
     "AT*ECALLTIMER=sms,65535",
     {"info set sms resend timer success"},
     {"info set sms resend timer failed"}},
    {"AT*ECALLTIMER=dial,1",
     "AT*ECALLTIMER=dial,4294967295",
     {"info set dail set up timer success"},
     {"info set dail set up timer failed"}},
    {"AT*ECALLSMSNUM=1",
     "AT*ECALLSMSNUM=4294967295",
     {"info set SMS number for send MSD success"},
     {"info set SMS number for send MSD failed"}},
};

// Every flag with `flag`, every value 1 or, with `highest`, all bits.
Tavrik_EcallConfig config(int flag, bool highest) {
    Tavrik_EcallConfig made;
    memset(&made, highest ? 0xFF : 0, sizeof made);
    if (!highest) {
        made.ecallonly = 1;
        made.t5 = made.t6 = made.t7 = made.redialtmr = made.sms = 1;
        made.mode = made.t2 = made.t9 = made.t10 = made.dial = made.redialcnt = made.smsmsdcnt = made.smsnum = 1;
    }
    for (uint8_t *valid : {&made.ecallonly_valid, &made.mode_valid, &made.t2_valid, &made.t5_valid, &made.t6_valid,
                           &made.t7_valid, &made.t9_valid, &made.t10_valid, &made.dial_valid, &made.redialcnt_valid,
                           &made.smsmsdcnt_valid, &made.redialtmr_valid, &made.sms_valid, &made.smsnum_valid})
        *valid = uint8_t(flag);
    return made;
}

TEST_F(Ecall, MakesSettingsInTheirOrder) {
    for (const bool highest : {false, true})
        for (const bool fails : {false, true}) {
            if (fails)
                sim::fault("at", "*", error);
            Wire wire;
            std::string log;
            for (const auto &setting : settings) {
                const char *const(&texts)[2] = fails ? setting.failure : setting.success;
                const std::string text = highest && texts[1] ? texts[1] : texts[0];
                const bool info = text.rfind("info ", 0) == 0;
                wire.push_back(highest ? setting.other : setting.one);
                log += (fails ? refused : "") + (info ? "info " : "") +
                       line(info ? text.substr(5) : text, "Tavrik_Ecall_Set_Config_Info");
            }
            EXPECT_EQ(sim::log_of([&] { Tavrik_Ecall_Set_Config_Info(config(1, highest)); }), log);
            EXPECT_EQ(sim::sent(), wire);
            sim::call("clear");
        }
    for (const int flag : {0, 2, 255})
        EXPECT_EQ(sim::log_of([&] { Tavrik_Ecall_Set_Config_Info(config(flag, true)); }), "");
    EXPECT_TRUE(sim::sent().empty());
}

TEST_F(Ecall, MakesOneSettingAndNoOther) {
    Tavrik_EcallConfig one = config(2, false);
    one.dial_valid = 1;
    one.dial = 90;
    one.mode_valid = 1;
    one.mode = 2;
    one.ecallonly_valid = 1;
    one.ecallonly = 2;
    Tavrik_Ecall_Set_Config_Info(one);
    EXPECT_EQ(sim::sent(), (Wire{"AT*ECALLONLY=0", "AT*ECALLMODE=\"EU\"", "AT*ECALLTIMER=dial,90"}));
    const json state = sim::call("state")["state"];
    EXPECT_EQ(state["ecall_mode"].get<std::string>() + " " + state["ecall_dial"].get<std::string>(), "EU 90");
}

TEST_F(Ecall, TellsTheCause) {
    const Wire wire = {"ril 18"};
    const std::string name = "Tavrik_GetEcallFailCause: ", kept = "0 77 -";
    const auto is = [](int number) { return json{{"state", {{"fail_cause", number}}}}; };
    check({
        {"listed", is(57), cause, wire, "0 57 57 Bearer capability not authorized", ""},
        {"not listed", is(2), cause, wire, "0 2 127 Interworking: unspecified", ""},
        {"beyond", is(500), cause, wire, "0 500 127 Interworking: unspecified", ""},
        {"all bits", is(-1), cause, wire, "0 -1 127 Interworking: unspecified", ""},
        {"no data", ril({{"data", nullptr}}), cause, wire, kept, name + "no response data\n"},
        {"3 bytes", ril({{"data", "390000"}}), cause, wire, kept, name + "no response data\n"},
        {"of another request", ril({{"id", 9}}), cause, wire, kept, name + "The response not for the request\n"},
        {"error without data", ril({{"error", 2}}), cause, wire, kept, name + "response error 2\n"},
        {"noise", ril({{"raw", "noise"}}), cause, wire, kept, name + "Call back Parse response failed\n"},
        {"no service", ril({{"status", 1}}), cause, wire, "-1 77 -",
         "tavrik_call_ubusinvoke: ubus_invoke config_dspgain failed Invalid command\n"
         "tavrik_call_ubusinvoke: exit fail Invalid command!\n"},
    });
    int number = 77;
    EXPECT_EQ(Tavrik_GetEcallFailCause(nullptr, nullptr), -1);
    EXPECT_TRUE(sim::sent().empty());
    EXPECT_EQ(Tavrik_GetEcallFailCause(&number, nullptr), 0);
    EXPECT_EQ(number, 0);
}

Events g_events;

void on_ecall(int32_t value, const char *const *text) {
    g_events.add(std::to_string(value) + " " + (*text ? *text : "-"));
}

TEST_F(Ecall, FollowsACall) {
    ASSERT_EQ(Tavrik_Ecall_Init(on_ecall), 0);
    sim::call("wait", {{"kind", "connect"}, {"text", "atind"}});
    const json still = {{"alert_ms", 100000},     {"answer_ms", 200000}, {"ecall_start_ms", 300000},
                        {"ecall_ack_ms", 400000}, {"ecall_t5", "301"},   {"ecall_t7", "401"},
                        {"ecall_only", 1},        {"ecall_t10", "500"}};
    const auto advance = [](int ms) { sim::call("advance", {{"ms", ms}}); };
    sim::call("state", still);
    EXPECT_EQ(automatic(), "0");
    EXPECT_EQ(g_events.take(1), Wire{"1 dialling"});
    EXPECT_EQ(automatic(), "-1"); // one at a time
    advance(200000);
    EXPECT_EQ(g_events.take(1), Wire{"2 connected"});
    advance(700000);
    EXPECT_EQ(g_events.take(2), (Wire{"3 sending MSD", "4 MSD acknowledged"}));
    EXPECT_EQ(update<3>(), "0");
    EXPECT_EQ(Tavrik_Ecall_PushMSD(), 0);
    EXPECT_EQ(g_events.take(1), Wire{"3 sending MSD"});
    EXPECT_EQ(Tavrik_Ecall_End(), 0);
    EXPECT_EQ(g_events.take(1), Wire{"-1 16"});
    EXPECT_EQ(sim::call("state")["state"]["creg"], 1);
    advance(500000);
    EXPECT_EQ(sim::call("state")["state"]["creg"], 0);
    EXPECT_EQ(Tavrik_Ecall_RegisterNetwork(), 0);
    EXPECT_EQ(sim::call("state")["state"]["creg"], 1);

    // The centre asks for nothing, then acknowledges nothing, and the modem ends the call.
    sim::call("state", {{"ecall_start_ms", -1}, {"ecall_ack_ms", -1}, {"ecall_t2", "2000"}});
    EXPECT_EQ(manual(), "0");
    advance(200000 + 301000);
    EXPECT_EQ(g_events.take(3), (Wire{"1 dialling", "2 connected", "5 T5 expired"}));
    EXPECT_EQ(Tavrik_Ecall_PushMSD(), 0);
    advance(401000);
    EXPECT_EQ(g_events.take(2), (Wire{"3 sending MSD", "7 T7 expired"}));
    advance(2000000);
    EXPECT_EQ(g_events.take(2), (Wire{"8 T2 expired", "-1 102"}));
    EXPECT_EQ(cause(), "0 102 102 Recovery after timer expiry");

    // A test call, which the other side ends.
    EXPECT_EQ(test(), "0");
    EXPECT_EQ(g_events.take(1), Wire{"1 dialling"});
    const json calls = sim::call("state")["state"]["calls"];
    EXPECT_EQ(calls[0]["number"], "+4989");
    sim::call("hangup", {{"cause", 17}});
    EXPECT_EQ(g_events.take(1), Wire{"-1 17"});
    Tavrik_Ecall_Deinit();
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
}

TEST_F(Ecall, StopsAtTheFirstStepThatFails) {
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_Ecall_Init(nullptr), -1); }),
              line("Paramter input error", "Tavrik_Ecall_Init"));
    const auto log_ends = [](const char *text, bool no_descriptors = false) {
        const std::string log = sim::log_of([&] {
            const NoDescriptors none(no_descriptors);
            EXPECT_EQ(Tavrik_Ecall_Init(on_ecall), -1);
        });
        const std::string end = line(text, "Tavrik_Ecall_Init");
        EXPECT_TRUE(log.size() >= end.size() && log.substr(log.size() - end.size()) == end) << log;
    };
    Tavrik_AT_Deinit();
    sim::call("fault", {{"service", "at"}, {"stop", true}});
    log_ends("at init faild");
    sim::call("clear");
    sim::call("fault", {{"service", "atind"}, {"stop", true}});
    log_ends("ecall indication register failed");
    sim::call("clear");
    ASSERT_EQ(Tavrik_Ecall_Init(on_ecall), 0);
    tavrik_ubus_deinit();
    log_ends("ubus init failed!", true);
    EXPECT_EQ(Tavrik_Ecall_Init(on_ecall), 0);
    Tavrik_Ecall_Deinit();
}

} // namespace
