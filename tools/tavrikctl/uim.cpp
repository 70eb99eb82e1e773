// tavrikctl uim: the SIM card.
#include "command.h"
#include "names.h"
#include "output.h"

#include <tavrik_sdk.h>

namespace tavrikctl {
namespace {

bool connect(const char *verb) {
    return Tavrik_UIM_Init() == 0 || fail(std::string(verb) + ": the AT server cannot be reached");
}

bool status(const Arguments &, Output &output) {
    if (!connect("uim status"))
        return false;
    int state = TAVRIK_UIM_UNKNOWN; // stays when the modem's error says nothing about the card
    const int result = Tavrik_UIM_GetUimCardStatus(0, &state);
    Tavrik_AT_Deinit();
    if (result != 0)
        return fail("uim status: the modem does not tell it");
    output.field("status", "SIM card", sim_state_name(state));
    return output.end() || fail("uim status: cannot write it");
}

bool iccid(const Arguments &, Output &output) {
    if (!connect("uim iccid"))
        return false;
    char text[TAVRIK_ICCID_SIZE] = "";
    int length;
    const int result = Tavrik_UIM_GetICCID(0, text, &length);
    Tavrik_AT_Deinit();
    if (result > 0)
        return fail("uim iccid: CME error " + std::to_string(result));
    if (result < 0)
        return fail("uim iccid: the modem does not tell it");
    output.field("iccid", "ICCID", text);
    return output.end() || fail("uim iccid: cannot write it");
}

bool imsi(const Arguments &, Output &output) {
    if (!connect("uim imsi"))
        return false;
    char text[TAVRIK_IMSI_SIZE];
    int length;
    const int result = Tavrik_UIM_GetIMSI(0, text, &length);
    Tavrik_AT_Deinit();
    if (result != 0)
        return fail("uim imsi: the modem does not tell it");
    output.field("imsi", "IMSI", text);
    return output.end() || fail("uim imsi: cannot write it");
}

bool number(const Arguments &arguments, Output &output) {
    if (!connect("uim number"))
        return false;
    char text[TAVRIK_NUMBER_SIZE] = "";
    int length, result;
    if (arguments.has("NUMBER"))
        result = Tavrik_UIM_SetPhoneNum(0, arguments.text("NUMBER").c_str());
    else
        result = Tavrik_UIM_GetPhoneNum(0, text, &length);
    Tavrik_AT_Deinit();
    if (result != 0)
        return fail(arguments.has("NUMBER") ? "uim number: it cannot be stored" : "uim number: none is known");
    output.field("number", "Own number", arguments.has("NUMBER") ? arguments.text("NUMBER") : text);
    return output.end() || fail("uim number: cannot write it");
}

bool power(const Arguments &arguments, Output &output) {
    if (!connect("uim power"))
        return false;
    const std::string &wanted = arguments.text("POWER");
    const int result = wanted == "on" ? Tavrik_UIM_Powerup(0) : Tavrik_UIM_Powerdown(0);
    Tavrik_AT_Deinit();
    if (result != 0)
        return fail("uim power: the modem refuses it");
    output.field("power", "SIM power", wanted);
    return output.end() || fail("uim power: cannot write it");
}

} // namespace

Family uim_family() {
    return {"uim",
            "SIM card",
            {{"uim", "status", "Print the state of the SIM card", {}, status},
             {"uim", "iccid", "Print the number of the SIM card", {}, iccid},
             {"uim", "imsi", "Print the subscriber's identity", {}, imsi},
             {"uim",
              "number",
              "Print the own number that the card holds, or store it there",
              {optional_word("NUMBER", "The new number: digits, with a plus sign in front if international")},
              number},
             {"uim",
              "power",
              "Switch the SIM interface on or off",
              {chosen_word("POWER", "What it shall be", {"on", "off"})},
              power}}};
}

} // namespace tavrikctl
