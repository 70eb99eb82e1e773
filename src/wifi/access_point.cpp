// Settings of the access point's interface: its name, who may see it, who may join it.
#include "tavrik_sdk.h"
#include "wifi/package.h"

#include <stdio.h>
#include <string.h>

using namespace tavrik;
using namespace tavrik::wifi;

namespace {

constexpr int kMostStations = 2007; // association identifiers of IEEE 802.11

constexpr Words kFlag = {0, 2, {"0", "1"}};

int set_flag(int flag, const char *option, int band, Site site = Site::here()) {
    const char *const value = kFlag.word(flag);
    if (!value)
        return failed("please input 0 or 1", site);
    return known_band(band, site) ? change(kInterface[band], option, value, site) : -1;
}

int get_flag(int *flag, const char *option, int band, Site site = Site::here()) {
    if (!flag)
        return failed("Parameter input error", site);
    return known_band(band, site) ? read(kInterface[band], option, kFlag, flag, site) : -1;
}

// By TAVRIK_WIFI_AUTH_OPEN and so on: what is written.
constexpr const char *kEncryption[] = {
    "none", "psk2", "psk2+tkip+ccmp", "psk+ccmp", "psk+tkip+ccmp", "mixed-psk+aes", "mixed-psk",
};

// What else is understood: the first of these that the word contains.
constexpr struct {
    const char *part;
    int auth;
} kForeignEncryption[] = {
    {"+shared", TAVRIK_WIFI_AUTH_SHARED},
    {"+tkip", TAVRIK_WIFI_AUTH_TKIP},
    {"mixed", TAVRIK_WIFI_AUTH_MIXED},
};

bool find_auth(const char *encryption, int *auth) {
    int known = TAVRIK_WIFI_AUTH_OPEN;
    for (const char *word : kEncryption) {
        if (!strcmp(word, encryption)) {
            *auth = known;
            return true;
        }
        ++known;
    }
    for (const auto &foreign : kForeignEncryption)
        if (strstr(encryption, foreign.part)) {
            *auth = foreign.auth;
            return true;
        }
    return false;
}

// ^[ -~]{8,63}$
bool good_key(const char *key) {
    const size_t length = strnlen(key, 64);
    for (size_t i = 0; i < length; ++i)
        if (key[i] < ' ' || key[i] > '~')
            return false;
    return length >= 8 && length <= 63;
}

} // namespace

int Tavrik_Set_SSID(const char *ssid, int, int band) {
    if (!ssid)
        return failed("Parameter input error");
    if (strlen(ssid) >= TAVRIK_WIFI_SSID_SIZE)
        return failed("the ssid length more than 32bit");
    return known_band(band) ? change(kInterface[band], "ssid", ssid) : -1;
}

void Tavrik_Get_SSID(char *ssid, int, int band) {
    if (!ssid)
        failed("Parameter input error");
    else if (known_band(band))
        read(kInterface[band], "ssid", ssid, TAVRIK_WIFI_SSID_SIZE);
}

int Tavrik_Set_Bcast(int hidden, int, int band) {
    return set_flag(hidden, "hidden", band);
}
int Tavrik_Get_Bcast(int *hidden, int, int band) {
    return get_flag(hidden, "hidden", band);
}
int Tavrik_Set_Isolate(int isolate, int, int band) {
    return set_flag(isolate, "isolate", band);
}
int Tavrik_Get_Isolate(int *isolate, int, int band) {
    return get_flag(isolate, "isolate", band);
}

int Tavrik_Set_Auth(int auth, const char *key, int, int band) {
    if (unsigned(auth) >= sizeof kEncryption / sizeof *kEncryption ||
        (auth != TAVRIK_WIFI_AUTH_OPEN && (!key || !good_key(key))))
        return failed("Parameter input error");
    if (!known_band(band))
        return -1;
    return change([=](UciStore &store) {
        return store.set(kInterface[band], "encryption", kEncryption[auth]) &&
               (auth == TAVRIK_WIFI_AUTH_OPEN || store.set(kInterface[band], "key1", key));
    });
}

int Tavrik_Get_Auth(int *auth, char *key, int, int band) {
    if (!auth)
        return failed("Parameter input error");
    if (!known_band(band))
        return -1;
    bool found = false;
    {
        UciStore store;
        if (store.allocated() && store.load(kPackage)) {
            const char *const encryption = store.text(kInterface[band], "encryption");
            const char *const key1 = store.text(kInterface[band], "key1");
            const size_t length = key1 ? strlen(key1) : 0;
            found = encryption && length < TAVRIK_WIFI_KEY_SIZE && find_auth(encryption, auth);
            if (found && key)
                memcpy(key, key1 ? key1 : "", length + 1);
        }
    }
    return found ? 0 : failed("get value is faild");
}

int Tavrik_WiFi_Connect_Num_Config(int count, int, int band) {
    if (count < 1 || count > kMostStations)
        return failed("Parameter input error");
    char text[12];
    snprintf(text, sizeof text, "%d", count);
    return known_band(band) ? change(kInterface[band], "maxassoc", text) : -1;
}
