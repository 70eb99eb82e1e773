// Settings of the radio: network mode, bandwidth, channel, and which access points it serves.
#include "core/text.h"
#include "tavrik_sdk.h"
#include "wifi/country.h"
#include "wifi/package.h"

#include <stdio.h>
#include <string.h>

using namespace tavrik;
using namespace tavrik::wifi;

namespace {

// All by band.
constexpr Words kNetworkMode[] = {{2, 3, {"11g", "11bg", "11ng"}}, {5, 3, {"11a", "11na", "11ac"}}};
constexpr Words kBandwidth[] = {{0, 2, {"HT20", "HT40"}}, {0, 3, {"VHT20", "VHT40", "VHT80"}}};
constexpr const char *kAccessPoints[][2] = {{"AP0_2G", "AP1_2G"}, {"AP0_5G", "AP1_5G"}};

constexpr int kChannels5G[] = {0, 36, 40, 44, 48, 52, 56, 60, 64, 149, 153, 157, 161};

bool allowed_5g(int channel) {
    for (const int allowed : kChannels5G)
        if (channel == allowed)
            return true;
    return false;
}

// Without the option it is enabled; without the section there is nothing to enable.
bool enabled(const UciStore &store, const char *access_point) {
    uci_section *const section = store.section(access_point);
    const char *const disabled = section ? UciStore::text(section, "disabled") : "1";
    return !disabled || !strcmp(disabled, "0");
}

} // namespace

int Tavrik_Set_Netmode(int mode, int, int band) {
    const char *const word = known_band(band) ? kNetworkMode[band].word(mode) : nullptr;
    return word ? change(kRadio[band], "hwmode", word) : -1;
}

int Tavrik_Get_Netmode(int *mode, int, int band) {
    if (!mode)
        return failed("Parameter input error");
    return known_band(band) ? read(kRadio[band], "hwmode", kNetworkMode[band], mode) : -1;
}

// With "11ac" the bandwidth stays as it is: the modes that can be told one are "11ng" and "11na".
int Tavrik_Set_Band(int bandwidth, int second, int band) {
    int mode;
    if (Tavrik_Get_Netmode(&mode, second, band) || (mode & ~2) != 4)
        return -1;
    const char *const word = kBandwidth[band].word(bandwidth);
    return word ? change(kRadio[band], "htmode", word) : -1;
}

int Tavrik_Get_Band(int *bandwidth, int, int band) {
    if (!bandwidth)
        return failed("Parameter input error");
    return known_band(band) ? read(kRadio[band], "htmode", kBandwidth[band], bandwidth) : -1;
}

int check_channel_with_crty(int channel, int) {
    if (channel < 0)
        return 0;
    int highest = -1;
    UciStore store;
    if (!store.allocated() || !store.load(kPackage))
        return 0;
    for (uci_section *section = store.next(); section; section = store.next(section)) {
        const char *const country =
            strcmp(UciStore::type(section), "wifi-device") ? nullptr : UciStore::text(section, "country");
        if (country)
            highest = highest_channel(country);
    }
    return highest > 0 && channel <= highest; // where there is no channel at all, there is no automatic one either
}

int Tavrik_Set_Channel(int channel, int second, int band) {
    if (!known_band(band) || !(band ? allowed_5g(channel) : check_channel_with_crty(channel, second)))
        return -1;
    char text[12];
    snprintf(text, sizeof text, "%d", channel);
    return change(kRadio[band], "channel", text);
}

int Tavrik_Get_Channel(int *channel, int, int band) {
    if (!channel)
        return failed("Parameter input error");
    char text[12];
    if (!known_band(band) || read(kRadio[band], "channel", text, sizeof text))
        return -1;
    if (!strcmp(text, "auto")) { // what others write for 0
        *channel = 0;
        return 0;
    }
    char *end;
    const int number = decimal(text, &end);
    if (*text < '0' || *text > '9' || *end)
        return failed("get value is faild");
    *channel = number;
    return 0;
}

int Tavrik_Set_WiFi_Mode(int mode, int, int band) {
    if (unsigned(mode) > (TAVRIK_WIFI_AP0 | TAVRIK_WIFI_AP1))
        return failed("Parameter input error");
    if (!known_band(band))
        return -1;
    return change([=](UciStore &store) {
        for (int i = 0; i < 2; ++i) {
            const char *const section = kAccessPoints[band][i];
            const bool wanted = mode >> i & 1;
            if ((wanted || store.section(section)) && !store.set(section, "disabled", wanted ? "0" : "1"))
                return false;
        }
        return true;
    });
}

int Tavrik_Get_WiFi_Mode(int *mode, int, int band) {
    if (!mode)
        return failed("Parameter input error");
    if (!known_band(band))
        return -1;
    bool read = false;
    {
        UciStore store;
        read = store.allocated() && store.load(kPackage);
        if (read)
            *mode = enabled(store, kAccessPoints[band][0]) | enabled(store, kAccessPoints[band][1]) << 1;
    }
    return read ? 0 : failed("get value is faild");
}
