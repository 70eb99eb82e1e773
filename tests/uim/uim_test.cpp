// The SIM card against the simulated modem: what is sent, what comes out, what is logged.
#include "support/sim.h"

namespace {

using sim::calling, sim::given, sim::refused, sim::unmatched, sim::words;

std::string status() {
    return sim::number([](int *state) { return Tavrik_UIM_GetUimCardStatus(0, state); });
}

// The three that read a text into a buffer.
template <int (*Read)(int, char *, int *), size_t Size>
std::string text() {
    std::string buffer(Size + 1, '#');
    int length = 77;
    const int result = Read(0, buffer.data(), &length);
    EXPECT_EQ(buffer[Size], '#');
    return words(result, length, buffer[0] == '#' ? "-" : buffer.c_str());
}
constexpr auto iccid = text<Tavrik_UIM_GetICCID, TAVRIK_ICCID_SIZE>;
constexpr auto imsi = text<Tavrik_UIM_GetIMSI, TAVRIK_IMSI_SIZE>;
constexpr auto number = text<Tavrik_UIM_GetPhoneNum, TAVRIK_NUMBER_SIZE>;

class Uim : public sim::AtTest {};

TEST_F(Uim, TellsTheCardState) {
    const std::string wire = "AT+CPIN?", none = "Tavrik_UIM_GetUimCardStatus: Failed to get ims status\n",
                      failed = "Tavrik_UIM_GetUimCardStatus: get current sim status faild\n";
    table({
        {"", status, "0 1", wire},
        {"sim=SIM PIN", status, "0 2", wire},
        {"sim=SIM PIN2", status, "0 2", wire},
        {"sim=SIM PUK", status, "0 3", wire},
        {"sim=SIM PUK2", status, "0 3", wire},
        {"sim=SIM REMOVED", status, "0 0", wire},
        {"sim=PH-SIM PIN", status, "0 6", wire},
        {"sim= \tREADY\t ", status, "0 1", wire},
        {"sim_error=508", status, "0 5", wire, refused},
        {"at * raw=\r\n+CME ERROR:508\r\n", status, "0 5", wire, refused},
        {"sim_error=508 cmee=2", status, "0 5", wire, refused},
        {"sim_error=10", status, "0 77", wire, refused},
        {"sim_error=10 cmee=0", status, "-1 6", wire, refused + unmatched + failed},
        {"at * raw=\r\nOK\r\n", status, "-1 77", wire, unmatched + none},
        {"at * close=true", status, "-1 6", wire, "Tavrik_AT_Send: read error!\n" + unmatched + failed},
    });
}

TEST_F(Uim, ReadsTheIccid) {
    const std::string wire = "AT+CICCID", got = "info Tavrik_UIM_GetICCID: str_result: ", // its line end is the log's
        error = refused + "Tavrik_UIM_GetICCID: get iccid error ", none = "\r\nOK\r\n",
                      unusable = "Tavrik_UIM_GetICCID: handle response data failed\n",
                      longest = "\r\n+ICCID: \t12345678901234567890123 \r\n\r\nOK\r\n",
                      longer = "\r\n+ICCID: 123456789012345678901234\r\n\r\nOK\r\n";
    table({
        {"sim=SIM PIN", iccid, "0 20 89882010000000000014", wire,
         got + "\r\n+ICCID: 89882010000000000014\r\n\r\nOK\r\n"},
        {"at * raw=" + longest, iccid, "0 23 12345678901234567890123", wire, got + longest},
        {"at * raw=" + longer, iccid, "-1 77 ", wire, got + longer + unusable},
        {"at * raw=" + none, iccid, "-1 77 ", wire, got + none + unmatched + unusable},
        {"sim_error=13", iccid, "13 77 -", wire, error + "13\n"},
        {"sim_error=13 cmee=2", iccid, "-1 77 -", wire, error + "SIM failure\n"},
        {"at * error=0", iccid, "-1 77 -", wire, error + "0\n"},
        {"sim_error=13 cmee=0", iccid, "-1 77 -", wire,
         refused + unmatched + "Tavrik_UIM_GetICCID: get iccid failed\n"},
    });
}

TEST_F(Uim, ReadsImsiAndNumber) {
    const auto line = [](const std::string &fields) { return "\r\n+CNUM: " + fields + "\r\n\r\nOK\r\n"; };
    const std::string cut = "Tavrik_UIM_GetIMSI: rsp_info: ", got = "info Tavrik_UIM_GetPhoneNum: str_result: ",
                      longest = line("\"\",\"" + std::string(63, '7') + "\",129"), none = "\r\nOK\r\n",
                      longer = line("\"\",\"" + std::string(64, '7') + "\",129"), one = line("\"Own\""),
                      usual = line("\"Own\",\"+12025550123\",145"), bare = line("Own, 112 ,129");
    table({
        {"", imsi, "0 15 001010123456789", "AT+CIMI", cut + "001010123456789\n"},
        {"at * raw=\r\n12\r\nOK\r\n", imsi, "0 8 12\r\nOK\r\n", "AT+CIMI", cut + "12\r\nOK\r\n"},
        {"sim_error=10", imsi, "-1 77 -", "AT+CIMI", refused + "Tavrik_UIM_GetIMSI: get imsi failed\n"},

        {"", number, "0 12 +12025550123", "AT+CNUM", got + usual},
        {"at * raw=" + bare, number, "0 3 112", "AT+CNUM", got + bare},
        {"at * raw=" + longest, number, "0 63 " + std::string(63, '7'), "AT+CNUM", got + longest},
        {"at * raw=" + longer, number, "-1 77 -", "AT+CNUM", got + longer},
        {"at * raw=" + one, number, "0 0 ", "AT+CNUM", got + one},
        {"number=\"\"", number, "-1 77 -", "AT+CNUM", got + none + "Tavrik_UIM_GetPhoneNum: tok start faild\n"},
        {"sim_error=13", number, "-1 77 -", "AT+CNUM",
         refused + "Tavrik_UIM_GetPhoneNum: get number faild: \r\n+CME ERROR: 13\r\n"},
    });
}

TEST_F(Uim, WritesTheNumber) {
    const auto set = [](const std::string &text) {
        return [text] { return words(Tavrik_UIM_SetPhoneNum(0, text.c_str())); };
    };
    const std::string longest(51, '1'), plus = "+" + std::string(46, '1'), // the command has 64 bytes with its end
        command = "AT+CNUM=1,\"", invalid = "Tavrik_UIM_SetPhoneNum: phonenum is invalid\n";
    table({
        {"", set("110"), "0", command + "110\""},
        {"", set(""), "0", command + "\""},
        {"", set(longest), "0", command + longest + "\""},
        {"", set(plus), "0", command + plus + "\",145"},
        {"", set(longest + "1"), "-1", "", invalid},
        {"", set(plus + "1"), "-1", "", invalid},
        {"", set("12-3"), "-1", "", invalid},
        {"", set("1+2"), "-1", "", invalid},
        {"", set("++1"), "-1", "", invalid},
        {"sim=SIM PIN", set("110"), "-1", command + "110\"", refused},
    });
    EXPECT_EQ(phonenum_is_valid(nullptr), 0);
}

// Switching on has 4 s, switching off 2 s.
TEST_F(Uim, SwitchesTheInterface) {
    table({
        {"", [] { return Tavrik_UIM_Powerdown(0) ? "not down" : status(); }, "0 0", "AT+CFUN=5 AT+CPIN?"},
        {"at AT+CFUN=* delay=2500", calling(Tavrik_UIM_Powerup, 0), "0", "AT+CFUN=1"},
        {"at * error=ERROR", calling(Tavrik_UIM_Powerup, 0), "-1", "AT+CFUN=1", refused},
        {"at AT+CFUN=* delay=2500", calling(Tavrik_UIM_Powerdown, 0), "-1", "AT+CFUN=5", "Tavrik_AT_Send: time out\n"},
    });
}

TEST_F(Uim, RefusesBeforeSending) {
    char buffer[TAVRIK_NUMBER_SIZE];
    int length;
    const std::string null = ": Parameter input error",
                      second = ": Only the status of the first uim card can be obtained";
    refuse({
        {"Tavrik_UIM_GetICCID" + null, [&] { return Tavrik_UIM_GetICCID(0, nullptr, &length); }},
        {"Tavrik_UIM_GetICCID" + second, [&] { return Tavrik_UIM_GetICCID(1, buffer, &length); }},
        {"Tavrik_UIM_GetIMSI" + null, [&] { return Tavrik_UIM_GetIMSI(0, buffer, nullptr); }},
        {"Tavrik_UIM_GetIMSI" + second, [&] { return Tavrik_UIM_GetIMSI(1, buffer, &length); }},
        {"Tavrik_UIM_GetPhoneNum" + null, [&] { return Tavrik_UIM_GetPhoneNum(0, nullptr, &length); }},
        {"Tavrik_UIM_GetPhoneNum" + second, [&] { return Tavrik_UIM_GetPhoneNum(1, buffer, &length); }},
        {"Tavrik_UIM_GetUimCardStatus" + null, [] { return Tavrik_UIM_GetUimCardStatus(0, nullptr); }},
        {"Tavrik_UIM_GetUimCardStatus" + second, [&] { return Tavrik_UIM_GetUimCardStatus(1, &length); }},
        {"Tavrik_UIM_SetPhoneNum" + null, [] { return Tavrik_UIM_SetPhoneNum(0, nullptr); }},
        {"Tavrik_UIM_SetPhoneNum" + second, [] { return Tavrik_UIM_SetPhoneNum(-1, "1"); }},
        {"Tavrik_UIM_Powerup" + second, [] { return Tavrik_UIM_Powerup(1); }},
        {"Tavrik_UIM_Powerdown" + second, [] { return Tavrik_UIM_Powerdown(1); }},
        {"Tavrik_UIM_Init_Ex: Parameter input error!", [] { return Tavrik_UIM_Init_Ex(nullptr); }},
    });
}

TEST_F(Uim, ChecksRilReplies) {
    const auto ask_1 = calling(tavrik_ubus_invoke, 1, uim_status_request_cb, nullptr, 3000);
    const auto ask_11 = calling(tavrik_ubus_invoke, 11, uim_imsi_request_cb, nullptr, 3000);
    const auto ask_77 = calling(tavrik_ubus_invoke, 77, uim_phonenum_request_cb, nullptr, 3000);
    const auto digits = [](size_t count) { return "ril * data=\"" + sim::hex(std::string(count, '1')) + "\""; };
    table({
        {"sim_status_length=280", ask_1, "0", "ril 1"},
        {"sim_status_length=276", ask_1, "0", "ril 1"},
        {"sim_status_length=277", ask_1, "0", "ril 1", "uim_status_request_cb: Return data length error\n"},
        {"ril * id=2", ask_1, "0", "ril 1", "uim_status_request_cb: The response not for the request\n"},
        {"ril * raw=noise", ask_1, "0", "ril 1", "uim_status_request_cb: Call back Parse response failed\n"},
        {"", ask_11, "0", "ril 11"},
        {"sim=SIM REMOVED", ask_11, "0", "ril 11", "uim_imsi_request_cb: no response data\n"},
        {"ril * error=2 data=\"00\"", ask_11, "0", "ril 11", "uim_imsi_request_cb: response error 2\n"},
        {digits(63), ask_77, "0", "ril 77"},
        {digits(64), ask_77, "0", "ril 77", "uim_phonenum_request_cb: phone number too long\n"},
        {"ril * data=null", ask_77, "0", "ril 77", "uim_phonenum_request_cb: no response data\n"},
    });
}

TEST_F(Uim, SubscribesAndFailsWithoutAServer) {
    const auto subscribe = [] { return Tavrik_UIM_Init_Ex([](const Tavrik_SimEvent *) {}); };
    EXPECT_EQ(subscribe(), 0);
    EXPECT_EQ(Tavrik_UIM_Deinit_Ex(), 0);
    given("atind stop=true");
    refuse({{"start_indication_thread: create socket failed\ntavrik_indication_register: indication thread id < 0\n"
             "Tavrik_UIM_Init_Ex: nw indication register failed",
             subscribe}});
    Tavrik_UIM_Deinit_Ex();

    EXPECT_EQ(Tavrik_UIM_Init(), 0);
    Tavrik_AT_Deinit();
    given("at stop=true");
    refuse({{"Tavrik_AT_Init: error: opening device: /tmp/atcmdsdk\nTavrik_UIM_Init: at init faild", Tavrik_UIM_Init}});
}

} // namespace
