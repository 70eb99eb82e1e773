// The SIM card against the simulated modem: what is sent, what comes out, what is logged.
#include <chrono>

#include "support/sim.h"

namespace {

using nlohmann::json;
using sim::refused, sim::unmatched;

std::string status() {
    int state = 77;
    const int result = Tavrik_UIM_GetUimCardStatus(0, &state);
    return std::to_string(result) + " " + std::to_string(state);
}

// The three that read a text into a buffer.
template <int (*Read)(int, char *, int *), size_t Size>
std::string text() {
    char buffer[Size + 1];
    memset(buffer, '#', Size);
    buffer[Size] = 0;
    int length = 77;
    const int result = Read(0, buffer, &length);
    EXPECT_EQ(buffer[Size], 0);
    return std::to_string(result) + " " + std::to_string(length) + " " + (*buffer == '#' ? "-" : buffer);
}
constexpr auto iccid = text<Tavrik_UIM_GetICCID, TAVRIK_ICCID_SIZE>;
constexpr auto imsi = text<Tavrik_UIM_GetIMSI, TAVRIK_IMSI_SIZE>;
constexpr auto number = text<Tavrik_UIM_GetPhoneNum, TAVRIK_NUMBER_SIZE>;

json raw(const std::string &text) {
    return {{"fault", {{"raw", text}}}};
}
json sim_is(const char *text) {
    return {{"state", {{"sim", text}}}};
}
// Fails with an error as a number or, with `cmee` 2, in words.
json error(int code, int cmee = 1) {
    return {{"state", {{"sim_error", code}, {"cmee", cmee}}}};
}

class Uim : public sim::AtTest {};

TEST_F(Uim, TellsTheCardState) {
    const std::vector<std::string> wire = {"AT+CPIN?"};
    const std::string no_text = unmatched + "Tavrik_UIM_GetUimCardStatus: Failed to get ims status\n",
                      no_error = unmatched + "Tavrik_UIM_GetUimCardStatus: get current sim status faild\n";
    check({
        {"ready", json::object(), status, wire, "0 1", ""},
        {"PIN", sim_is("SIM PIN"), status, wire, "0 2", ""},
        {"PIN2", sim_is("SIM PIN2"), status, wire, "0 2", ""},
        {"PUK", sim_is("SIM PUK"), status, wire, "0 3", ""},
        {"PUK2", sim_is("SIM PUK2"), status, wire, "0 3", ""},
        {"removed", sim_is("SIM REMOVED"), status, wire, "0 0", ""},
        {"another lock", sim_is("PH-SIM PIN"), status, wire, "0 6", ""},
        {"blanks at the ends", sim_is(" \tREADY\t "), status, wire, "0 1", ""},
        {"blocked", error(508), status, wire, "0 5", refused},
        {"blocked, no blank", raw("\r\n+CME ERROR:508\r\n"), status, wire, "0 5", refused},
        {"blocked, in words", error(508, 2), status, wire, "0 5", refused},
        {"another error", error(10), status, wire, "0 77", refused},
        {"another, in words", error(10, 2), status, wire, "0 77", refused},
        {"error without number", error(10, 0), status, wire, "-1 6", refused + no_error},
        {"no card state", raw("\r\nOK\r\n"), status, wire, "-1 77", no_text},
        {"gone", {{"fault", {{"close", true}}}}, status, wire, "-1 6", "Tavrik_AT_Send: read error!\n" + no_error},
    });
}

TEST_F(Uim, ReadsTheIccid) {
    const std::vector<std::string> wire = {"AT+CICCID"};
    const auto answered = [](const std::string &answer) {
        return "info Tavrik_UIM_GetICCID: str_result: " + answer; // its own line end is the log's
    };
    const auto failed = [](const std::string &text) {
        return refused + "Tavrik_UIM_GetICCID: get iccid error " + text + "\n";
    };
    const std::string unusable = "Tavrik_UIM_GetICCID: handle response data failed\n";
    const std::string good = "\r\n+ICCID: 89882010000000000014\r\n\r\nOK\r\n", none = "\r\nOK\r\n",
                      longest = "\r\n+ICCID: \t12345678901234567890123 \r\n\r\nOK\r\n",
                      longer = "\r\n+ICCID: 123456789012345678901234\r\n\r\nOK\r\n";
    check({
        {"good", json::object(), iccid, wire, "0 20 89882010000000000014", answered(good)},
        {"of a locked card", sim_is("SIM PIN"), iccid, wire, "0 20 89882010000000000014", answered(good)},
        {"exact fit", raw(longest), iccid, wire, "0 23 12345678901234567890123", answered(longest)},
        {"too long", raw(longer), iccid, wire, "-1 77 ", answered(longer) + unusable},
        {"missing", raw(none), iccid, wire, "-1 77 ", answered(none) + unmatched + unusable},
        {"error number", error(13), iccid, wire, "13 77 -", failed("13")},
        {"no card", sim_is("SIM REMOVED"), iccid, wire, "10 77 -", failed("10")},
        {"error in words", error(13, 2), iccid, wire, "-1 77 -", failed("SIM failure")},
        {"error 0", {{"fault", {{"error", 0}}}}, iccid, wire, "-1 77 -", failed("0")},
        {"error without number", error(13, 0), iccid, wire, "-1 77 -",
         refused + unmatched + "Tavrik_UIM_GetICCID: get iccid failed\n"},
    });
}

TEST_F(Uim, ReadsImsiAndNumber) {
    const std::vector<std::string> cimi = {"AT+CIMI"}, cnum = {"AT+CNUM"};
    const auto cut = [](const char *text) { return std::string("Tavrik_UIM_GetIMSI: rsp_info: ") + text + "\n"; };
    const auto answered = [](const std::string &answer) {
        return "info Tavrik_UIM_GetPhoneNum: str_result: " + answer; // its own line end is the log's
    };
    const auto line = [](const std::string &fields) { return "\r\n+CNUM: " + fields + "\r\n\r\nOK\r\n"; };
    const std::string longest = line("\"\",\"" + std::string(63, '7') + "\",129"),
                      longer = line("\"\",\"" + std::string(64, '7') + "\",129"), one = line("\"Own\""),
                      usual = line("\"Own\",\"+12025550123\",145"), bare = line("Own, 112 ,129"), none = "\r\nOK\r\n";
    check({
        {"IMSI", json::object(), imsi, cimi, "0 15 001010123456789", cut("001010123456789")},
        {"IMSI by position", raw("\r\n12\r\nOK\r\n"), imsi, cimi, "0 8 12\r\nOK\r\n", cut("12\r\nOK\r")},
        {"no IMSI", error(10), imsi, cimi, "-1 77 -", refused + "Tavrik_UIM_GetIMSI: get imsi failed\n"},

        {"number", json::object(), number, cnum, "0 12 +12025550123", answered(usual)},
        {"without quotes", raw(bare), number, cnum, "0 3 112", answered(bare)},
        {"exact fit", raw(longest), number, cnum, "0 63 " + std::string(63, '7'), answered(longest)},
        {"too long", raw(longer), number, cnum, "-1 77 -", answered(longer)},
        {"one field", raw(one), number, cnum, "0 0 ", answered(one)},
        {"no number",
         {{"state", {{"number", ""}}}},
         number,
         cnum,
         "-1 77 -",
         answered(none) + "Tavrik_UIM_GetPhoneNum: tok start faild\n"},
        {"error", error(13), number, cnum, "-1 77 -",
         refused + "Tavrik_UIM_GetPhoneNum: get number faild: \r\n+CME ERROR: 13\r\n"},
    });
}

TEST_F(Uim, WritesTheNumber) {
    EXPECT_EQ(Tavrik_UIM_SetPhoneNum(0, "+491701234567"), 0);
    EXPECT_EQ(sim::call("state")["state"]["number"], "+491701234567");
    EXPECT_EQ(Tavrik_UIM_SetPhoneNum(0, "110"), 0);
    EXPECT_EQ(sim::call("state")["state"]["number"], "110");
    const std::string longest(51, '1'); // AT+CNUM=1,"" around it, in 64 bytes with the end
    EXPECT_EQ(Tavrik_UIM_SetPhoneNum(0, longest.c_str()), 0);
    EXPECT_EQ(Tavrik_UIM_SetPhoneNum(0, ""), 0);
    EXPECT_EQ(sim::recorded("at"), (std::vector<std::string>{"AT+CNUM=1,\"+491701234567\",145", "AT+CNUM=1,\"110\"",
                                                             "AT+CNUM=1,\"" + longest + "\"", "AT+CNUM=1,\"\""}));
    const std::string plus = "+" + std::string(47, '1');
    for (const std::string &wrong : {std::string("12-3"), std::string("1+2"), std::string("++1"), longest + "1", plus})
        EXPECT_EQ(sim::log_of([&] { EXPECT_EQ(Tavrik_UIM_SetPhoneNum(0, wrong.c_str()), -1) << wrong; }),
                  "Tavrik_UIM_SetPhoneNum: phonenum is invalid\n");
    EXPECT_TRUE(sim::recorded("at").empty());
    sim::call("state", {{"sim", "SIM PIN"}});
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_UIM_SetPhoneNum(0, "110"), -1); }), refused);
    EXPECT_EQ(phonenum_is_valid(nullptr), 0);
}

// Switching on has 4 s, switching off 2 s.
TEST_F(Uim, SwitchesTheInterface) {
    int state = 77;
    EXPECT_EQ(Tavrik_UIM_Powerdown(0), 0);
    EXPECT_EQ(Tavrik_UIM_GetUimCardStatus(0, &state), 0);
    EXPECT_EQ(state, TAVRIK_UIM_ABSENT);
    sim::fault("at", "AT+CFUN=*", {{"delay", 2500}});
    EXPECT_EQ(Tavrik_UIM_Powerup(0), 0);
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_UIM_Powerdown(0), -1); }), "Tavrik_AT_Send: time out\n");
    sim::call("clear");
    sim::fault("at", "AT+CFUN=1", {{"error", "ERROR"}});
    Tavrik_AT_Deinit(); // the late answer goes with the connection
    EXPECT_EQ(Tavrik_UIM_Init(), 0);
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_UIM_Powerup(0), -1); }), refused);
    EXPECT_EQ(sim::recorded("at"),
              (std::vector<std::string>{"AT+CFUN=5", "AT+CPIN?", "AT+CFUN=1", "AT+CFUN=5", "AT+CFUN=1"}));
}

TEST_F(Uim, RefusesBeforeSending) {
    char buffer[TAVRIK_NUMBER_SIZE];
    int length;
    const struct {
        const char *name;
        int (*read)(int, char *, int *);
    } reads[] = {{"Tavrik_UIM_GetICCID", Tavrik_UIM_GetICCID},
                 {"Tavrik_UIM_GetIMSI", Tavrik_UIM_GetIMSI},
                 {"Tavrik_UIM_GetPhoneNum", Tavrik_UIM_GetPhoneNum}};
    const std::string null = ": Parameter input error\n",
                      second = ": Only the status of the first uim card can be obtained\n";
    for (const auto &row : reads)
        EXPECT_EQ(sim::log_of([&] {
                      EXPECT_EQ(row.read(0, nullptr, &length), -1);
                      EXPECT_EQ(row.read(0, buffer, nullptr), -1);
                      EXPECT_EQ(row.read(1, buffer, &length), -1);
                  }),
                  row.name + null + row.name + null + row.name + second);
    EXPECT_EQ(sim::log_of([&] {
                  EXPECT_EQ(Tavrik_UIM_GetUimCardStatus(0, nullptr), -1);
                  EXPECT_EQ(Tavrik_UIM_GetUimCardStatus(1, &length), -1);
                  EXPECT_EQ(Tavrik_UIM_SetPhoneNum(0, nullptr), -1);
                  EXPECT_EQ(Tavrik_UIM_SetPhoneNum(-1, "1"), -1);
                  EXPECT_EQ(Tavrik_UIM_Powerup(1), -1);
                  EXPECT_EQ(Tavrik_UIM_Powerdown(1), -1);
              }),
              "Tavrik_UIM_GetUimCardStatus" + null + "Tavrik_UIM_GetUimCardStatus" + second + "Tavrik_UIM_SetPhoneNum" +
                  null + "Tavrik_UIM_SetPhoneNum" + second + "Tavrik_UIM_Powerup" + second + "Tavrik_UIM_Powerdown" +
                  second);
    EXPECT_TRUE(sim::recorded("at").empty());
}

TEST_F(Uim, ChecksRilReplies) {
    const struct {
        int request;
        Tavrik_UbusDataCb handler;
        json state, effect;
        std::string log;
    } cases[] = {
        {1, uim_status_request_cb, {{"sim_status_length", 280}}, nullptr, ""},
        {1, uim_status_request_cb, {{"sim_status_length", 276}}, nullptr, ""},
        {1,
         uim_status_request_cb,
         {{"sim_status_length", 277}},
         nullptr,
         "uim_status_request_cb: Return data length error\n"},
        {1, uim_status_request_cb, {}, {{"id", 2}}, "uim_status_request_cb: The response not for the request\n"},
        {1, uim_status_request_cb, {}, {{"raw", "noise"}}, "uim_status_request_cb: Call back Parse response failed\n"},
        {11, uim_imsi_request_cb, {}, nullptr, ""},
        {11, uim_imsi_request_cb, {{"sim", "SIM REMOVED"}}, nullptr, "uim_imsi_request_cb: no response data\n"},
        {11, uim_imsi_request_cb, {}, {{"error", 2}, {"data", "00"}}, "uim_imsi_request_cb: response error 2\n"},
        {1, uim_imsi_request_cb, {}, nullptr, "uim_imsi_request_cb: The response not for the request\n"},
        {77, uim_phonenum_request_cb, {}, {{"data", sim::hex(std::string(63, '1'))}}, ""},
        {78,
         uim_phonenum_request_cb,
         {},
         {{"data", sim::hex(std::string(64, '1'))}},
         "uim_phonenum_request_cb: phone number too long\n"},
        {78, uim_phonenum_request_cb, {}, {{"data", nullptr}}, "uim_phonenum_request_cb: no response data\n"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.log + test.effect.dump());
        if (!test.state.is_null())
            sim::call("state", test.state);
        if (!test.effect.is_null())
            sim::fault("ril", test.request, test.effect);
        EXPECT_EQ(
            sim::log_of([&] { EXPECT_EQ(tavrik_ubus_invoke(uint32_t(test.request), test.handler, nullptr, 3000), 0); }),
            test.log);
        sim::call("reset");
    }
}

TEST_F(Uim, SubscribesAndFailsWithoutAServer) {
    const auto callback = [](const Tavrik_SimEvent *) {};
    EXPECT_EQ(sim::log_of([&] { EXPECT_EQ(Tavrik_UIM_Init_Ex(nullptr), -1); }),
              "Tavrik_UIM_Init_Ex: Parameter input error!\n");
    EXPECT_EQ(Tavrik_UIM_Init_Ex(callback), 0);
    EXPECT_EQ(Tavrik_UIM_Deinit_Ex(), 0);
    sim::call("fault", {{"service", "atind"}, {"stop", true}});
    const std::string log = sim::log_of([&] { EXPECT_EQ(Tavrik_UIM_Init_Ex(callback), -1); });
    EXPECT_NE(log.find("\nTavrik_UIM_Init_Ex: nw indication register failed\n"), std::string::npos) << log;
    Tavrik_UIM_Deinit_Ex();

    Tavrik_AT_Deinit();
    sim::call("fault", {{"service", "at"}, {"stop", true}});
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_UIM_Init(), -1); }).find("Tavrik_UIM_Init: at init faild\n") ==
                  std::string::npos,
              false);
    sim::call("clear");
    EXPECT_EQ(Tavrik_UIM_Init(), 0);
}

} // namespace
