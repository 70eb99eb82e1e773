// "+CLCC: <id>,<dir>,<stat>,<mode>,<mpty>[,<number>…]" and "+CALLDISCONNECT: <id>[,<cause>]".
#include "core/log.h"
#include "indication/parsers.h"
#include "tavrik_sdk.h"
#include "voice/state.h"

#include <stddef.h>
#include <string.h>

static_assert(sizeof(Tavrik_Call) == 44 && offsetof(Tavrik_Call, direction) == 4 &&
                  offsetof(Tavrik_Call, number) == 8 && offsetof(Tavrik_Call, state) == 40,
              "layout that applications were built with");
static_assert(sizeof(Tavrik_CallList) == 508 && offsetof(Tavrik_CallList, calls) == 4, "layout");

using namespace tavrik;

namespace {

constexpr int kVoiceCallEvent = 1;

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
                    at_tok_nextint(&cursor, &state) || !call_state(state, &call.state)))) {
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
