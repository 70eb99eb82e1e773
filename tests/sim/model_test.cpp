// The simulated modem without its sockets: fields, clock, AT rules, faults, record.
#include <gtest/gtest.h>

#include "at/rule_table.h"
#include "control/args.h"
#include "control/faults.h"
#include "control/record.h"
#include "model/clock.h"
#include "model/modem.h"

using namespace tavrik::sim;
using nlohmann::json;

namespace {

std::string error_of(const std::function<void()> &action) {
    try {
        action();
    } catch (const std::exception &error) {
        return error.what();
    }
    return "none";
}

TEST(Modem, SetsAllFieldsOrNone) {
    Modem modem;
    const json before = modem.get();
    const json bad[] = {
        {{"imei", "1"}, {"imie", "2"}},
        {{"imei", "1"}, {"mode", 2147483648}},
        {{"imei", "1"}, {"mode", 1.0}},
        {{"imei", "1"}, {"mode", "0"}},
        {{"imei", "1"}, {"model", 7}},
        {{"imei", "1"}, {"echo", 1}},
        json::array({"imei"}),
        {{"calls", {{{"ID", 1}}}}},
        {{"calls", {{{"number", 110}}}}},
        {{"calls", {7}}},
        {{"calls", json::object()}},
        {{"pdp", 7}},
        {{"pdp", {{{"cid", "1"}}}}},
        {{"link_up", 1}},
    };
    for (const json &fields : bad) {
        EXPECT_THROW(modem.set(fields), std::invalid_argument) << fields;
        EXPECT_EQ(modem.get(), before) << fields;
    }
    modem.set({{"imei", "1"}, {"mode", -2147483648}, {"echo", true}});
    EXPECT_EQ(modem.text("imei") + modem.text("mode") + modem.text("echo"), "1-21474836481");
    modem.reset();
    EXPECT_EQ(modem.get(), before);
}

// Steps with one modem: a command, a change of fields, and what is said unasked.
TEST(Modem, ReportsAsItsSettingsSay) {
    const std::string cell = ",\"2A1C\",\"01D4E5F6\",7", other = ",\"0001\",\"00000005\",7";
    const struct {
        std::vector<std::string> commands;
        json fields;
        std::vector<std::string> lines;
    } steps[] = {
        {{}, {{"creg", 2}}, {"+CREG: 2"}}, // as it leaves the factory: all with their cell
        {{}, {{"creg", 2}}, {}},
        {{}, {{"creg", 1}}, {"+CREG: 1" + cell}},
        {{},
         {{"area", 1}, {"cell", 5}},
         {"+CREG: 1" + other, "+CGREG: 1" + other, "+CEREG: 1" + other,
          "+EEMLTESVC: 001,01,0001,0000005,1300,3,20,22,60,25,18"}},
        {{"AT+CREG=3", "AT+CGREG=x"}, {{"cgreg", 5}}, {"+CGREG: 5" + other}}, // what it does not take changes nothing
        {{"AT+CREG=1", "AT+CGREG=1", "AT+CEREG=1"},
         {{"cell", 6}},
         {"+EEMLTESVC: 001,01,0001,0000006,1300,3,20,22,60,25,18"}},
        {{}, {{"creg", 5}, {"cgreg", 3}, {"cereg", 0}}, {"+CREG: 5", "+CGREG: 3", "+CEREG: 0"}},
        {{"AT+CREG=0", "AT+CGREG=0", "AT+CEREG=0"}, {{"creg", 1}, {"cgreg", 1}, {"cereg", 1}}, {}},
        {{"AT+CGREG=1", "AT+CEREG=2"}, {}, {}}, // a setting alone is no news
        {{"AT+CFUN=4"}, {}, {"+CGREG: 0", "+CEREG: 0"}},
        {{"AT+CFUN=1"},
         {},
         {"+CGREG: 1", "+CEREG: 1,\"0001\",\"00000006\",7", "+EEMLTESVC: 001,01,0001,0000006,1300,3,20,22,60,25,18"}},
        {{"AT+CGREG=0", "AT+CEREG=0"},
         {{"act", 0}, {"rxlev", 30}},
         {"+EEMGINFOSVC: 001,01,0001,0000006,1300,3,20,22,30", "+CESQ: 30,99,255,255,25,60"}},
        {{},
         {{"act", 2}, {"rscp", 40}, {"ecno", 20}},
         {"+EEMUMTSSVC: 001,01,0001,0000006,1300,3,20,22,40,20", "+CESQ: 30,99,40,20,25,60"}},
        {{}, {{"sim", "SIM PUK"}}, {"+CPIN: SIM PUK"}},
        {{}, {{"sim", "SIM REMOVED"}}, {"+SIMCARD: 0", "+CPIN: SIM REMOVED"}},
        {{"AT+CFUN=5"}, {{"sim", "READY"}}, {"+SIMCARD: 1"}}, // behind an interface that is off
        {{"AT+CFUN=1"}, {}, {"+CPIN: READY", "+EEMUMTSSVC: 001,01,0001,0000006,1300,3,20,22,40,20"}},
        {{}, {{"contexts", "5,2"}}, {"+ZCONSTAT: 1,2", "+ZCONSTAT: 1,5"}},
        {{}, {{"contexts", "5,7"}}, {"+ZCONSTAT: 0,2", "+ZCONSTAT: 1,7"}},
    };
    const RuleTable rules = RuleTable::built_in();
    Modem modem;
    std::vector<std::string> lines;
    modem.on_unsolicited = [&](std::string_view line) { lines.emplace_back(line); };
    for (size_t i = 0; i < std::size(steps); i++) {
        lines.clear();
        for (const std::string &command : steps[i].commands)
            rules.answer(command, modem);
        if (!steps[i].fields.is_null())
            modem.set(steps[i].fields);
        EXPECT_EQ(lines, steps[i].lines) << "step " << i;
    }
}

// Errors of the card, as the modem was told to word them.
TEST(Modem, WordsErrorsAsItsSettingSays) {
    const struct {
        const char *setting;
        int error;
        const char *final;
    } cases[] = {
        {"AT", 13, "+CME ERROR: 13"},
        {"AT+CMEE=2", 13, "+CME ERROR: SIM failure"},
        {"AT+CMEE=2", 508, "+CME ERROR: (U)SIM PUK blocked"},
        {"AT+CMEE=2", 999, "+CME ERROR: 999"},
        {"AT+CMEE=0", 13, "ERROR"},
        {"AT+CMEE=3", 13, "+CME ERROR: 13"},
    };
    const RuleTable rules = RuleTable::built_in();
    for (auto &[setting, error, final] : cases) {
        Modem modem;
        modem.set({{"sim_error", error}});
        rules.answer(setting, modem);
        for (const char *command : {"AT+CPIN?", "AT+CICCID", "AT+CIMI", "AT+CNUM"})
            EXPECT_EQ(rules.answer(command, modem).text, std::string("\r\n") + final + "\r\n") << setting << command;
    }
}

TEST(Modem, HasCalls) {
    Modem modem;
    std::vector<std::string> lines;
    std::vector<std::pair<int64_t, std::function<void()>>> planned;
    modem.on_unsolicited = [&](std::string_view line) { lines.emplace_back(line); };
    modem.plan = [&](int64_t ms, std::function<void()> action) { planned.emplace_back(ms, std::move(action)); };
    RuleTable rules = RuleTable::built_in();
    EXPECT_EQ(rules.answer("ATA", modem).text, "\r\nERROR\r\n");
    EXPECT_EQ(rules.answer("ATH", modem).text, "\r\nERROR\r\n");
    EXPECT_EQ(rules.answer("ATD+491;", modem).text, "\r\nOK\r\n");
    EXPECT_TRUE(modem.act("ring", "22"));
    EXPECT_EQ(rules.answer("AT+CLCC", modem).text,
              "\r\n+CLCC: 1,0,2,0,0,\"+491\",145\r\n+CLCC: 2,1,5,0,0,\"22\",129\r\n\r\nOK\r\n");
    EXPECT_EQ(rules.answer("AT+CHLD=11", modem).text, "\r\nOK\r\n");
    EXPECT_EQ(rules.answer("ATD33;", modem).text, "\r\nOK\r\n"); // has the number 1 again
    // What was planned for the first call does not come to the one that has its number now.
    ASSERT_EQ(planned.size(), 4u);
    lines.clear();
    for (auto &[ms, action] : planned)
        action();
    EXPECT_EQ(lines, (std::vector<std::string>{"+CLCC: 1,0,3,0,0,\"33\",129", "+CLCC: 1,0,0,0,0,\"33\",129"}));
    lines.clear();
    EXPECT_EQ(rules.answer("AT+CHLD=19", modem).text, "\r\nOK\r\n");
    EXPECT_EQ(lines, (std::vector<std::string>{"+CALLDISCONNECT: 2,16", "+CALLDISCONNECT: 1,16"}));
    EXPECT_FALSE(modem.act("tone", "1"));
    modem.state().mode = 4;
    EXPECT_FALSE(modem.act("ring", "22"));
    EXPECT_EQ(rules.answer("ATD33;", modem).text, "\r\nERROR\r\n");
}

TEST(Clock, RunsWhatIsDueAtItsOwnMoment) {
    int64_t time = 5000;
    Clock clock([&] { return time; });
    std::vector<std::pair<int, int64_t>> ran;
    clock.after(30, [&] { ran.emplace_back(30, clock.now()); });
    clock.after(10, [&] {
        ran.emplace_back(10, clock.now());
        clock.after(15, [&] { ran.emplace_back(25, clock.now()); });
    });
    clock.after(31, [&] { ran.emplace_back(31, clock.now()); });
    EXPECT_EQ(clock.next(), 10);
    int64_t planned = -1; // by whoever wakes the clock
    clock.on_plan = [&] { planned = clock.next(); };
    time += 5;
    clock.run();
    EXPECT_TRUE(ran.empty());
    clock.advance(25);
    EXPECT_EQ(ran, (std::vector<std::pair<int, int64_t>>{{10, 10}, {25, 25}, {30, 30}}));
    EXPECT_EQ(clock.now(), 30);
    EXPECT_EQ(planned, 1);
    clock.reset();
    EXPECT_EQ(clock.next(), -1);
    EXPECT_EQ(clock.now(), 0);
}

TEST(Rules, AnswerInOrder) {
    RuleTable rules = RuleTable::built_in();
    Modem modem;
    const std::pair<const char *, const char *> dialogue[] = {
        {"AT", "\r\nOK\r\n"},
        {"at+cfun?", "\r\n+CFUN: 1\r\n\r\nOK\r\n"},
        {"AT+CFUN=0", "\r\nOK\r\n"},
        {"AT+CFUN?", "\r\n+CFUN: 0\r\n\r\nOK\r\n"},
        {"AT+CFUN=2", "\r\nERROR\r\n"},
        {"AT+CFUN?x", "\r\nERROR\r\n"},
        {"AT+ECHO=a {b} ?", "\r\n+ECHO: a {b} ?\r\n\r\nOK\r\n"},
        {"AT+ECHO=", "\r\n+ECHO: \r\n\r\nOK\r\n"},
        {"ATE2", "\r\nERROR\r\n"},
        {"AT+PALDEXATI", "\r\nManufacturer: Tavrik\r\nModel: TL100\r\nRevision: TL100-1.0.0\r\n"
                         "IMEI: 490154203237518\r\n\r\nOK\r\n"},
        {"BT", "\r\nERROR\r\n"},
        {"", "\r\nERROR\r\n"},
    };
    for (auto &[command, reply] : dialogue)
        EXPECT_EQ(rules.answer(command, modem).text, reply) << command;
    EXPECT_FALSE(modem.state().echo);
}

TEST(Rules, AddedOnesComeFirst) {
    RuleTable rules = RuleTable::built_in();
    Modem modem;
    rules.add(json::parse(R"([
        {"command": "AT+CFUN?", "when": {"mode": 0}, "final": "+CME ERROR: 3"},
        {"command": "AT+SWAP={mode},\"{imei}\";", "set": {"mode": "{mode}", "imei": "<{imei}>"}, "reply": "{imei}/{mode}\n",
         "later": [{"after": 40, "line": "+IMEI: {imei}"}, {"line": "+NOW"}]},
        {"command": "AT+RAW", "lines": ["+RAW"], "final": null}])"));
    EXPECT_EQ(rules.answer("AT+CFUN?", modem).text, "\r\n+CFUN: 1\r\n\r\nOK\r\n");
    RuleTable::Reply swap = rules.answer("AT+SWAP=0,\"9\";", modem);
    // What the command carried goes before what the modem has.
    EXPECT_EQ(swap.text, "9/0\n");
    EXPECT_EQ(modem.state().imei, "<9>");
    ASSERT_EQ(swap.later.size(), 2u);
    EXPECT_EQ(swap.later[0].after_ms, 40);
    EXPECT_EQ(swap.later[0].line, "+IMEI: 9");
    EXPECT_EQ(swap.later[1].after_ms, 0);
    EXPECT_EQ(rules.answer("AT+CFUN?", modem).text, "\r\n+CME ERROR: 3\r\n");
    EXPECT_EQ(rules.answer("AT+SWAP=0,\"9\"", modem).text, "\r\nERROR\r\n");
    EXPECT_EQ(rules.answer("AT+SWAP=x,\"9\";", modem).text, "\r\nERROR\r\n");
    EXPECT_EQ(rules.answer("AT+RAW", modem).text, "\r\n+RAW\r\n");
}

TEST(Rules, ErrorsNameThePlace) {
    const std::pair<const char *, const char *> cases[] = {
        {R"({})", "rules: not an array"},
        {R"([1])", "rules[0]: not an object"},
        {R"([{"command": "A"}, {"lines": []}])", "rules[1].command: not a text"},
        {R"([{"command": "A={x"}])", R"(rules[0].command: "{" without "}" in "A={x")"},
        {R"([{"command": "A", "lines": ["{x}"]}])", R"(rules[0].lines: unknown field "x")"},
        {R"([{"command": "A", "when": {"x": 1}}])", R"(rules[0].when: unknown field "x")"},
        {R"([{"command": "A", "act": {"x": 1}}])", R"(rules[0].act: unknown action "x")"},
        {R"([{"command": "A", "later": [{"after": -1, "line": ""}]}])",
         "rules[0].later: not a number of ms in \"after\""},
        {R"([{"command": "A", "line": ""}])", "rules[0].line: unknown key"},
    };
    for (auto &[rules, error] : cases)
        EXPECT_EQ(error_of([text = rules] { RuleTable().add(json::parse(text)); }), error) << rules;
}

Fault fault_from(const char *text, const char *effects = "delay split drop raw error close stop data") {
    const json object = json::parse(text);
    Args args(object);
    return Fault::from(args, effects);
}

TEST(Faults, MeetTheRequestsTheyName) {
    Faults faults;
    const unsigned second = faults.add(fault_from(R"({"service": "at", "match": "AT+A*", "nth": 2, "error": 10})"));
    const unsigned twice =
        faults.add(fault_from(R"({"service": "at", "match": "AT+AB", "nth": 3, "count": 2, "drop": true})"));
    const unsigned ril = faults.add(fault_from(R"({"service": "ril", "match": 38, "data": null, "error": -3})"));
    std::vector<unsigned> met;
    for (const char *command : {"AT+AB", "AT+B", "AT+AB", "AT+AB", "AT+AB", "AT+AB"}) {
        const Fault *fault = faults.meet("at", command);
        met.push_back(fault ? fault->number : 0);
    }
    EXPECT_EQ(met, (std::vector<unsigned>{0, 0, second, twice, twice, 0}));
    EXPECT_EQ(faults.meet("ril", "381"), nullptr);
    const Fault *fault = faults.meet("ril", "38");
    ASSERT_TRUE(fault && fault->number == ril);
    EXPECT_TRUE(fault->no_data && fault->ril_error == -3);
    EXPECT_EQ(faults.remove({}, "ril"), 1u);
    EXPECT_EQ(faults.meet("ril", "38"), nullptr);
}

TEST(Faults, CloseEndsConnectionsNowUnlessRequestsAreMeant) {
    EXPECT_TRUE(fault_from(R"({"service": "at", "close": true})").close_now);
    for (const char *text : {R"({"service": "at", "close": true, "match": "*"})",
                             R"({"service": "at", "close": true, "raw": "\r\n+X"})"}) {
        EXPECT_TRUE(fault_from(text).close) << text;
        EXPECT_FALSE(fault_from(text).close_now) << text;
    }
}

TEST(Faults, RefuseNonsense) {
    for (const char *text :
         {R"({"service": "at"})", R"({"service": "at", "delay": -1})", R"({"service": "at", "delay": true})",
          R"({"service": "at", "split": 0})", R"({"service": "at", "split": [2, 2]})",
          R"({"service": "at", "split": {"every": 1, "x": 2}})", R"({"service": "at", "raw": "x", "hex": "00"})",
          R"({"service": "at", "hex": "0"})", R"({"service": "at", "drop": true, "count": 0})",
          R"({"service": "at", "drop": true, "freeze": true})", R"({"service": "ril", "data": "0g"})"})
        EXPECT_THROW(fault_from(text), std::invalid_argument) << text;
}

TEST(Record, IsBoundedAndKeepsBytes) {
    Record record;
    record.add("at", 1, "AT+\xff");
    record.add_ril(38, nullptr, 0);
    record.add_ril(538, "\x01\0\0", 4);
    Record::Filter ril;
    ril.kind = "ril";
    json entries = record.read({}, 10)["entries"];
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0]["hex"], "41542bff");
    EXPECT_FALSE(entries[1].contains("data"));
    EXPECT_EQ(entries[2]["data"], "01000000");
    EXPECT_EQ(entries[2]["id"], 538);
    EXPECT_EQ(record.count(ril), 2u);
    for (size_t i = 0; i < Record::max_entries; i++)
        record.add("at", 1, "AT");
    EXPECT_EQ(record.count(ril), 0u);
    json rest = record.read({}, SIZE_MAX);
    EXPECT_EQ(rest["dropped"], 3);
    EXPECT_EQ(rest["last"], Record::max_entries + 3);
    Record::Filter late;
    late.after = record.last() - 2;
    EXPECT_EQ(record.count(late), 2u);
    late.text = "A*";
    EXPECT_EQ(record.read(late, 1)["entries"][0]["n"], record.last() - 1);
    late.after = record.last();
    EXPECT_EQ(record.count(late), 0u);
}

TEST(Text, WildcardsAndNesting) {
    EXPECT_TRUE(wildcard_match("AT*BAND?", "AT*BAND?"));
    EXPECT_TRUE(wildcard_match("*a*b", "xaabab"));
    EXPECT_FALSE(wildcard_match("*a*b", "xaaba"));
    EXPECT_FALSE(wildcard_match("AT+C?", "AT+CX"));
    EXPECT_TRUE(wildcard_match("**", ""));
    EXPECT_NO_THROW(parse_json(std::string(60, '[') + std::string(60, ']')));
    EXPECT_THROW(parse_json(std::string(1000000, '[') + std::string(1000000, ']')), std::exception);
}

} // namespace
