// Dialling, answering, ending, tones, and why a call ended.
#include "core/at_command.h"
#include "core/log.h"
#include "tavrik_sdk.h"
#include "ubus/fail_cause.h"
#include "ubus/ril.h"
#include "voice/calls.h"

#include <string.h>

using namespace tavrik;

namespace {

constexpr uint32_t kDtmf = 24;
constexpr int kDtmfMs = 10000;
constexpr uint32_t kAnswer = 40;
constexpr int kAnswerMs = 5000;
constexpr int kCommandMs = 3000;
constexpr char kTones[] = "0123456789*#ABCD";

// Behind the number the command goes on, so that a line end in it would make two commands of one.
bool can_dial(const char *number) {
    return number && strlen(number) <= TAVRIK_DIAL_MAX && !strpbrk(number, "\r\n");
}

} // namespace

int Tavrik_VoiceCall_Start(const char *number, int *call_id) {
    if (!can_dial(number) || !call_id) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    Tavrik_CallList calls;
    if (!read_calls(calls))
        return -1;
    for (int i = 0; i < calls.count; ++i)
        if (calls.calls[i].call_id > 0) {
            TAVRIK_LOG_ERROR("now is calling, please waiting...");
            return -1;
        }
    if (AtCommand(kCommandMs).send("ATD%s;", number)) {
        TAVRIK_LOG_ERROR("voice call start failed");
        return -1;
    }
    *call_id = 1; // the id of a first call
    return 0;
}

int Tavrik_VoiceCall_Answer(int call_id) {
    Tavrik_Call call;
    if (!read_call(call_id, call))
        return -1;
    if (!call.call_id || call.state != TAVRIK_CALL_INCOMING) {
        TAVRIK_LOG_ERROR("There is no vcall_handle %d, or vcall_handle %d state is not incoming", call_id, call_id);
        return -1;
    }
    if (tavrik_ubus_invoke(kAnswer, nullptr, nullptr, kAnswerMs)) {
        TAVRIK_LOG_ERROR("voice call answer failed");
        return -1;
    }
    return 0;
}

int Tavrik_VoiceCall_End(int call_id) {
    Tavrik_Call call;
    if (!read_call(call_id, call))
        return -1;
    if (!call.call_id || call.state == TAVRIK_CALL_ENDED) {
        TAVRIK_LOG_ERROR("There is no vcall_handle %d, or vcall_handle %d state is end now", call_id, call_id);
        return -1;
    }
    // Whatever the id, the modem ends all calls.
    if (AtCommand(kCommandMs).send("AT+CHLD=19")) {
        TAVRIK_LOG_ERROR("handup all calls failed");
        return -1;
    }
    return 0;
}

int Tavrik_SendDtmf(char tone) {
    Tavrik_CallList calls;
    if (!read_calls(calls))
        return -1;
    if (!calls.count) {
        TAVRIK_LOG_ERROR("no call info now");
        return -1;
    }
    if (!tone || !strchr(kTones, tone)) {
        TAVRIK_LOG_ERROR(" invalid dtmf code");
        return -1;
    }
    const char payload[4] = {tone};
    RilRequest request(kDtmf, payload, sizeof payload);
    return request.ok ? tavrik_call_ubusinvoke(&request.buf, "ril", "ril_request", 0, nullptr, kDtmfMs) : -1;
}

int Tavrik_GetCallFailCause(unsigned *cause, char *text) {
    if (!cause)
        return -1;
    const FailCause asked;
    if (asked.result()) {
        TAVRIK_LOG_ERROR("CallFailCause get fail ! ");
        return -1;
    }
    const RilReply reply(asked.message());
    if (!usable(reply, kLastFailCause))
        return -1;
    if (!FailCause::in(reply)) {
        TAVRIK_LOG_ERROR("no response data");
        return -1;
    }
    FailCause::tell(reply, cause, text);
    return 0;
}

int Tavrik_VoiceCall_Hold(void) {
    return 0;
}

int Tavrik_VoiceCall_MultiProcess(void) {
    return 0;
}
