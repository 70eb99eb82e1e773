// Settings of the radio: cell lock, bands, preferred mode, and what the modem reports about itself.
#include "core/at_command.h"
#include "core/log.h"
#include "core/text.h"
#include "nw/field.h"
#include "tavrik_sdk.h"

#include <stddef.h>
#include <string.h>

using namespace tavrik;

static_assert(sizeof(Tavrik_RfBandInfo) == 16 && sizeof(Tavrik_RejectCause) == 12, "applications are built with these");

namespace {

constexpr int kCellLockMs = 3000;

// By preferred mode: the modem's own number of it.
constexpr int kNetworkMode[] = {-1, 15, 5, 4, 1, 0};
constexpr int kHighestNetworkMode = 15;

// The first number behind "*BAND:", the modem's network mode. False when it does not tell.
bool current_network_mode(int *mode) {
    AtCommand at;
    char *cursor = at.answer();
    return !at.send("AT*BAND?") && !at_tok_start(&cursor) && !at_tok_nextint(&cursor, mode);
}

} // namespace

int Tavrik_NW_CellLock(int technology, int frequency, int cell) {
    if (unsigned(technology) >= 4) {
        TAVRIK_LOG_ERROR("%s, error act", __func__);
        return -1;
    }
    if (!frequency) {
        TAVRIK_LOG_ERROR("%s, error freq", __func__);
        return -1;
    }
    if (!cell) {
        TAVRIK_LOG_ERROR("%s, error cellid", __func__);
        return -1;
    }
    if (AtCommand(kCellLockMs).send("AT*CELL=2,%d,,%d,%d", technology, frequency, cell)) {
        TAVRIK_LOG_ERROR("%s, lock cell faid!", __func__);
        return -1;
    }
    return 0;
}

int Tavrik_NW_ResetCellLock(void) {
    return AtCommand(kCellLockMs).send("AT*CELL=0,0,0,0,0");
}

int Tavrik_NW_GetRfBandInfo(Tavrik_RfBandInfo *bands) {
    if (!bands) {
        TAVRIK_LOG_ERROR("Error input");
        return -1;
    }
    AtCommand at;
    if (at.send("AT*BAND?"))
        return -1;
    char text[TAVRIK_AT_RESPONSE_SIZE];
    if (at.text_behind("*BAND:", text, sizeof text))
        TAVRIK_LOG_ERROR("Failed to get network signal"); // of an answer without bands the record is all zeros
    for (int i = 0; i < 4; i++) {
        const Field band(text, i + 1);
        bands->band[i] = band.text() ? uint32_t(ulongfromstr(nullptr, band.text())) : 0;
    }
    return 0;
}

int Tavrik_NW_SetRfBandInfo(uint32_t gsm, uint32_t umts, uint32_t lte_low, uint32_t lte_high, uint32_t last) {
    AtCommand at;
    char text[TAVRIK_AT_RESPONSE_SIZE];
    if (at.send("AT*BAND?") || at.text_behind("*BAND:", text, sizeof text) || !Field(text, 0).text()) {
        TAVRIK_LOG_ERROR("get current band faild");
        return -1;
    }
    const unsigned mode = unsigned(Field(text, 0).number());
    return AtCommand().send("AT*BAND=%u,%u,%u,%u,%u,,,,%u", mode, gsm, umts, lte_low, lte_high, last);
}

int Tavrik_NW_GetPreferredMode(int *mode) {
    if (!mode) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    int network_mode;
    if (!current_network_mode(&network_mode) || network_mode < 0 || network_mode > kHighestNetworkMode)
        return -1;
    int found = 0; // several numbers of the modem have no preferred mode of their own
    for (int preferred = 1; preferred <= 5; preferred++)
        if (kNetworkMode[preferred] == network_mode)
            found = preferred;
    *mode = found;
    return 0;
}

int Tavrik_NW_SetPreferredMode(int mode) {
    if (mode < 1 || mode > 5) {
        TAVRIK_LOG_ERROR("error input");
        return -1;
    }
    int network_mode;
    if (!current_network_mode(&network_mode))
        return -1;
    if (network_mode == kNetworkMode[mode]) {
        TAVRIK_LOG_DEBUG("same mode, not need to change");
        return 0;
    }
    TAVRIK_LOG_DEBUG("mode:%d", kNetworkMode[mode]);
    return AtCommand().send("AT*BAND=%d", kNetworkMode[mode]);
}

int Tavrik_NW_GetVolteStatus(int *status) {
    if (!status) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    AtCommand at;
    if (at.send("AT+CIREG?")) {
        TAVRIK_LOG_ERROR("get current ims faild");
        return -1;
    }
    char text[TAVRIK_AT_RESPONSE_SIZE];
    if (at.text_behind("CIREG:", text, sizeof text)) {
        TAVRIK_LOG_ERROR("Failed to get ims status");
        return -1;
    }
    *status = Field(text, 1).number();
    return 0;
}

int Tavrik_NW_RejectCauseSwitch(int on) {
    return AtCommand().send("AT*REJCAUSE=%d", on ? 1 : 0);
}

int Tavrik_NW_QueryRejectCause(Tavrik_RejectCause *causes) {
    if (!causes) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    AtCommand at;
    if (at.send("AT*REJCAUSE=2"))
        return -1;
    static const char kPrefix[] = "*REJCAUSE:";
    int count = 0;
    for (const char *from = at.answer(); count < TAVRIK_REJECT_CAUSES && (from = strstr(from, kPrefix)); count++) {
        char text[TAVRIK_AT_RESPONSE_SIZE] = {};
        if (handle_response_data(from, kPrefix, text))
            break;
        causes[count] = {Field(text, 0).number(), Field(text, 1).number(), Field(text, 2).number()};
        from += sizeof kPrefix - 1;
    }
    return count;
}

int Tavrik_Set_POWERIND(int on) {
    if (on != 0 && on != 1)
        return -1;
    return AtCommand().send("AT*POWERIND=%d", on ? 31 : 0);
}
