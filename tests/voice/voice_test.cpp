// Voice calls against the simulated modem: what is sent, what comes out, what is logged.
#include <future>

#include "support/descriptors.h"
#include "support/events.h"
#include "support/sim.h"

namespace {

using sim::calling, sim::given, sim::log_of, sim::refused, sim::words;
using Texts = std::vector<std::string>;

// "RESULT COUNT|ID DIRECTION STATE NUMBER|…"; the count was -7 before.
std::string list() {
    Tavrik_CallList calls = {};
    calls.count = -7;
    std::string text = words(Tavrik_VoiceCall_GetAllInfo(&calls), calls.count);
    for (int i = 0; i < calls.count && i < TAVRIK_CALLS_MAX; ++i) {
        const Tavrik_Call &call = calls.calls[i];
        const std::string number(call.number, strnlen(call.number, sizeof call.number));
        text += "|" + words(call.call_id, call.direction, call.state, number);
    }
    return text;
}
std::string state_of_2() {
    return sim::number([](int *state) { return Tavrik_VoiceCall_GetState(2, state); });
}
sim::Operation dial(const std::string &number) {
    return [number] {
        int id = 77;
        return words(Tavrik_VoiceCall_Start(number.c_str(), &id), id);
    };
}
std::string cause() {
    unsigned number = 77;
    char text[TAVRIK_FAIL_CAUSE_SIZE] = "-";
    return words(Tavrik_GetCallFailCause(&number, text), number, text);
}

// The modem has these incoming calls, each with its state and id.
std::string calls(const std::vector<std::pair<int, int>> &states_and_ids) {
    auto list = nlohmann::json::array();
    for (const auto &[state, id] : states_and_ids)
        list.push_back({{"id", id}, {"state", state}, {"incoming", true}, {"number", "+49"}});
    return "calls=" + list.dump();
}
std::string alike(size_t count) {
    return calls(std::vector<std::pair<int, int>>(count, {0, 1}));
}
// A reply with this count and so many bytes of entries.
std::string reply(const std::string &count, size_t bytes) {
    return "ril * data=\"" + count + std::string(2 * bytes, '0') + "\"";
}

const std::string unread = "get_call_info_msg: Parsing the response data failed\n",
                  callback = "call_info_cb: ", null = ": Parameter input error",
                  other = "The response not for the request\n", noise = "Call back Parse response failed\n",
                  failed = "tavrik_ubus_invoke: Failed to ubus invoke: Invalid command\n",
                  no_list = failed + "get_call_info_msg: get call info msg failed\n",
                  no_calls = ": get all calls info failed\n",
                  no_service = "tavrik_call_ubusinvoke: ubus_invoke config_dspgain failed Invalid command\n"
                               "tavrik_call_ubusinvoke: exit fail Invalid command!\n";

class Voice : public sim::AtTest {};

TEST_F(Voice, ListsCalls) {
    const std::string digits = "12345678901234567890123456789012", no_length = callback + "Return data length error\n";
    std::string eleven = "0 11";
    for (int i = 1; i <= 11; ++i)
        eleven += "|1 2 3 +49";
    table({
        {"", list, "0 0", "ril 9"},
        {reply("00000000", 0), list, "0 0", "ril 9"},
        {calls({{0, -1}, {1, 2}, {2, 2}, {3, 2}, {4, 2}, {5, 2}, {6, 2}, {7, 2}, {8, 2}}), list,
         "0 9|-1 2 3 +49|2 2 6 +49|2 2 1 +49|2 2 5 +49|2 2 2 +49|2 2 7 +49|2 2 10 +49|2 2 8 +49|2 2 9 +49", "ril 9"},
        {calls({{9, 2}, {-1, 2}}), list, "0 2|2 2 0 +49|2 2 0 +49", "ril 9",
         "get_call_state: unknown state: 9\nget_call_state: unknown state: -1\n"},
        {"calls=[{\"number\":\"" + digits + "3456\"}]", list, "0 1|1 1 3 " + digits, "ril 9"},
        {alike(11), list, eleven, "ril 9"},
        {alike(12), list, eleven, "ril 9", callback + "12 calls, the first 11 are kept\n"},
        {reply("01000000", 100), list, "0 1|0 1 3 ", "ril 9"},
        {reply("02000000", 127), list, "-1 -7", "ril 9", no_length + unread},
        {reply("ffffffff", 64), list, "-1 -7", "ril 9", no_length + unread},
        {reply("01000000", 0), list, "-1 -7", "ril 9", callback + "no response data\n" + unread},
        {reply("010000", 0), list, "-1 -7", "ril 9", no_length + unread},
        {"ril * id=10", list, "-1 -7", "ril 9", callback + other + unread},
        {"ril * error=2", list, "-1 -7", "ril 9", callback + "response error 2\n" + unread},
        {"ril * raw=noise", list, "-1 -7", "ril 9", callback + noise + unread},
        {"ril * times=0", list, "-1 -7", "ril 9", unread},
        {"ril * status=1", list, "-1 -7", "ril 9", no_list},

        {calls({{0, 1}, {4, 2}, {0, 2}}), state_of_2, "0 2", "ril 9"}, // the first with the id
        {calls({{9, 2}}), state_of_2, "0 0", "ril 9", "get_call_state: unknown state: 9\n"},
        {calls({{0, 1}}), state_of_2, "-1 77", "ril 9"},
        {"ril * status=1", state_of_2, "-1 77", "ril 9", no_list + "Tavrik_VoiceCall_GetState" + no_calls},
    });
    int state;
    refuse({{"Tavrik_VoiceCall_GetAllInfo" + null, [] { return Tavrik_VoiceCall_GetAllInfo(nullptr); }},
            {"Tavrik_VoiceCall_GetState" + null, [&] { return Tavrik_VoiceCall_GetState(0, &state); }},
            {"Tavrik_VoiceCall_GetState" + null, [] { return Tavrik_VoiceCall_GetState(1, nullptr); }}});
}

TEST_F(Voice, Dials) {
    const std::string longest(TAVRIK_DIAL_MAX, '7'), self = "Tavrik_VoiceCall_Start", wire = "ril 9 ATD1;",
                                                     busy = self + ": now is calling, please waiting...\n",
                                                     not_started = self + ": voice call start failed\n";
    table({
        {"at ATD* delay=2500", dial("1"), "0 1", wire},
        {"", dial(longest), "0 1", "ril 9 ATD" + longest + ";"},
        {calls({{0, 2}}), dial("1"), "-1 77", "ril 9", busy},
        {calls({{8, 2}}), dial("1"), "-1 77", "ril 9", busy},
        {calls({{0, 0}}), dial("1"), "0 1", wire},
        {"mode=4", dial("1"), "-1 77", wire, refused + not_started},
        {"ril * status=1", dial("1"), "-1 77", "ril 9", no_list + self + no_calls},
        {"", dial(longest + "7"), "-1 77", "", self + null + "\n"},
        {"", dial("1\r"), "-1 77", "", self + null + "\n"},
        {"", dial("1\nAT"), "-1 77", "", self + null + "\n"},
    });
    int id;
    refuse({{self + null, [&] { return Tavrik_VoiceCall_Start(nullptr, &id); }},
            {self + null, [] { return Tavrik_VoiceCall_Start("1", nullptr); }}});
}

TEST_F(Voice, AnswersAndEnds) {
    const std::string answered = "ril 9 ril 40", ended = "ril 9 AT+CHLD=19", incoming = calls({{4, 2}}),
                      active = calls({{0, 2}}),
                      not_incoming = "Tavrik_VoiceCall_Answer: There is no vcall_handle 2, or vcall_handle 2 state is "
                                     "not incoming\n",
                      over = "Tavrik_VoiceCall_End: There is no vcall_handle 2, or vcall_handle 2 state is end now\n",
                      not_ended = "Tavrik_VoiceCall_End: handup all calls failed\n";
    const auto answer_2 = calling(Tavrik_VoiceCall_Answer, 2), end_2 = calling(Tavrik_VoiceCall_End, 2);
    table({
        {calls({{0, 1}, {4, 2}}), answer_2, "0", answered},
        {calls({{5, 2}}), answer_2, "-1", "ril 9", not_incoming},
        {calls({{4, 1}}), answer_2, "-1", "ril 9", not_incoming},
        {incoming + " | ril 40 status=1", answer_2, "-1", answered,
         failed + "Tavrik_VoiceCall_Answer: voice call answer failed\n"},
        {incoming + " | ril 40 error=2", answer_2, "0", answered}, // nobody looks
        {"ril * status=1", answer_2, "-1", "ril 9", no_list + "Tavrik_VoiceCall_Answer" + no_calls},

        {calls({{0, 2}, {1, 7}}), end_2, "0", ended},
        {calls({{8, 2}}), end_2, "-1", "ril 9", over},
        {calls({{0, 1}}), end_2, "-1", "ril 9", over},
        {active + " | at * error=NO CARRIER\r\nERROR", end_2, "-1", ended, refused + not_ended},
        {"ril * status=1", end_2, "-1", "ril 9", no_list + "Tavrik_VoiceCall_End" + no_calls},
        {active + " | at * drop=true", end_2, "-1", ended, "Tavrik_AT_Send: time out\n" + not_ended},
    });
    refuse({{"Tavrik_VoiceCall_Answer" + null, [] { return Tavrik_VoiceCall_Answer(0); }},
            {"Tavrik_VoiceCall_End" + null, [] { return Tavrik_VoiceCall_End(-1); }}});
    EXPECT_EQ(Tavrik_VoiceCall_Hold() + Tavrik_VoiceCall_MultiProcess(), 0);
}

TEST_F(Voice, SendsTones) {
    const std::string wire = "ril 9 ril 24 44000000", invalid = "Tavrik_SendDtmf:  invalid dtmf code\n",
                      active = calls({{0, 2}});
    table({
        {active, calling(Tavrik_SendDtmf, 'D'), "0", wire},
        {active, calling(Tavrik_SendDtmf, 'a'), "-1", "ril 9", invalid},
        {active, calling(Tavrik_SendDtmf, 'E'), "-1", "ril 9", invalid},
        {active, calling(Tavrik_SendDtmf, '\0'), "-1", "ril 9", invalid},
        {"", calling(Tavrik_SendDtmf, '1'), "-1", "ril 9", "Tavrik_SendDtmf: no call info now\n"},
        {active + " | ril 24 error=2", calling(Tavrik_SendDtmf, 'D'), "0", wire}, // nobody looks
        {active + " | ril 24 status=1", calling(Tavrik_SendDtmf, 'D'), "-1", wire, no_service},
        {"ril * status=1", calling(Tavrik_SendDtmf, '1'), "-1", "ril 9", no_list + "Tavrik_SendDtmf" + no_calls},
    });
    given(active);
    for (const char each : std::string("0123456789*#ABCD"))
        EXPECT_EQ(Tavrik_SendDtmf(each), 0) << each;
    EXPECT_EQ(sim::call("state")["state"]["dtmf"], "0123456789*#ABCD");
}

TEST_F(Voice, TellsTheCause) {
    const std::string self = "Tavrik_GetCallFailCause: ", none = "-1 77 -";
    table({
        {"fail_cause=44", cause, "0 44 44 Requested circuit/channel unavailable", "ril 18"}, // the longest text
        {"fail_cause=273", cause, "0 273 127 Interworking: unspecified", "ril 18"},          // 256 + 17
        {"fail_cause=-1", cause, "0 4294967295 127 Interworking: unspecified", "ril 18"},
        {"ril * data=null", cause, none, "ril 18", self + "no response data\n"},
        {"ril * data=\"110000\"", cause, none, "ril 18", self + "no response data\n"},
        {"ril * data=\"1100000022000000\"", cause, "0 17 17 User busy", "ril 18"},
        {"ril * id=9", cause, none, "ril 18", self + other},
        {"ril * error=-7 data=\"11000000\"", cause, none, "ril 18", self + "response error -7\n"},
        {"ril * raw=noise", cause, none, "ril 18", self + noise},
        {"ril * times=0", cause, none, "ril 18", self + noise},
        {"ril * status=1", cause, none, "ril 18", no_service + self + "CallFailCause get fail ! \n"},
    });
    EXPECT_EQ(Tavrik_GetCallFailCause(nullptr, nullptr), -1);
    EXPECT_TRUE(sim::sent().empty());
    int own = 0;
    for (unsigned i = 0, number = 77; i <= 256; ++i) {
        given("fail_cause=" + std::to_string(i));
        EXPECT_EQ(Tavrik_GetCallFailCause(&number, nullptr), 0);
        EXPECT_EQ(number, i);
        const std::string text = cause();
        own += text == words(0, i, "127 Interworking: unspecified") ? i == 127 : text.rfind(words(0, i, i, ""), 0) == 0;
    }
    EXPECT_EQ(own, 52);
}

// The exported handlers serve requests of the application's own.
TEST_F(Voice, ChecksForOthers) {
    given(calls({{9, 2}}));
    EXPECT_EQ(log_of([] {
                  EXPECT_EQ(get_call_info_msg(), 0);
                  EXPECT_EQ(tavrik_ubus_invoke(9, call_info_cb, nullptr, 3000), 0);
                  EXPECT_EQ(tavrik_ubus_invoke(18, call_info_cb, nullptr, 3000), 0);
                  call_info_cb(nullptr, 0, nullptr);
                  for (const auto &[index, state] : {std::pair{0, 8}, {10, 9}, {11, 0}, {-1, 0}})
                      get_call_state(index, state);
              }),
              "get_call_state: unknown state: 9\nget_call_state: unknown state: 9\n" + callback + other + callback +
                  noise +
                  "get_call_state: unknown state: 9\nget_call_state: Parameter input error\n"
                  "get_call_state: Parameter input error\n");
}

Events g_events;

void on_call(const Tavrik_CallList *list) {
    const Tavrik_Call &call = list->calls[0];
    int state = 0; // the API from inside a callback
    Tavrik_VoiceCall_GetState(call.call_id, &state);
    g_events.add(words(call.call_id, call.direction, call.state, call.number) +
                 (call.state == TAVRIK_CALL_INCOMING && state == call.state ? " listed" : ""));
}

TEST_F(Voice, FollowsACall) {
    ASSERT_EQ(Tavrik_VoiceCall_Init(on_call), 0);
    sim::call("wait", {{"kind", "connect"}, {"text", "atind"}});
    const auto step = [](const std::function<void()> &run, const Texts &events) {
        run();
        EXPECT_EQ(g_events.take(events.size()), events);
    };
    step([] { sim::call("call", {{"number", "+4940"}}); }, {"1 2 2 +4940 listed"});
    step([] { EXPECT_EQ(Tavrik_VoiceCall_Answer(1), 0); }, {"1 2 3 +4940"});
    step([] { sim::call("call", {{"number", "22"}}); }, {"2 2 7 22"});
    step([] { sim::call("hangup", {{"call", 1}, {"cause", 31}}); }, {"1 0 9 "});
    EXPECT_EQ(cause(), "0 31 31 Normal: unspecified");
    step([] { sim::call("hangup"); }, {"2 0 9 "});
    Tavrik_VoiceCall_Deinit();
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
}

// Both families that listen for calls begin alike.
TEST_F(Voice, StopsAtTheFirstStepThatFails) {
    refuse({{"Tavrik_VoiceCall_Init: Paramter input error", [] { return Tavrik_VoiceCall_Init(nullptr); }},
            {"Tavrik_Ecall_Init: Paramter input error", [] { return Tavrik_Ecall_Init(nullptr); }}});
    for (const bool ecall : {false, true}) {
        const auto init = [ecall] {
            return ecall ? Tavrik_Ecall_Init([](int32_t, const char *const *) {}) : Tavrik_VoiceCall_Init(on_call);
        };
        const auto fails = [&](const std::string &text, bool no_descriptors = false) {
            const std::string log = log_of([&] {
                const NoDescriptors none(no_descriptors);
                EXPECT_EQ(init(), -1);
            });
            EXPECT_EQ(log.substr(log.find(ecall ? "Tavrik_Ecall_Init: " : "Tavrik_VoiceCall_Init: ")), text);
            sim::call("clear");
        };
        Tavrik_AT_Deinit();
        given("at stop=true");
        fails(ecall ? "Tavrik_Ecall_Init: at init faild\n" : "Tavrik_VoiceCall_Init: at init faild\n");
        given("atind stop=true");
        fails(ecall ? "Tavrik_Ecall_Init: ecall indication register failed\n"
                    : "Tavrik_VoiceCall_Init: voice call indication register failed\n");
        ASSERT_EQ(init(), 0);
        tavrik_ubus_deinit();
        fails(ecall ? "Tavrik_Ecall_Init: ubus init failed!\n" : "Tavrik_VoiceCall_Init: ubus init failed!\n", true);
        EXPECT_EQ(init(), 0);
        ecall ? Tavrik_Ecall_Deinit() : Tavrik_VoiceCall_Deinit();
    }
}

TEST_F(Voice, ReadsInSeveralThreads) {
    given(alike(11));
    const std::string wanted = list();
    std::vector<std::future<void>> threads; // joined when they go
    for (int i = 0; i < 4; ++i)
        threads.push_back(std::async(std::launch::async, [&] {
            for (int round = 0; round < 20; ++round)
                EXPECT_EQ(list(), wanted);
        }));
}

} // namespace
