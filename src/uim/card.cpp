// The SIM card: its state, its numbers, and the interface to it. Only the first card exists.
#include "core/at_command.h"
#include "core/log.h"
#include "core/text.h"
#include "tavrik_sdk.h"
#include "uim/state.h"

#include <stdio.h>
#include <string.h>

using namespace tavrik;

namespace {

constexpr int kPowerUpMs = 4000;
constexpr int kPowerDownMs = 2000;

bool is_first(int card, Site site = Site::here()) {
    if (card == 0)
        return true;
    log(Level::error, site, "Only the status of the first uim card can be obtained");
    return false;
}

bool refused(const void *output, const int *length, int card, Site site = Site::here()) {
    if (output && length)
        return !is_first(card, site);
    log(Level::error, site, "Parameter input error");
    return true;
}

const struct {
    const char *text;
    int state;
} kStates[] = {
    {"SIM PIN", TAVRIK_UIM_PIN_REQUIRED},  {"SIM PUK", TAVRIK_UIM_PUK_REQUIRED},  {"SIM REMOVED", TAVRIK_UIM_ABSENT},
    {"SIM PIN2", TAVRIK_UIM_PIN_REQUIRED}, {"SIM PUK2", TAVRIK_UIM_PUK_REQUIRED}, {"READY", TAVRIK_UIM_READY},
};

} // namespace

int tavrik::uim_state(const char *text) {
    for (const auto &row : kStates)
        if (!strcmp(row.text, text))
            return row.state;
    return TAVRIK_UIM_UNKNOWN;
}

int Tavrik_UIM_Init(void) {
    if (!Tavrik_AT_Init())
        return 0;
    TAVRIK_LOG_ERROR("at init faild");
    return -1;
}

int Tavrik_UIM_GetUimCardStatus(int card, int *state) {
    if (refused(state, state, card))
        return -1;
    AtCommand at;
    char text[TAVRIK_AT_RESPONSE_SIZE];
    if (!at.send("AT+CPIN?")) {
        if (at.text_behind("CPIN:", text, sizeof text)) {
            TAVRIK_LOG_ERROR("Failed to get ims status");
            return -1;
        }
        *state = uim_state(text);
        return 0;
    }
    if (at.text_behind("CME ERROR:", text, sizeof text)) {
        TAVRIK_LOG_ERROR("get current sim status faild");
        *state = TAVRIK_UIM_UNKNOWN;
        return -1;
    }
    if (!strcmp(text, "(U)SIM PUK blocked") || !strcmp(text, "508"))
        *state = TAVRIK_UIM_PUK_BLOCKED;
    return 0; // another error says nothing about the card: the caller keeps the state it knows
}

int Tavrik_UIM_GetICCID(int card, char *iccid, int *length) {
    if (refused(iccid, length, card))
        return -1;
    AtCommand at;
    if (at.send("AT+CICCID")) {
        char text[TAVRIK_AT_RESPONSE_SIZE];
        if (at.text_behind("+CME ERROR:", text, sizeof text)) {
            TAVRIK_LOG_ERROR("get iccid failed");
            return -1;
        }
        TAVRIK_LOG_ERROR("get iccid error %s", LogText(text).c_str());
        const int number = decimal(text);
        return number > 0 ? number : -1;
    }
    TAVRIK_LOG_INFO("str_result: %s", LogText(at.answer()).c_str());
    if (at.text_behind("+ICCID:", iccid, TAVRIK_ICCID_SIZE)) {
        TAVRIK_LOG_ERROR("handle response data failed");
        return -1;
    }
    *length = int(strlen(iccid));
    return 0;
}

int Tavrik_UIM_GetIMSI(int card, char *imsi, int *length) {
    if (refused(imsi, length, card))
        return -1;
    AtCommand at;
    if (at.send("AT+CIMI")) {
        TAVRIK_LOG_ERROR("get imsi failed");
        return -1;
    }
    // By position: the answer begins with a line end, then come 15 digits.
    memcpy(imsi, at.answer() + 2, TAVRIK_IMSI_SIZE - 1);
    imsi[TAVRIK_IMSI_SIZE - 1] = 0;
    TAVRIK_LOG_ERROR("rsp_info: %s", LogText(imsi).c_str());
    *length = int(strlen(imsi));
    return 0;
}

int Tavrik_UIM_GetPhoneNum(int card, char *number, int *length) {
    if (refused(number, length, card))
        return -1;
    AtCommand at;
    if (at.send("AT+CNUM")) {
        TAVRIK_LOG_ERROR("get number faild: %s", LogText(at.answer()).c_str());
        return -1;
    }
    TAVRIK_LOG_INFO("str_result: %s", LogText(at.answer()).c_str());
    char *cursor = at.answer();
    if (at_tok_start(&cursor)) {
        TAVRIK_LOG_ERROR("tok start faild");
        return -1;
    }
    char *text;
    // The second field: NOLINTNEXTLINE(misc-redundant-expression)
    if (at_tok_nextstr(&cursor, &text) || at_tok_nextstr(&cursor, &text) || !text)
        return -1;
    text = trim(text);
    if (strlen(text) >= TAVRIK_NUMBER_SIZE)
        return -1;
    strcpy(number, text);
    *length = int(strlen(number));
    return 0;
}

int Tavrik_UIM_SetPhoneNum(int card, const char *number) {
    if (!number) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    if (!is_first(card))
        return -1;
    const char *type = *number == '+' ? ",145" : "";
    char command[64];
    const int length = snprintf(command, sizeof command, "AT+CNUM=1,\"%s\"%s", number, type);
    if (phonenum_is_valid(number) != 1 || length >= int(sizeof command)) {
        TAVRIK_LOG_ERROR("phonenum is invalid");
        return -1;
    }
    return AtCommand().send("%s", command);
}

int phonenum_is_valid(const char *number) {
    if (!number)
        return 0;
    if (*number == '+')
        ++number;
    return number[strspn(number, "0123456789")] == 0;
}

int Tavrik_UIM_Powerup(int card) {
    return is_first(card) ? AtCommand(kPowerUpMs).send("AT+CFUN=1") : -1;
}

int Tavrik_UIM_Powerdown(int card) {
    return is_first(card) ? AtCommand(kPowerDownMs).send("AT+CFUN=5") : -1;
}
