// Is the module registered and attached, and on which technology?
#include "core/at_command.h"
#include "core/log.h"
#include "core/text.h"
#include "nw/field.h"
#include "nw/signal_cache.h"
#include "tavrik_sdk.h"
#include "ubus/ril.h"

#include <string.h>

using namespace tavrik;

namespace {

constexpr int kUnknownStatus = 4; // 3GPP TS 27.007 clause 7.2

// Sends `command` and takes the rest of the line behind `prefix`. False when either fails.
bool ask(AtCommand &at, const char *command, const char *prefix, char (&text)[TAVRIK_AT_RESPONSE_SIZE]) {
    return !at.send("%s", command) && !at.text_behind(prefix, text, sizeof text);
}

int reg_state(const char *command, const char *prefix, Site site = Site::here()) {
    AtCommand at;
    char text[TAVRIK_AT_RESPONSE_SIZE];
    if (ask(at, command, prefix, text)) {
        const Field status(text, 1); // field 0 is the setting of the unsolicited report
        if (status.text())
            return status.number();
    }
    log(Level::error, site, "Failed to get reg_state");
    return kUnknownStatus;
}

} // namespace

int Tavrik_NW_Init(void) {
    if (!Tavrik_AT_Init())
        return 0;
    TAVRIK_LOG_ERROR("at init faild");
    return -1;
}

int get_network_type(void) {
    AtCommand at;
    if (at.send("AT+CPSI?")) {
        TAVRIK_LOG_ERROR("Send AT+CPSI? faild");
        return -1;
    }
    char text[TAVRIK_AT_RESPONSE_SIZE];
    if (at.text_behind("+CPSI:", text, sizeof text)) {
        TAVRIK_LOG_ERROR("Failed to get network type");
        return -1;
    }
    const Field mode(text, 0);
    if (!mode.text()) {
        TAVRIK_LOG_ERROR("Failed to get reg_state");
        return -1;
    }
    if (!strcmp(mode.text(), "LTE")) {
        cache_sinr(Field(text, 13).number());
        return 2;
    }
    return !strcmp(mode.text(), "WCDMA") ? 1 : !strcmp(mode.text(), "GSM") ? 0 : -1;
}

int get_lte_reg_state(void) {
    return reg_state("AT+CEREG?", "+CEREG:");
}

int get_wcdma_or_gsm_reg_state(void) {
    return reg_state("AT+CGREG?", "+CGREG:");
}

int Tavrik_NW_GetRegStatus(int *reg_state, int *cs_state, int *ps_state) {
    if (!reg_state || !cs_state || !ps_state) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    *reg_state = get_network_type() == 2 ? get_lte_reg_state() : get_wcdma_or_gsm_reg_state();

    AtCommand at;
    char text[TAVRIK_AT_RESPONSE_SIZE];
    if (!ask(at, "AT+CREG?", "+CREG:", text)) {
        TAVRIK_LOG_ERROR("Failed to get cs_state");
        return -1;
    }
    const Field status(text, 1);
    *cs_state = !status.text() ? 0 : status.number() == 1 || status.number() == 5 ? 1 : 2;

    if (!ask(at, "AT+CGATT?", "+CGATT:", text)) {
        TAVRIK_LOG_ERROR("Failed to get ps_state");
        return -1;
    }
    *ps_state = decimal(text) == 1 ? 1 : 2;
    return 0;
}

// For requests of the application's own: checks a reply and logs what is wrong with it.
void ps_state_request_cb(ubus_request *, int, blob_attr *message) {
    const RilReply reply(message);
    usable(reply, 521);
}
