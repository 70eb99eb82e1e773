// Voice calls against the simulated modem: what is sent, what comes out, what is logged.
#include <thread>

#include "support/descriptors.h"
#include "support/events.h"
#include "support/sim.h"

namespace {

using nlohmann::json;
using sim::refused;
using Wire = std::vector<std::string>;

// "RESULT COUNT: ID DIRECTION STATE NUMBER|…", or "-1 -" with the record as it was.
std::string list() {
    struct {
        Tavrik_CallList calls;
        char behind = '#';
    } block;
    memset(&block.calls, '#', sizeof block.calls);
    const int result = Tavrik_VoiceCall_GetAllInfo(&block.calls);
    EXPECT_EQ(block.behind, '#');
    if (std::string(reinterpret_cast<char *>(&block.calls), sizeof block.calls) == std::string(sizeof block.calls, '#'))
        return std::to_string(result) + " -";
    std::string text = std::to_string(result) + " " + std::to_string(block.calls.count) + ":";
    for (int i = 0; i < block.calls.count && i < TAVRIK_CALLS_MAX; ++i) {
        const Tavrik_Call &call = block.calls.calls[i];
        text += (i ? "|" : " ") + std::to_string(call.call_id) + " " + std::to_string(call.direction) + " " +
                std::to_string(call.state) + " " + std::string(call.number, strnlen(call.number, sizeof call.number));
    }
    return text;
}

std::string state_of_2() {
    int state = 77;
    const int result = Tavrik_VoiceCall_GetState(2, &state);
    return std::to_string(result) + " " + std::to_string(state);
}

std::string dial(const char *number) {
    int id = 77;
    const int result = Tavrik_VoiceCall_Start(number, &id);
    return std::to_string(result) + " " + std::to_string(id);
}
std::string dial_one() {
    return dial("+4930123");
}
const std::string longest(TAVRIK_DIAL_MAX, '7'), longer = longest + "7";

template <int (*Run)(int), int Id>
std::string on_call() {
    return std::to_string(Run(Id));
}
constexpr auto answer_2 = on_call<Tavrik_VoiceCall_Answer, 2>;
constexpr auto end_2 = on_call<Tavrik_VoiceCall_End, 2>;

template <char Tone>
std::string tone() {
    return std::to_string(Tavrik_SendDtmf(Tone));
}

std::string cause() {
    unsigned number = 77;
    char text[TAVRIK_FAIL_CAUSE_SIZE] = "-";
    const int result = Tavrik_GetCallFailCause(&number, text);
    return std::to_string(result) + " " + std::to_string(number) + " " + text;
}

json call_in(int state, int id = 2) {
    return {{"id", id}, {"state", state}, {"incoming", true}, {"number", "+49"}};
}
json calls(std::initializer_list<json> list) {
    return {{"state", {{"calls", std::vector<json>(list)}}}};
}
json many(int count) {
    json list = json::array();
    for (int i = 1; i <= count; ++i)
        list.push_back({{"id", i}});
    return {{"state", {{"calls", list}}}};
}
json ril(const char *match, json effect, json given = json::object()) {
    effect["match"] = match;
    given["ril"] = effect;
    return given;
}
json at(json effect, json given = json::object()) {
    given["fault"] = std::move(effect);
    return given;
}
// A reply to request 9 with this count and so many bytes of entries.
json reply(uint32_t count, size_t bytes) {
    char word[9];
    snprintf(word, sizeof word, "%02x%02x%02x%02x", count & 255, count >> 8 & 255, count >> 16 & 255, count >> 24);
    return ril("9", {{"data", word + std::string(2 * bytes, '0')}});
}

const std::string unread = "get_call_info_msg: Parsing the response data failed\n",
                  callback = "call_info_cb: ", failed = "tavrik_ubus_invoke: Failed to ubus invoke: Invalid command\n",
                  no_list = failed + "get_call_info_msg: get call info msg failed\n";
const json broken = {{"status", 1}}; // of the bus call: UBUS_STATUS_INVALID_COMMAND

std::string no_calls(const char *function) {
    return no_list + function + ": get all calls info failed\n";
}
std::string refusal(const char *function) {
    return std::string(function) + ": Parameter input error\n";
}

class Voice : public sim::AtTest {};

TEST_F(Voice, ListsCalls) {
    const Wire wire = {"ril 9"};
    const std::string word32 = "12345678901234567890123456789012", no_length = callback + "Return data length error\n";
    const auto first_11 = [](const char *count) { return callback + count + " calls, the first 11 are kept\n"; };
    std::string eleven = "0 11:";
    for (int i = 1; i <= 11; ++i)
        eleven += (i == 1 ? " " : "|") + std::to_string(i) + " 1 3 ";
    check({
        {"none", json::object(), list, wire, "0 0:", ""},
        {"none, in words", reply(0, 0), list, wire, "0 0:", ""},
        {"each state, both directions",
         calls({{{"id", 1}, {"state", 0}},
                call_in(1),
                call_in(2),
                call_in(3),
                call_in(4),
                call_in(5),
                call_in(6),
                call_in(7),
                call_in(8, -1)}),
         list, wire, "0 9: 1 1 3 |2 2 6 +49|2 2 1 +49|2 2 5 +49|2 2 2 +49|2 2 7 +49|2 2 10 +49|2 2 8 +49|-1 2 9 +49",
         ""},
        {"states that nobody knows", calls({call_in(9), call_in(-1)}), list, wire, "0 2: 2 2 0 +49|2 2 0 +49",
         "get_call_state: unknown state: 9\nget_call_state: unknown state: -1\n"},
        {"number fills the field", calls({{{"number", word32}}}), list, wire, "0 1: 1 1 3 " + word32, ""},
        {"number too long", calls({{{"number", word32 + "3456789"}}}), list, wire, "0 1: 1 1 3 " + word32, ""},
        {"one call", many(1), list, wire, "0 1: 1 1 3 ", ""},
        {"11 calls", many(11), list, wire, eleven, ""},
        {"12 calls", many(12), list, wire, eleven, first_11("12")},
        {"200 calls", many(200), list, wire, eleven, first_11("200")},
        {"more bytes than calls", reply(1, 100), list, wire, "0 1: 0 1 3 ", ""},
        {"fewer bytes than calls", reply(2, 127), list, wire, "-1 -", no_length + unread},
        {"calls without end", reply(UINT32_MAX, 64), list, wire, "-1 -", no_length + unread},
        {"a count and no calls", reply(1, 0), list, wire, "-1 -", callback + "no response data\n" + unread},
        {"half a count", ril("9", {{"data", "010000"}}), list, wire, "-1 -", no_length + unread},
        {"of another request", ril("9", {{"id", 10}}), list, wire, "-1 -",
         callback + "The response not for the request\n" + unread},
        {"error", ril("9", {{"error", 2}}), list, wire, "-1 -", callback + "response error 2\n" + unread},
        {"noise", ril("9", {{"raw", "noise"}}), list, wire, "-1 -",
         callback + "Call back Parse response failed\n" + unread},
        {"no reply message", ril("9", {{"times", 0}}), list, wire, "-1 -", unread},
        {"no service", ril("9", broken), list, wire, "-1 -", no_list},
    });
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_VoiceCall_GetAllInfo(nullptr), -1); }),
              refusal("Tavrik_VoiceCall_GetAllInfo"));
}

TEST_F(Voice, TellsOneCallsState) {
    const Wire wire = {"ril 9"};
    int state;
    check({
        {"the first with the id", calls({call_in(0, 1), call_in(4), call_in(0)}), state_of_2, wire, "0 2", ""},
        {"in an unknown state", calls({call_in(9)}), state_of_2, wire, "0 0", "get_call_state: unknown state: 9\n"},
        {"no such call", calls({call_in(0, 1)}), state_of_2, wire, "-1 77", ""},
        {"no list", ril("9", broken), state_of_2, wire, "-1 77", no_calls("Tavrik_VoiceCall_GetState")},
    });
    EXPECT_EQ(sim::log_of([&] {
                  EXPECT_EQ(Tavrik_VoiceCall_GetState(0, &state), -1);
                  EXPECT_EQ(Tavrik_VoiceCall_GetState(1, nullptr), -1);
              }),
              refusal("Tavrik_VoiceCall_GetState") + refusal("Tavrik_VoiceCall_GetState"));
    EXPECT_TRUE(sim::sent().empty());
}

TEST_F(Voice, Dials) {
    const Wire wire = {"ril 9", "ATD+4930123;"}, asked = {"ril 9"};
    const std::string busy = "Tavrik_VoiceCall_Start: now is calling, please waiting...\n",
                      not_started = "Tavrik_VoiceCall_Start: voice call start failed\n";
    check({
        {"first call", json::object(), dial_one, wire, "0 1", ""},
        {"as long as it may be",
         json::object(),
         [] { return dial(longest.c_str()); },
         {"ril 9", "ATD" + longest + ";"},
         "0 1",
         ""},
        {"beside a call", calls({call_in(0)}), dial_one, asked, "-1 77", busy},
        {"beside one that has ended", calls({call_in(8)}), dial_one, asked, "-1 77", busy},
        {"beside one without id", calls({call_in(0, 0)}), dial_one, wire, "0 1", ""},
        {"radio off", {{"state", {{"mode", 4}}}}, dial_one, wire, "-1 77", refused + not_started},
        {"server gone", at({{"close", true}}), dial_one, wire, "-1 77", "Tavrik_AT_Send: read error!\n" + not_started},
        {"no list", ril("9", broken), dial_one, asked, "-1 77", no_calls("Tavrik_VoiceCall_Start")},
    });
    int id = 77;
    for (const char *number : {(const char *)nullptr, longer.c_str(), "1\r", "1\nAT", "1\r\n2"})
        EXPECT_EQ(sim::log_of([&] { EXPECT_EQ(Tavrik_VoiceCall_Start(number, &id), -1); }),
                  refusal("Tavrik_VoiceCall_Start"));
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_VoiceCall_Start("1", nullptr), -1); }),
              refusal("Tavrik_VoiceCall_Start"));
    EXPECT_TRUE(sim::sent().empty());
    EXPECT_EQ(id, 77);
}

TEST_F(Voice, HasThreeSecondsForACommand) {
    sim::fault("at", "ATD*", {{"delay", 2500}, {"count", 1}});
    EXPECT_EQ(dial_one(), "0 1");
    sim::fault("at", "AT+CHLD*", {{"drop", true}});
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_VoiceCall_End(1), -1); }),
              "Tavrik_AT_Send: time out\nTavrik_VoiceCall_End: handup all calls failed\n");
}

TEST_F(Voice, AnswersAndEnds) {
    const Wire answered = {"ril 9", "ril 40"}, ended = {"ril 9", "AT+CHLD=19"}, asked = {"ril 9"};
    const std::string not_incoming = "Tavrik_VoiceCall_Answer: There is no vcall_handle 2, or vcall_handle 2 state is "
                                     "not incoming\n",
                      over = "Tavrik_VoiceCall_End: There is no vcall_handle 2, or vcall_handle 2 state is end now\n",
                      not_ended = "Tavrik_VoiceCall_End: handup all calls failed\n";
    check({
        {"incoming", calls({call_in(0, 1), call_in(4)}), answer_2, answered, "0", ""},
        {"active", calls({call_in(0)}), answer_2, asked, "-1", not_incoming},
        {"waiting", calls({call_in(5)}), answer_2, asked, "-1", not_incoming},
        {"no such call to answer", calls({call_in(4, 1)}), answer_2, asked, "-1", not_incoming},
        {"answer fails", ril("40", broken, calls({call_in(4)})), answer_2, answered, "-1",
         failed + "Tavrik_VoiceCall_Answer: voice call answer failed\n"},
        {"answer refused: nobody looks", ril("40", {{"error", 2}}, calls({call_in(4)})), answer_2, answered, "0", ""},
        {"no list to answer from", ril("9", broken), answer_2, asked, "-1", no_calls("Tavrik_VoiceCall_Answer")},

        {"active call ends", calls({call_in(0)}), end_2, ended, "0", ""},
        {"all of them", calls({call_in(0), call_in(1, 7)}), end_2, ended, "0", ""},
        {"has ended", calls({call_in(8)}), end_2, asked, "-1", over},
        {"no such call to end", calls({call_in(0, 1)}), end_2, asked, "-1", over},
        {"the modem refuses", at({{"error", "NO CARRIER\r\nERROR"}}, calls({call_in(0)})), end_2, ended, "-1",
         refused + not_ended},
        {"no list to end from", ril("9", broken), end_2, asked, "-1", no_calls("Tavrik_VoiceCall_End")},
    });
    EXPECT_EQ(sim::log_of([] {
                  EXPECT_EQ(Tavrik_VoiceCall_Answer(0), -1);
                  EXPECT_EQ(Tavrik_VoiceCall_End(-1), -1);
              }),
              refusal("Tavrik_VoiceCall_Answer") + refusal("Tavrik_VoiceCall_End"));
    EXPECT_TRUE(sim::sent().empty());
    EXPECT_EQ(Tavrik_VoiceCall_Hold() + Tavrik_VoiceCall_MultiProcess(), 0);
}

TEST_F(Voice, SendsTones) {
    const Wire asked = {"ril 9"}, wire = {"ril 9", "ril 24 44000000"};
    const std::string invalid = "Tavrik_SendDtmf:  invalid dtmf code\n";
    const json active = calls({call_in(0)});
    check({
        {"D", active, tone<'D'>, wire, "0", ""},
        {"a letter in lower case", active, tone<'a'>, asked, "-1", invalid},
        {"E", active, tone<'E'>, asked, "-1", invalid},
        {"zero byte", active, tone<'\0'>, asked, "-1", invalid},
        {"carriage return", active, tone<'\r'>, asked, "-1", invalid},
        {"line feed", active, tone<'\n'>, asked, "-1", invalid},
        {"no call", json::object(), tone<'1'>, asked, "-1", "Tavrik_SendDtmf: no call info now\n"},
        {"the service refuses: nobody looks", ril("24", {{"error", 2}}, active), tone<'D'>, wire, "0", ""},
        {"no service", ril("24", broken, active), tone<'D'>, wire, "-1",
         "tavrik_call_ubusinvoke: ubus_invoke config_dspgain failed Invalid command\n"
         "tavrik_call_ubusinvoke: exit fail Invalid command!\n"},
        {"no list", ril("9", broken), tone<'1'>, asked, "-1", no_calls("Tavrik_SendDtmf")},
    });
    sim::call("state", active["state"]);
    for (const char each : std::string("0123456789*#ABCD"))
        EXPECT_EQ(Tavrik_SendDtmf(each), 0) << each;
    EXPECT_EQ(sim::call("state")["state"]["dtmf"], "0123456789*#ABCD");
}

TEST_F(Voice, TellsTheCause) {
    const Wire wire = {"ril 18"};
    const auto is = [](int number) { return json{{"state", {{"fail_cause", number}}}}; };
    const std::string name = "Tavrik_GetCallFailCause: ", none = "-1 77 -";
    check({
        {"listed", is(17), cause, wire, "0 17 17 User busy", ""},
        {"the longest text", is(44), cause, wire, "0 44 44 Requested circuit/channel unavailable", ""},
        {"not listed", is(2), cause, wire, "0 2 127 Interworking: unspecified", ""},
        {"the last one", is(241), cause, wire, "0 241 241 FDN Blocked", ""},
        {"beyond", is(500), cause, wire, "0 500 127 Interworking: unspecified", ""},
        {"beyond a byte", is(256 + 17), cause, wire, "0 273 127 Interworking: unspecified", ""},
        {"all bits", is(-1), cause, wire, "0 4294967295 127 Interworking: unspecified", ""},
        {"no data", ril("18", {{"data", nullptr}}), cause, wire, none, name + "no response data\n"},
        {"3 bytes", ril("18", {{"data", "110000"}}), cause, wire, none, name + "no response data\n"},
        {"8 bytes", ril("18", {{"data", "1100000022000000"}}), cause, wire, "0 17 17 User busy", ""},
        {"of another request", ril("18", {{"id", 9}}), cause, wire, none, name + "The response not for the request\n"},
        {"error", ril("18", {{"error", -7}, {"data", "11000000"}}), cause, wire, none, name + "response error -7\n"},
        {"error without data", ril("18", {{"error", 2}}), cause, wire, none, name + "no response data\n"},
        {"noise", ril("18", {{"raw", "noise"}}), cause, wire, none, name + "Call back Parse response failed\n"},
        {"no reply message", ril("18", {{"times", 0}}), cause, wire, none, name + "Call back Parse response failed\n"},
        {"no service", ril("18", broken), cause, wire, none,
         "tavrik_call_ubusinvoke: ubus_invoke config_dspgain failed Invalid command\n"
         "tavrik_call_ubusinvoke: exit fail Invalid command!\n" +
             name + "CallFailCause get fail ! \n"},
    });
    EXPECT_EQ(Tavrik_GetCallFailCause(nullptr, nullptr), -1);
    EXPECT_TRUE(sim::sent().empty());

    unsigned number = 77;
    int own = 0;
    for (int i = 0; i <= 256; ++i) {
        char text[TAVRIK_FAIL_CAUSE_SIZE];
        sim::call("state", {{"fail_cause", i}});
        EXPECT_EQ(Tavrik_GetCallFailCause(&number, text), 0);
        EXPECT_EQ(Tavrik_GetCallFailCause(&number, nullptr), 0);
        EXPECT_EQ(number, unsigned(i));
        if (std::string(text) != "127 Interworking: unspecified" || i == 127) {
            EXPECT_EQ(text, std::to_string(i) + (strchr(text, ' ') ? strchr(text, ' ') : ""));
            own++;
        }
    }
    EXPECT_EQ(own, 52);
}

// The exported handlers serve requests of the application's own.
TEST_F(Voice, ChecksForOthers) {
    sim::call("state", calls({call_in(9)})["state"]);
    EXPECT_EQ(sim::log_of([] {
                  EXPECT_EQ(get_call_info_msg(), 0);
                  EXPECT_EQ(tavrik_ubus_invoke(9, call_info_cb, nullptr, 3000), 0);
                  EXPECT_EQ(tavrik_ubus_invoke(18, call_info_cb, nullptr, 3000), 0);
                  call_info_cb(nullptr, 0, nullptr);
                  get_call_state(0, 8);
                  get_call_state(10, 9);
                  get_call_state(11, 0);
                  get_call_state(-1, 0);
              }),
              "get_call_state: unknown state: 9\nget_call_state: unknown state: 9\n" + callback +
                  "The response not for the request\n" + callback +
                  "Call back Parse response failed\nget_call_state: unknown state: 9\n" + refusal("get_call_state") +
                  refusal("get_call_state"));
}

Events g_events;

void on_call(const Tavrik_CallList *calls) {
    const Tavrik_Call &call = calls->calls[0];
    int state = 0; // the API from inside a callback
    Tavrik_VoiceCall_GetState(call.call_id, &state);
    g_events.add(std::to_string(call.call_id) + " " + std::to_string(call.direction) + " " +
                 std::to_string(call.state) + " " + call.number +
                 (call.state == TAVRIK_CALL_INCOMING && state == call.state ? " listed" : ""));
}

TEST_F(Voice, FollowsACall) {
    ASSERT_EQ(Tavrik_VoiceCall_Init(on_call), 0);
    sim::call("wait", {{"kind", "connect"}, {"text", "atind"}});
    sim::call("call", {{"number", "+4940"}});
    EXPECT_EQ(g_events.take(1), Wire{"1 2 2 +4940 listed"});
    EXPECT_EQ(Tavrik_VoiceCall_Answer(1), 0);
    EXPECT_EQ(g_events.take(1), Wire{"1 2 3 +4940"});
    sim::call("call", {{"number", "22"}});
    EXPECT_EQ(g_events.take(1), Wire{"2 2 7 22"});
    sim::call("hangup", {{"call", 1}, {"cause", 31}});
    EXPECT_EQ(g_events.take(1), Wire{"1 0 9 "});
    EXPECT_EQ(cause(), "0 31 31 Normal: unspecified");
    sim::call("hangup");
    EXPECT_EQ(g_events.take(1), Wire{"2 0 9 "});

    sim::call("state", {{"alert_ms", 600000}, {"answer_ms", 700000}});
    EXPECT_EQ(dial_one(), "0 1");
    EXPECT_EQ(g_events.take(1), Wire{"1 1 1 +4930123"});
    sim::call("advance", {{"ms", 800000}});
    EXPECT_EQ(g_events.take(2), (Wire{"1 1 5 +4930123", "1 1 3 +4930123"}));
    EXPECT_EQ(list(), "0 1: 1 1 3 +4930123");
    EXPECT_EQ(Tavrik_VoiceCall_End(1), 0);
    EXPECT_EQ(g_events.take(1), Wire{"1 0 9 "});
    EXPECT_EQ(list(), "0 0:");
    Tavrik_VoiceCall_Deinit();
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
}

TEST_F(Voice, StopsAtTheFirstStepThatFails) {
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_VoiceCall_Init(nullptr), -1); }),
              "Tavrik_VoiceCall_Init: Paramter input error\n");
    const auto log_ends = [](const char *line, bool no_descriptors = false) {
        const std::string log = sim::log_of([&] {
            const NoDescriptors none(no_descriptors);
            EXPECT_EQ(Tavrik_VoiceCall_Init(on_call), -1);
        });
        const std::string end = std::string("Tavrik_VoiceCall_Init: ") + line + "\n";
        EXPECT_TRUE(log.size() >= end.size() && log.substr(log.size() - end.size()) == end) << log;
    };
    Tavrik_AT_Deinit();
    sim::call("fault", {{"service", "at"}, {"stop", true}});
    log_ends("at init faild");
    sim::call("clear");
    sim::call("fault", {{"service", "atind"}, {"stop", true}});
    log_ends("voice call indication register failed");
    sim::call("clear");
    ASSERT_EQ(Tavrik_VoiceCall_Init(on_call), 0);
    tavrik_ubus_deinit();
    log_ends("ubus init failed!", true);
    EXPECT_EQ(Tavrik_VoiceCall_Init(on_call), 0);
    Tavrik_VoiceCall_Deinit();
}

TEST_F(Voice, ReadsInSeveralThreads) {
    sim::call("state", many(11)["state"]);
    const std::string wanted = list();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 20; ++round)
                EXPECT_EQ(list(), wanted);
        });
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace
