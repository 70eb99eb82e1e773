// tavrikctl wifi: the access points.
#include "command.h"
#include "output.h"

#include <algorithm>
#include <tavrik_sdk.h>

namespace tavrikctl {
namespace {

using Texts = std::vector<std::string>;

// By the numbers of the library.
const Texts kBand = {"2.4", "5"}, kSwitch = {"off", "on"}, kEnabled = {"none", "first", "second", "both"},
            kNetworkMode = {"11g", "11bg", "11ng", "11a", "11na", "11ac"}, kBandwidth = {"20", "40", "80"},
            kAuth = {"open", "wpa2", "wpa2-tkip", "wpa", "wpa-tkip", "mixed-aes", "mixed", "wep", "tkip"};

int number_of(const Texts &words, const std::string &word) {
    return int(std::find(words.begin(), words.end(), word) - words.begin());
}

// In the order in which they are made: the network mode decides about the bandwidth.
const struct Setting {
    const char *name, *label, *value, *help;
    int (*set)(int value, int second, int band);
    int (*get)(int *value, int second, int band);
    const Texts *words = nullptr; // that the numbers from `first` on stand for
    int first = 0, most = 0;      // else the range of the number
} kSettings[] = {
    {"enable", "Enabled", "WHICH", "Which access points of the band are on", Tavrik_Set_WiFi_Mode, Tavrik_Get_WiFi_Mode,
     &kEnabled},
    {"netmode", "Network mode", "MODE", "What stations may speak; 11a, 11na and 11ac at 5 GHz", Tavrik_Set_Netmode,
     Tavrik_Get_Netmode, &kNetworkMode, TAVRIK_WIFI_11G},
    {"bandwidth", "Bandwidth", "MHZ", "Bandwidth in MHz, in the modes 11ng and 11na; 80 at 5 GHz", Tavrik_Set_Band,
     Tavrik_Get_Band, &kBandwidth},
    {"channel", "Channel", "N", "The channel, 0 for automatic", Tavrik_Set_Channel, Tavrik_Get_Channel, nullptr, 0,
     161},
    {"hidden", "Hidden", "SWITCH", "Whether the name is kept out of beacons", Tavrik_Set_Bcast, Tavrik_Get_Bcast,
     &kSwitch},
    {"isolate", "Isolate", "SWITCH", "Whether stations are kept apart", Tavrik_Set_Isolate, Tavrik_Get_Isolate,
     &kSwitch},
    {"max", nullptr, "N", "How many stations may be connected", Tavrik_WiFi_Connect_Num_Config, nullptr, nullptr, 1,
     2007},
};

std::string option(const Setting &setting) {
    return "--" + std::string(setting.name);
}

// What is missing in the package, or none of ours, is left out.
bool show(int band, Output &output) {
    int value;
    if (Tavrik_Get_WiFi_Mode(&value, 0, band) != 0)
        return fail("wifi ap show: the settings cannot be read");
    output.field("band", "Band", kBand[size_t(band)]);
    char ssid[TAVRIK_WIFI_SSID_SIZE] = "";
    Tavrik_Get_SSID(ssid, 0, band);
    if (*ssid)
        output.field("ssid", "SSID", ssid);
    for (const Setting &setting : kSettings) {
        if (!setting.get || setting.get(&value, 0, band) != 0)
            continue;
        if (setting.words)
            output.field(setting.name, setting.label, setting.words->at(size_t(value - setting.first)));
        else
            output.field(setting.name, setting.label, value);
    }
    if (Tavrik_Get_Auth(&value, nullptr, 0, band) == 0)
        output.field("auth", "Authentication", kAuth.at(size_t(value)));
    return output.end() || fail("wifi ap show: cannot write it");
}

bool set(const Arguments &arguments, int band) {
    const auto obeyed = [](int result, const std::string &name) {
        return result == 0 || fail("wifi ap set: " + name + ": refused, or the service does not restart");
    };
    if (arguments.has("--ssid") && !obeyed(Tavrik_Set_SSID(arguments.text("--ssid").c_str(), 0, band), "--ssid"))
        return false;
    for (const Setting &setting : kSettings) {
        const std::string name = option(setting);
        if (!arguments.has(name))
            continue;
        const int value = setting.words ? setting.first + number_of(*setting.words, arguments.text(name))
                                        : int(arguments.number(name));
        if (!obeyed(setting.set(value, 0, band), name))
            return false;
    }
    return !arguments.has("--auth") ||
           obeyed(Tavrik_Set_Auth(number_of(kAuth, arguments.text("--auth")),
                                  arguments.has("--key") ? arguments.text("--key").c_str() : nullptr, 0, band),
                  "--auth");
}

bool access_point(const Arguments &arguments, Output &output) {
    const int band = number_of(kBand, arguments.text("--band"));
    bool any = arguments.has("--ssid") || arguments.has("--auth") || arguments.has("--key");
    for (const Setting &setting : kSettings)
        any |= arguments.has(option(setting));
    if (any != (arguments.text("ACTION") == "set"))
        return fail("wifi ap: settings belong to \"set\", and to nothing else", kUsage);
    if (!any)
        return show(band, output);
    const bool secret = arguments.has("--auth") && arguments.text("--auth") != "open";
    if (arguments.has("--key") != secret)
        return fail("wifi ap set: --key belongs to any --auth but \"open\", and to nothing else", kUsage);
    return set(arguments, band);
}

} // namespace

Family wifi_family() {
    Parameter band = chosen_option("--band", "GHZ", "Whose access points", kBand);
    band.fallback = kBand[0];
    std::vector<Parameter> parameters = {chosen_word("ACTION", "What to do with the settings", {"show", "set"}), band,
                                         text_option("--ssid", "NAME", "The network's name, at most 32 bytes", "")};
    for (const Setting &setting : kSettings) {
        Parameter parameter = {option(setting), setting.value, setting.help};
        if (setting.words) {
            parameter.choices = *setting.words;
        } else {
            parameter.least = setting.first;
            parameter.most = setting.most;
        }
        parameters.push_back(parameter);
    }
    parameters.push_back(chosen_option("--auth", "HOW", "How stations prove that they may join",
                                       Texts(kAuth.begin(), kAuth.begin() + TAVRIK_WIFI_AUTH_MIXED + 1)));
    parameters.push_back(text_option("--key", "KEY", "The key, 8 to 63 ASCII characters", ""));
    return {"wifi",
            "WiFi access points",
            {{"wifi", "ap", "Print the settings of a band, or make some; the service restarts for each", parameters,
              access_point}}};
}

} // namespace tavrikctl
