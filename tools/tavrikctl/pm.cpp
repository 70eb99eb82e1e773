// tavrikctl pm: sleep, wake locks and reboot.
#include "command.h"
#include "output.h"

#include <sstream>
#include <tavrik_sdk.h>

namespace tavrikctl {
namespace {

bool autosleep(const Arguments &arguments, Output &output) {
    const std::string &wanted = arguments.text("SLEEP");
    if (Tavrik_DM_SetAutoSleep(wanted == "on") != 0)
        return fail("pm autosleep: the kernel refuses it");
    output.field("autosleep", "Automatic sleep", wanted);
    return output.end() || fail("pm autosleep: cannot write it");
}

bool lock(const Arguments &arguments, Output &output) {
    const long long timeout = arguments.has("MS") ? arguments.number("MS") : 0;
    if (Tavrik_DM_CreatSourceLock(arguments.text("NAME").c_str(), uint32_t(timeout)) != 0)
        return fail("pm lock: it cannot be taken");
    output.field("locked", "Locked", arguments.text("NAME"));
    if (timeout)
        output.field("timeout_ms", "Time-out", timeout, " ms");
    return output.end() || fail("pm lock: cannot write it");
}

bool unlock(const Arguments &arguments, Output &output) {
    if (Tavrik_DM_RemoveSourceLock(arguments.text("NAME").c_str()) != 0)
        return fail("pm unlock: it is not held, or cannot be released");
    output.field("unlocked", "Unlocked", arguments.text("NAME"));
    return output.end() || fail("pm unlock: cannot write it");
}

bool locks(const Arguments &, Output &output) {
    char text[512];
    if (Tavrik_DM_ViewSourceLock(text, sizeof text) != 0)
        return fail("pm locks: they cannot be read");
    std::vector<std::string> names;
    std::istringstream list(text);
    for (std::string name; list >> name;)
        names.push_back(name);
    output.lines("locks", names);
    return output.end() || fail("pm locks: cannot write them");
}

bool reboot(const Arguments &, Output &) {
    return Tavrik_DM_Reboot() == 0 || fail("pm reboot: failed");
}

} // namespace

Family pm_family() {
    const Parameter name = word("NAME", "Name of the lock, without blanks");
    return {"pm",
            "Power management",
            {{"pm",
              "autosleep",
              "Switch automatic suspend on or off",
              {chosen_word("SLEEP", "What it shall be", {"on", "off"})},
              autosleep},
             {"pm",
              "lock",
              "Take a wake lock: the module does not suspend by itself while one is held",
              {name, optional_number("MS", "Milliseconds after which it expires, 0 for never", 0, UINT32_MAX - 1LL)},
              lock},
             {"pm", "unlock", "Release a wake lock", {name}, unlock},
             {"pm", "locks", "Print the wake locks that are held", {}, locks},
             {"pm", "reboot", "Reboot the module", {}, reboot}}};
}

} // namespace tavrikctl
