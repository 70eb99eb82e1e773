// tavrikctl ecall: emergency calls.
#include "channel.h"
#include "command.h"
#include "output.h"
#include "watch.h"

#include <climits>
#include <cstdint>
#include <tavrik_sdk.h>

namespace tavrikctl {
namespace {

// Does what a verb is for that has nothing to print.
bool obeyed(int result, const char *verb) {
    return result == 0 || fail(std::string("ecall ") + verb + ": the modem refuses it");
}

bool parse_msd(const std::string &hex, Tavrik_EcallReq &request, const char *verb) {
    if (hex.size() % 2 || hex.size() / 2 > sizeof request.msd ||
        hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return fail(std::string("ecall ") + verb + ": the data are pairs of hexadecimal digits, 140 at most");
    for (size_t i = 0; i < hex.size(); i += 2)
        request.msd[i / 2] = uint8_t(std::stoul(hex.substr(i, 2), nullptr, 16));
    request.msd_len = int32_t(hex.size() / 2);
    return true;
}

bool start(const Arguments &arguments, Output &) {
    Tavrik_EcallReq request = {};
    const std::string number = arguments.has("--number") ? arguments.text("--number") : "";
    if (arguments.has("--test") == number.empty())
        return fail("ecall start: a number belongs to a test call, and to no other");
    if (!parse_msd(arguments.text("--msd"), request, "start"))
        return false;
    if (number.size() > sizeof request.test_number)
        return fail("ecall start: the number has more than 32 characters");
    number.copy(request.test_number, sizeof request.test_number);
    request.call_type = arguments.has("--test") ? TAVRIK_ECALL_TEST : 0;
    request.auto_trigger = arguments.has("--auto");
    const Channel channel("ecall");
    return channel && obeyed(Tavrik_Ecall_Start(&request), "start");
}

bool update(const Arguments &arguments, Output &) {
    Tavrik_EcallReq request = {};
    if (!parse_msd(arguments.text("--msd"), request, "update"))
        return false;
    const Channel channel("ecall");
    return channel && obeyed(Tavrik_Ecall_UpdateMSD(&request), "update");
}

bool end(const Arguments &, Output &) {
    const Channel channel("ecall");
    return channel && obeyed(Tavrik_Ecall_End(), "end");
}

bool push(const Arguments &, Output &) {
    const Channel channel("ecall");
    return channel && obeyed(Tavrik_Ecall_PushMSD(), "push");
}

bool network(const Arguments &arguments, Output &) {
    const Channel channel("ecall");
    return channel &&
           obeyed(arguments.text("NETWORK") == "on" ? Tavrik_Ecall_RegisterNetwork() : Tavrik_Ecall_DeregisterNetwork(),
                  "network");
}

const struct {
    const char *name, *help;
    long long most;
    void (*set)(Tavrik_EcallConfig &config, long long value);
} kSettings[] = {
#define SETTING(member, help, most)                                                                                    \
    {                                                                                                                  \
        "--" #member, help, most, [](Tavrik_EcallConfig &config, long long value) {                                    \
            config.member##_valid = 1;                                                                                 \
            config.member = decltype(config.member)(value);                                                            \
        }                                                                                                              \
    }
    SETTING(t2, "T2, end of the call at the latest", UINT32_MAX),
    SETTING(t5, "T5, wait for the request of the data", UINT16_MAX),
    SETTING(t6, "T6, wait for the application's acknowledgement", UINT16_MAX),
    SETTING(t7, "T7, transmission of the data", UINT16_MAX),
    SETTING(t9, "T9, in which the centre may call back", UINT32_MAX),
    SETTING(t10, "T10, after which the module leaves the network", UINT32_MAX),
    SETTING(dial, "Time for setting up the call", UINT32_MAX),
    SETTING(redialcnt, "How often it is dialled again", UINT32_MAX),
    SETTING(redialtmr, "Time between two dialings", UINT16_MAX),
    SETTING(smsmsdcnt, "How often the data are sent again by SMS", UINT32_MAX),
    SETTING(sms, "Time between two messages", UINT16_MAX),
    SETTING(smsnum, "Number that gets the data by SMS", UINT32_MAX),
#undef SETTING
};

bool config(const Arguments &arguments, Output &) {
    Tavrik_EcallConfig config = {};
    bool any = arguments.has("--ecallonly") || arguments.has("--mode");
    if (arguments.has("--ecallonly")) {
        config.ecallonly_valid = 1;
        config.ecallonly = arguments.text("--ecallonly") == "on";
    }
    if (arguments.has("--mode")) {
        config.mode_valid = 1;
        config.mode = arguments.text("--mode") == "ERA";
    }
    for (const auto &setting : kSettings)
        if (arguments.has(setting.name)) {
            setting.set(config, arguments.number(setting.name));
            any = true;
        }
    if (!any)
        return fail("ecall config: no setting is given");
    const Channel channel("ecall");
    if (!channel)
        return false;
    Tavrik_Ecall_Set_Config_Info(config);
    return true;
}

bool cause(const Arguments &, Output &output) {
    int number = INT_MIN; // stays when the reply is unusable
    char text[TAVRIK_FAIL_CAUSE_SIZE];
    if (Tavrik_GetEcallFailCause(&number, text) != 0 || number == INT_MIN)
        return fail("ecall cause: the radio interface layer does not tell it");
    output.field("cause", "Cause", number);
    output.field("text", "Text", text);
    return output.end() || fail("ecall cause: cannot write it");
}

bool watch_ecalls(const Arguments &arguments, Output &output) {
    return watch("ecall watch", {2}, arguments, output);
}

} // namespace

Family ecall_family() {
    const Parameter msd = required_option("--msd", "HEX", "The minimum set of data, as EN 15722 encodes it");
    const char *const kind = "Kind of call";
    std::vector<Parameter> settings = {
        chosen_option("--ecallonly", "SWITCH", "Whether the module is for eCalls alone", {"on", "off"}),
        chosen_option("--mode", "MODE", "Whose rules hold", {"EU", "ERA"})};
    for (const auto &setting : kSettings)
        settings.push_back(number_option(setting.name, "N", setting.help, 0, setting.most, ""));
    return {"ecall",
            "Emergency calls from a vehicle",
            {{"ecall",
              "start",
              "Start an eCall: exactly one of --test, --manual and --auto",
              {switch_option("--test", "A test call", kind), switch_option("--manual", "As if started by hand", kind),
               switch_option("--auto", "As if started by a crash", kind), msd,
               text_option("--number", "NUMBER", "The number that a test call dials", "")},
              start},
             {"ecall", "config",
              "Make settings of the modem, in its own units; one that it refuses is told by the log alone", settings,
              config},
             {"ecall",
              "network",
              "Take the module into the network or out of it",
              {chosen_word("NETWORK", "Where it shall be", {"on", "off"})},
              network},
             {"ecall", "end", "End the eCall", {}, end},
             {"ecall", "update", "Hand the modem other data", {msd}, update},
             {"ecall", "push", "Have the data sent again", {}, push},
             {"ecall", "cause", "Print why the last call ended", {}, cause},
             {"ecall", "watch", "Print what happens to eCalls, a line each", watch_options(), watch_ecalls}}};
}

} // namespace tavrikctl
