// tavrikctl call: voice calls.
#include "channel.h"
#include "command.h"
#include "names.h"
#include "output.h"
#include "watch.h"

#include <climits>
#include <cstring>
#include <tavrik_sdk.h>

namespace tavrikctl {
namespace {

bool written(Output &output) {
    return output.end() || fail("call: cannot write it");
}

bool dial(const Arguments &arguments, Output &output) {
    const Channel channel("call");
    int id;
    if (!channel)
        return false;
    if (Tavrik_VoiceCall_Start(arguments.text("NUMBER").c_str(), &id) != 0)
        return fail("call dial: the modem does not dial it, or there is a call");
    output.field("call", "Call", id);
    return written(output);
}

// The call that is named, else the first one that fits; 0 without one.
template <class Fits>
int chosen(const Arguments &arguments, Fits fits) {
    if (arguments.has("ID"))
        return int(arguments.number("ID"));
    Tavrik_CallList calls = {};
    Tavrik_VoiceCall_GetAllInfo(&calls);
    for (int i = 0; i < calls.count; ++i)
        if (fits(calls.calls[i]))
            return calls.calls[i].call_id;
    return 0;
}

bool answer(const Arguments &arguments, Output &) {
    const int id = chosen(arguments, [](const Tavrik_Call &call) { return call.state == TAVRIK_CALL_INCOMING; });
    if (id == 0)
        return fail("call answer: none comes in");
    return Tavrik_VoiceCall_Answer(id) == 0 || fail("call answer: it cannot be answered");
}

bool hangup(const Arguments &arguments, Output &) {
    const Channel channel("call");
    if (!channel)
        return false;
    const int id = chosen(arguments, [](const Tavrik_Call &call) { return call.state != TAVRIK_CALL_ENDED; });
    if (id == 0)
        return fail("call hangup: there is none");
    return Tavrik_VoiceCall_End(id) == 0 || fail("call hangup: it cannot be ended");
}

bool list(const Arguments &, Output &output) {
    Tavrik_CallList calls;
    if (Tavrik_VoiceCall_GetAllInfo(&calls) != 0)
        return fail("call list: the radio interface layer does not tell it");
    std::vector<std::string> texts;
    nlohmann::ordered_json members = nlohmann::ordered_json::array();
    for (int i = 0; i < calls.count; ++i) {
        const Tavrik_Call &call = calls.calls[i];
        const std::string number(call.number, strnlen(call.number, sizeof call.number)),
            state = call_state_name(call.state), direction = call_direction_name(call.direction);
        nlohmann::ordered_json member = {{"call", call.call_id}};
        std::string text = std::to_string(call.call_id);
        for (const auto &[key, value] :
             {std::pair("state", state), std::pair("direction", direction), std::pair("number", number)})
            if (!value.empty()) {
                member[key] = value;
                text += " " + value;
            }
        texts.push_back(text);
        members.push_back(member);
    }
    output.lines("calls", texts);
    output.member("calls", members);
    return written(output);
}

bool state(const Arguments &arguments, Output &output) {
    int state;
    if (Tavrik_VoiceCall_GetState(int(arguments.number("ID")), &state) != 0)
        return fail("call state: there is no such call, or the radio interface layer does not tell it");
    const std::string name = call_state_name(state);
    output.field("state", "State", name.empty() ? "unknown" : name);
    return written(output);
}

bool dtmf(const Arguments &arguments, Output &) {
    const std::string &tones = arguments.text("TONES");
    if (tones.find_first_not_of("0123456789*#ABCD") != std::string::npos)
        return fail("call dtmf: tones are 0 to 9, *, #, A, B, C and D");
    for (const char tone : tones)
        if (Tavrik_SendDtmf(tone) != 0)
            return fail("call dtmf: there is no call, or the radio interface layer does not send it");
    return true;
}

bool cause(const Arguments &, Output &output) {
    unsigned number;
    char text[TAVRIK_FAIL_CAUSE_SIZE];
    if (Tavrik_GetCallFailCause(&number, text) != 0)
        return fail("call cause: the radio interface layer does not tell it");
    output.field("cause", "Cause", number);
    output.field("text", "Text", text);
    return written(output);
}

bool watch_calls(const Arguments &arguments, Output &output) {
    return watch("call watch", {1}, arguments, output);
}

} // namespace

Family call_family() {
    Parameter any = optional_number("ID", "The call", 1, INT_MAX);
    Parameter which = number("ID", "The call", 1, INT_MAX);
    return {"call",
            "Voice calls",
            {{"call", "dial", "Dial a number, when there is no call", {word("NUMBER", "The number")}, dial},
             {"call", "answer", "Answer the call that comes in, or the given one", {any}, answer},
             {"call", "hangup", "End all calls", {any}, hangup},
             {"call", "list", "Print the calls", {}, list},
             {"call", "state", "Print the state of a call", {which}, state},
             {"call",
              "dtmf",
              "Send tones to the other side",
              {word("TONES", "One tone after the other: 0 to 9, *, #, A to D")},
              dtmf},
             {"call", "cause", "Print why the last call ended", {}, cause},
             {"call", "watch", "Print what happens to calls, a line each", watch_options(), watch_calls}}};
}

} // namespace tavrikctl
