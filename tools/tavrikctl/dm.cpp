// tavrikctl dm: identity and phone mode.
#include "command.h"
#include "output.h"

#include <tavrik_sdk.h>

namespace tavrikctl {
namespace {

bool info(const Arguments &, Output &output) {
    Tavrik_VersionInfo version;
    char imei[TAVRIK_IMEI_SIZE];
    int length;
    const bool got_version = Tavrik_AT_Init() == 0 && Tavrik_DM_GetVersionInfo(&version) == 0;
    Tavrik_AT_Deinit();
    const bool got_imei = Tavrik_DM_GetIMEI(imei, &length) == 0;
    // The two come by different ways: one that fails does not hide the other.
    if (got_version) {
        output.field("manufacturer", "Manufacturer", version.manufacturer);
        output.field("model", "Model", version.model);
        output.field("revision", "Revision", version.revision);
    }
    if (got_imei)
        output.field("imei", "IMEI", imei);
    if ((got_version || got_imei) && !output.end())
        return fail("dm info: cannot write it");
    if (!got_version)
        fail("dm info: the AT server does not tell version and model");
    if (!got_imei)
        fail("dm info: the radio interface layer does not tell the IMEI");
    return got_version && got_imei;
}

const char *mode_name(int mode) {
    return mode == TAVRIK_PHONE_MODE_ONLINE ? "online" : mode == TAVRIK_PHONE_MODE_MINIMUM ? "offline" : "other";
}

bool mode(const Arguments &arguments, Output &output) {
    int mode;
    if (arguments.has("MODE")) {
        mode = arguments.text("MODE") == "online" ? TAVRIK_PHONE_MODE_ONLINE : TAVRIK_PHONE_MODE_MINIMUM;
        if (Tavrik_DM_SetPhoneMode(mode) != 0)
            return fail("dm mode: cannot change the phone mode");
    } else if (Tavrik_DM_GetPhoneMode(&mode) != 0) {
        return fail("dm mode: cannot read the phone mode");
    }
    output.field("mode", "Phone mode", mode_name(mode));
    return output.end() || fail("dm mode: cannot write it");
}

} // namespace

Family dm_family() {
    return {"dm",
            "Device management",
            {{"dm", "info", "Print manufacturer, model, firmware revision and IMEI", {}, info},
             {"dm",
              "mode",
              "Print the phone mode, or change it: offline switches the radio off",
              {optional_word("MODE", "The new mode", {"online", "offline"})},
              mode}}};
}

} // namespace tavrikctl
