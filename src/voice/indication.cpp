// "+CLCC: <id>,<dir>,<stat>,<mode>,<mpty>[,<number>…]" and "+CALLDISCONNECT: <id>[,<cause>]".
#include "core/log.h"
#include "indication/parsers.h"
#include "tavrik_sdk.h"

#include <stddef.h>
#include <string.h>

static_assert(sizeof(Tavrik_Call) == 44 && offsetof(Tavrik_Call, direction) == 4 &&
                  offsetof(Tavrik_Call, number) == 8 && offsetof(Tavrik_Call, state) == 40,
              "layout that applications were built with");
static_assert(sizeof(Tavrik_CallList) == 508 && offsetof(Tavrik_CallList, calls) == 4, "layout");

using namespace tavrik;

namespace {

constexpr int kVoiceCallEvent = 1;

// By <stat> of +CLCC; the last two are the module's own.
constexpr int kStates[] = {
    TAVRIK_CALL_ACTIVE,  TAVRIK_CALL_HELD,    TAVRIK_CALL_DIALLING, TAVRIK_CALL_ALERTING, TAVRIK_CALL_INCOMING,
    TAVRIK_CALL_WAITING, TAVRIK_CALL_STATE_6, TAVRIK_CALL_STATE_7,  TAVRIK_CALL_ENDED,
};
constexpr int kStateCount = sizeof kStates / sizeof *kStates;

void report(const Tavrik_Call &call) {
    Tavrik_CallList calls = {};
    calls.count = 1;
    calls.calls[0] = call;
    deliver(kSlotVoice, kVoiceCallEvent, &calls);
}

} // namespace

int tavrik::on_voice_call_info_changed(char *line) {
    if (!line) {
        TAVRIK_LOG_ERROR("data is null");
        return -1;
    }
    char *cursor = line;
    const bool ended = strstr(line, "+CALLDISCONNECT");
    Tavrik_Call call = {};
    if (at_tok_start(&cursor)) {
        TAVRIK_LOG_ERROR("at_tok_start failed");
        return -1;
    }
    int direction = 0, state = 0, mode;
    if (at_tok_nextint(&cursor, &call.call_id) ||
        (!ended && (at_tok_nextint(&cursor, &direction) || direction < 0 || direction > 1 ||
                    at_tok_nextint(&cursor, &state) || state < 0 || state >= kStateCount))) {
        TAVRIK_LOG_ERROR("get h_vcall failed");
        return -1;
    }
    if (ended) {
        char *cause = nullptr;
        if (at_tok_hasmore(&cursor))
            at_tok_nextstr(&cursor, &cause);
        call.state = TAVRIK_CALL_ENDED;
        report(call);
        on_ecall_disconnected(cause);
        return 0;
    }
    call.direction = direction + 1;
    call.state = kStates[state];
    if (at_tok_nextint(&cursor, &mode)) {
        TAVRIK_LOG_ERROR("get mode failed");
        return -1;
    }
    if (at_tok_nextbool(&cursor, nullptr)) {
        TAVRIK_LOG_ERROR("get is_mpty failed");
        return -1;
    }
    char *number = nullptr;
    if (at_tok_hasmore(&cursor)) {
        if (at_tok_nextstr(&cursor, &number) || !number) {
            TAVRIK_LOG_ERROR("get number failed");
            return -1;
        }
        memcpy(call.number, number, strnlen(number, sizeof call.number));
    }
    report(call);
    return 0;
}
