// eCall against the simulated modem: what is sent, what comes out, what is logged.
#include <chrono>
#include <csignal>

#include "support/descriptors.h"
#include "support/events.h"
#include "support/sim.h"

namespace {

using sim::calling, sim::given, sim::Operation, sim::refused, sim::words;
using Texts = std::vector<std::string>;

Tavrik_EcallReq request(int length, int type = 0, int automatic = 0, const std::string &number = "+4989") {
    Tavrik_EcallReq made = {};
    made.msd_len = length;
    for (size_t i = 0; i < sizeof made.msd; ++i)
        made.msd[i] = "\x01\xAB\xFF"[i % 3];
    made.call_type = type;
    made.auto_trigger = automatic;
    number.copy(made.test_number, sizeof made.test_number);
    return made;
}
Operation start(const Tavrik_EcallReq &request) {
    return [request] { return words(Tavrik_Ecall_Start(&request)); };
}
Operation set(const Tavrik_EcallConfig &config) {
    return [config] {
        Tavrik_Ecall_Set_Config_Info(config);
        return "";
    };
}
const Operation manual = start(request(3)), automatic = start(request(3, 2, -1)), test = start(request(3, 1, 7));

std::string cause() {
    int number = 77;
    char text[TAVRIK_FAIL_CAUSE_SIZE] = "-";
    return words(Tavrik_GetEcallFailCause(&number, text), number, text);
}

const std::string msd = "AT*ECALLMSD=\"01ABFF\"", self = "Tavrik_Ecall_Start: ", data = self + "3:01ABFF\n";

class Ecall : public sim::AtTest {};

TEST_F(Ecall, Starts) {
    std::string longest;
    while (longest.size() < 280)
        longest += "01ABFF";
    longest.resize(280);
    const std::string invalid = self + "msd input error\n";
    table({
        {"", manual, "0", msd + " AT+CECALL=2", data},
        {"", automatic, "0", msd + " AT+CECALL=3", data},
        {"", start(request(0, 0, 1)), "0", "AT*ECALLMSD=\"\" AT+CECALL=3", self + "0:\n"},
        {"", start(request(140)), "0", "AT*ECALLMSD=\"" + longest + "\" AT+CECALL=2", self + "140:" + longest + "\n"},
        {"", start(request(141)), "-1", "", invalid},
        {"", start(request(-1, 1)), "-1", "", invalid},
        {"", calling(Tavrik_Ecall_Start, nullptr), "-1", "", invalid},
        {"at AT*ECALLMSD* error=ERROR", manual, "-1", msd, data + refused + self + "ecall msd set failed\n"},
        {"at AT+CECALL=2 error=ERROR", manual, "-1", msd + " AT+CECALL=2",
         data + refused + self + "ecall manually start failed\n"},
        {"at * close=true nth=2", automatic, "-1", msd + " AT+CECALL=3",
         data + "Tavrik_AT_Send: read error!\n" + self + "ecall automatically start failed\n"},
    });
}

TEST_F(Ecall, StartsATestCall) {
    const std::string none = data + self + "No model information found.\n", told = data + self + "Model: ",
                      asked = msd + " at*ecallonly? AT*ECALLONLY=", call = ",+4989 AT+CECALL=0", c63(63, '7'),
                      digits32 = "12345678901234567890123456789012",
                      failed = refused + self + " test ecallonly failed\n";
    table({
        {"", test, "0", asked + "0" + call, told + "0\n"},
        {"", start(request(3, 1, 0, digits32)), "0", asked + "0," + digits32 + " AT+CECALL=0", told + "0\n"},
        {"at at* raw=\r\n*ECALLONLY: 1\r\r\n\r\nOK\r\n", test, "0", asked + "1" + call, told + "1\n"},
        {"at at* raw=\r\n*ECALLONLY: 1,2\r\n*ECALLONLY: 0,2\r\nOK\r\n", test, "0", asked + "1" + call, told + "1\n"},
        {"at at* error=ERROR", test, "0", asked + call, none},
        {"at at* raw=\r\n*ECALLONLY:1\r\n\r\nOK\r\n", test, "0", asked + call, told + "\n"},
        {"at at* raw=\r\n*ECALLONLY: " + std::string(100, '7') + "\r\n\r\nOK\r\n", test, "-1", asked + c63 + ",+4989",
         told + c63 + "\n" + failed},
        {"at AT+CECALL=0 error=ERROR", test, "-1", asked + "0" + call,
         told + "0\n" + refused + self + "ecall test start failed\n"},
    });
    // A program that hangs, and what it has started, is gone after 3 s.
    const auto began = std::chrono::steady_clock::now();
    table({{"at at* drop=true", test, "0", asked + call, none}});
    EXPECT_GE(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(2995));
    // Where SIGCHLD is ignored nobody learns how a command ended.
    signal(SIGCHLD, SIG_IGN);
    table({{"", test, "0", asked + "0" + call, told + "0\n"}});
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
    EXPECT_EQ(sim::sent(), Texts{msd});
}

TEST_F(Ecall, ObeysSimpleOrders) {
    const Tavrik_EcallReq good = request(3), longer = request(141);
    const std::string push = "info Tavrik_Ecall_PushMSD: call push\n",
                      leave = "info Tavrik_Ecall_DeregisterNetwork: deregister from network\n",
                      enter = "info Tavrik_Ecall_RegisterNetwork: register in network\n",
                      invalid = "Tavrik_Ecall_UpdateMSD: msd input error\n";
    table({
        {"at * raw=\r\nOK\r\n", calling(Tavrik_Ecall_End), "0", "AT+CECALL=5"},
        {"", calling(Tavrik_Ecall_End), "-1", "AT+CECALL=5", refused}, // nothing to end
        {"at * raw=\r\nOK\r\n", calling(Tavrik_Ecall_PushMSD), "0", "AT*ECALLPUSH", push},
        {"", calling(Tavrik_Ecall_PushMSD), "-1", "AT*ECALLPUSH", push + refused}, // nothing to push
        {"", calling(Tavrik_Ecall_DeregisterNetwork), "0", "AT*ECALLREG=0", leave},
        {"at * error=ERROR", calling(Tavrik_Ecall_DeregisterNetwork), "-1", "AT*ECALLREG=0", leave + refused},
        {"", calling(Tavrik_Ecall_RegisterNetwork), "0", "AT*ECALLREG=1", enter},
        {"at * error=ERROR", calling(Tavrik_Ecall_RegisterNetwork), "-1", "AT*ECALLREG=1", enter + refused},
        {"", calling(Tavrik_Ecall_UpdateMSD, &good), "0", msd},
        {"at * error=ERROR", calling(Tavrik_Ecall_UpdateMSD, &good), "-1", msd, refused},
        {"", calling(Tavrik_Ecall_UpdateMSD, &longer), "-1", "", invalid},
        {"", calling(Tavrik_Ecall_UpdateMSD, nullptr), "-1", "", invalid},
    });
}

// Of one setting: its command with value 1 and with the highest, and what each writes when it succeeds and when not.
struct Setting {
    std::string command[2], success[2], failure[2];
};
const std::string setting_error = "Tavrik_Ecall_Set_Config_Info: ", setting_info = "info " + setting_error;
Setting number(const std::string &command, const std::string &highest, const std::string &name) {
    const std::string good = setting_info + name + " success\n", bad = setting_info + name + " failed\n";
    return {{command + "1", command + highest}, {good, good}, {bad, bad}};
}

TEST_F(Ecall, MakesSettingsInTheirOrder) {
    const Setting settings[] = {
        {{"AT*ECALLONLY=1", "AT*ECALLONLY=0"},
         {setting_info + "ecallonly success\n", setting_info + " not ecallonly success\n"},
         {setting_error + "ecallonly failed\n", setting_error + "not ecallonly failed\n"}},
        {{"AT*ECALLMODE=\"ERA\"", "AT*ECALLMODE=\"EU\""},
         {setting_info + "set ERA mode success\n", setting_info + "set EU mode success\n"},
         {setting_error + "set ERA mode failed\n", setting_error + "set EU mode failed\n"}},
        number("AT*ECALLTIMER=cleardown,", "4294967295", "set T2"),
        number("AT*ECALLDATA=5,1,", "65535", "set T5"),
        number("AT*ECALLDATA=5,2,", "65535", "set T6"),
        number("AT*ECALLDATA=5,3,", "65535", "set T7"),
        number("AT*ECALLTIMER=callback,", "4294967295", "set T9"),
        number("AT*ECALLTIMER=dereg,", "4294967295", "set T10"),
        number("AT*ECALLTIMER=redialcnt,", "4294967295", "set redail number"),
        number("AT*ECALLTIMER=smsmsdcnt,", "4294967295", "set sms resend number"),
        number("AT*ECALLTIMER=redialtmr,", "65535", "set redail timer"),
        number("AT*ECALLTIMER=sms,", "65535", "set sms resend timer"),
        number("AT*ECALLTIMER=dial,", "4294967295", "set dail set up timer"),
        number("AT*ECALLSMSNUM=", "4294967295", "set SMS number for send MSD"),
    };
    // Every flag with `f`, every value 1 or, with `highest`, all bits.
    const auto config = [](uint8_t f, bool highest) -> Tavrik_EcallConfig {
        const uint16_t h = UINT16_MAX;
        const uint32_t w = UINT32_MAX;
        return highest ? Tavrik_EcallConfig{f, 2, f, w, f, w, f, h,  f, h, f, h, f, w, f,
                                            w, f, w, f, w, f, w, {}, f, h, f, h, f, w}
                       : Tavrik_EcallConfig{f, 1, f, 1, f, 1, f, 1,  f, 1, f, 1, f, 1, f,
                                            1, f, 1, f, 1, f, 1, {}, f, 1, f, 1, f, 1};
    };
    for (const bool highest : {false, true})
        for (const bool fails : {false, true}) {
            std::string wire, log;
            for (const Setting &setting : settings) {
                wire += (wire.empty() ? "" : " ") + setting.command[highest];
                log += fails ? refused + setting.failure[highest] : setting.success[highest];
            }
            table({{fails ? "at * error=ERROR" : "", set(config(1, highest)), "", wire, log}});
        }
    for (const uint8_t flag : {0, 2, 255})
        table({{"", set(config(flag, true)), "", ""}});
}

TEST_F(Ecall, TellsTheCause) {
    const std::string name = "Tavrik_GetEcallFailCause: ", kept = "0 77 -";
    table({
        {"fail_cause=57", cause, "0 57 57 Bearer capability not authorized", "ril 18"},
        {"fail_cause=-1", cause, "0 -1 127 Interworking: unspecified", "ril 18"},
        {"ril * data=null", cause, kept, "ril 18", name + "no response data\n"},
        {"ril * data=\"390000\"", cause, kept, "ril 18", name + "no response data\n"},
        {"ril * id=9", cause, kept, "ril 18", name + "The response not for the request\n"},
        {"ril * error=2", cause, kept, "ril 18", name + "response error 2\n"},
        {"ril * raw=noise", cause, kept, "ril 18", name + "Call back Parse response failed\n"},
        {"ril * status=1", cause, "-1 77 -", "ril 18",
         "tavrik_call_ubusinvoke: ubus_invoke config_dspgain failed Invalid command\n"
         "tavrik_call_ubusinvoke: exit fail Invalid command!\n"},
        {"", [] { return sim::number([](int *number) { return Tavrik_GetEcallFailCause(number, nullptr); }); }, "0 0",
         "ril 18"},
        {"", calling(Tavrik_GetEcallFailCause, nullptr, nullptr), "-1", ""},
    });
}

Events g_events;

TEST_F(Ecall, FollowsACall) {
    const auto on_ecall = [](int32_t value, const char *const *text) {
        g_events.add(words(value, *text ? *text : "-"));
    };
    const auto step = [](const Operation &run, const Texts &events) {
        EXPECT_EQ(run(), "0");
        EXPECT_EQ(g_events.take(events.size()), events);
    };
    const auto after_s = [](int seconds, const Texts &events) {
        sim::call("advance", {{"ms", 1000 * seconds}});
        EXPECT_EQ(g_events.take(events.size()), events);
    };
    ASSERT_EQ(Tavrik_Ecall_Init(on_ecall), 0);
    sim::call("wait", {{"kind", "connect"}, {"text", "atind"}});
    given(
        "alert_ms=100000 answer_ms=200000 ecall_start_ms=300000 ecall_ack_ms=400000 ecall_t5=\"301\" ecall_t7=\"401\"");
    step(automatic, {"1 dialling"});
    after_s(200, {"2 connected"});
    after_s(700, {"3 sending MSD", "4 MSD acknowledged"});
    step(calling(Tavrik_Ecall_PushMSD), {"3 sending MSD"});
    step(calling(Tavrik_Ecall_End), {"-1 16"});

    // The centre asks for nothing, then acknowledges nothing, and the modem ends the call.
    given("ecall_start_ms=-1 ecall_ack_ms=-1 ecall_t2=\"2000\"");
    step(manual, {"1 dialling"});
    after_s(501, {"2 connected", "5 T5 expired"});
    step(calling(Tavrik_Ecall_PushMSD), {"3 sending MSD"});
    after_s(401, {"7 T7 expired"});
    after_s(2000, {"8 T2 expired", "-1 102"});
    EXPECT_EQ(cause(), "0 102 102 Recovery after timer expiry");
    Tavrik_Ecall_Deinit();
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
}

} // namespace
