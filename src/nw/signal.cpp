// Signal values, as the modem counts them.
#include "nw/signal_cache.h"

#include "core/at_command.h"
#include "core/log.h"
#include "core/sync.h"
#include "nw/field.h"
#include "tavrik_sdk.h"

#include <stddef.h>

using namespace tavrik;

static_assert(offsetof(Tavrik_Signal, rsrp) == 2 && offsetof(Tavrik_Signal, rsrq) == 4 &&
                  offsetof(Tavrik_Signal, sinr) == 6 && offsetof(Tavrik_Signal, cqi) == 8 &&
                  sizeof(Tavrik_Signal) == 10,
              "applications are built with this layout");

namespace {

// What the modem said last: a question that it does not answer leaves the older values.
struct {
    Mutex mutex;
    int16_t sinr, rxlev, rscp, rsrp, cqi;
    uint8_t rsrq;
} g_signal;

// Asks, and takes the rest of the line behind `prefix`, empty when there is none. False when the modem does not answer.
bool ask(const char *command, const char *prefix, char (&text)[TAVRIK_AT_RESPONSE_SIZE], Site site = Site::here()) {
    AtCommand at;
    if (at.send("%s", command))
        return false;
    if (at.text_behind(prefix, text, sizeof text))
        log(Level::error, site, "Failed to get network signal");
    return true;
}

} // namespace

void tavrik::cache_sinr(int sinr) {
    Lock lock(g_signal.mutex);
    g_signal.sinr = int16_t(sinr);
}

int get_signal_parameter(void) {
    char text[TAVRIK_AT_RESPONSE_SIZE];
    if (!ask("AT+CESQ", "+CESQ:", text))
        return 0;
    const int rxlev = Field(text, 0).number(), rscp = Field(text, 2).number(), rsrq = Field(text, 4).number(),
              rsrp = Field(text, 5).number();
    Lock lock(g_signal.mutex);
    g_signal.rxlev = int16_t(rxlev);
    g_signal.rscp = int16_t(rscp);
    g_signal.rsrq = uint8_t(rsrq);
    g_signal.rsrp = int16_t(rsrp);
    return 0;
}

int get_cqi_info(void) {
    char text[TAVRIK_AT_RESPONSE_SIZE];
    if (!ask("AT*ZCQI?", "*ZCQI:", text))
        return 0;
    const int cqi = Field(text, 0).number();
    Lock lock(g_signal.mutex);
    g_signal.cqi = int16_t(cqi);
    return 0;
}

int Tavrik_NW_GetSignal(Tavrik_Signal *signal, int *technology) {
    if (!signal || !technology) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    if (get_signal_parameter()) {
        TAVRIK_LOG_ERROR("get signal failed");
        return -1;
    }
    if (get_cqi_info()) {
        TAVRIK_LOG_ERROR("get cqi failed");
        return -1;
    }
    const int type = get_network_type();
    Lock lock(g_signal.mutex);
    switch (type) {
    case 2:
        *technology = TAVRIK_NW_LTE;
        signal->rxlev = g_signal.rxlev;
        signal->rsrp = g_signal.rsrp;
        signal->rsrq = g_signal.rsrq;
        signal->sinr = g_signal.sinr;
        signal->cqi = g_signal.cqi;
        return 0;
    case 1:
        *technology = TAVRIK_NW_WCDMA;
        signal->rxlev = g_signal.rscp;
        return 0;
    case 0:
        *technology = TAVRIK_NW_GSM;
        signal->rxlev = g_signal.rxlev & 0xFF;
        return 0;
    }
    TAVRIK_LOG_ERROR("no service or get signal failed");
    return -1;
}
