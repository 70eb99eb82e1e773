// The calls there are, as the radio interface layer lists them. Each reading has a list of its own, so that readings in
// several threads need no lock, and a callback may read while another thread does.
#include "voice/calls.h"

#include "core/log.h"
#include "tavrik_sdk.h"
#include "ubus/ril.h"
#include "voice/state.h"

#include <algorithm>
#include <endian.h>
#include <string.h>

using namespace tavrik;

namespace {

constexpr uint32_t kCurrentCalls = 9;
constexpr int kCurrentCallsMs = 30000;

// What one request and its reply share.
struct CallInfo {
    int status = -1;
    Tavrik_CallList calls;
};

int32_t number(int32_t wire) {
    return int32_t(le32toh(uint32_t(wire)));
}

// These three are named as the exported ones, because their lines in the log bear the names.
void get_call_state(Tavrik_Call &call, int ril_state) {
    if (!call_state(ril_state, &call.state))
        TAVRIK_LOG_ERROR("unknown state: %d", ril_state);
}

void call_info_cb(blob_attr *message, CallInfo &info) {
    info.status = -1;
    const RilReply reply(message);
    if (!answered(reply, kCurrentCalls))
        return;
    info.calls = {};
    if (!reply.data || !reply.length) {
        info.status = 0; // there are none
        return;
    }
    const char *data = static_cast<const char *>(reply.data);
    uint32_t count;
    if (reply.length < sizeof count) {
        TAVRIK_LOG_ERROR("Return data length error");
        return;
    }
    memcpy(&count, data, sizeof count);
    count = le32toh(count);
    if (count && reply.length == sizeof count) {
        TAVRIK_LOG_ERROR("no response data");
        return;
    }
    if (count > (reply.length - sizeof count) / sizeof(RilCall)) {
        TAVRIK_LOG_ERROR("Return data length error");
        return;
    }
    if (count > TAVRIK_CALLS_MAX)
        TAVRIK_LOG_ERROR("%u calls, the first %d are kept", unsigned(count), TAVRIK_CALLS_MAX);
    info.calls.count = int32_t(std::min<uint32_t>(count, TAVRIK_CALLS_MAX));
    for (int i = 0; i < info.calls.count; ++i) {
        RilCall from;
        memcpy(&from, data + sizeof count + size_t(i) * sizeof from, sizeof from);
        Tavrik_Call &call = info.calls.calls[i];
        get_call_state(call, number(from.state));
        call.call_id = number(from.index);
        call.direction = from.terminated ? 2 : 1;
        memcpy(call.number, from.number, strnlen(from.number, sizeof call.number));
    }
    info.status = 0;
}

int get_call_info_msg(CallInfo &info) {
    const auto on_reply = [](ubus_request *request, int, blob_attr *message) {
        call_info_cb(message, *static_cast<CallInfo *>(request->priv));
    };
    if (tavrik_ubus_invoke(kCurrentCalls, on_reply, &info, kCurrentCallsMs)) {
        TAVRIK_LOG_ERROR("get call info msg failed");
        return -1;
    }
    if (info.status) {
        TAVRIK_LOG_ERROR("Parsing the response data failed");
        return -1;
    }
    return 0;
}

} // namespace

bool tavrik::read_calls(Tavrik_CallList &calls, Site site) {
    if (!Tavrik_VoiceCall_GetAllInfo(&calls))
        return true;
    log(Level::error, site, "get all calls info failed");
    return false;
}

bool tavrik::read_call(int call_id, Tavrik_Call &call, Site site) {
    Tavrik_CallList calls;
    call = {};
    if (call_id < 1) {
        log(Level::error, site, "Parameter input error");
        return false;
    }
    if (!read_calls(calls, site))
        return false;
    for (int i = 0; i < calls.count && !call.call_id; ++i)
        if (calls.calls[i].call_id == call_id)
            call = calls.calls[i];
    return true;
}

int Tavrik_VoiceCall_GetAllInfo(Tavrik_CallList *calls) {
    if (!calls) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    CallInfo info;
    if (get_call_info_msg(info))
        return -1;
    *calls = info.calls;
    return 0;
}

int Tavrik_VoiceCall_GetState(int call_id, int *state) {
    if (!state) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    Tavrik_Call call;
    if (!read_call(call_id, call) || !call.call_id)
        return -1;
    *state = call.state;
    return 0;
}

// What the operations read belongs to them: these check, and keep nothing.
int get_call_info_msg(void) {
    CallInfo unused;
    return get_call_info_msg(unused);
}

void call_info_cb(ubus_request *, int, blob_attr *message) {
    CallInfo unused;
    call_info_cb(message, unused);
}

void get_call_state(int index, int ril_state) {
    Tavrik_Call unused;
    if (index < 0 || index >= TAVRIK_CALLS_MAX)
        TAVRIK_LOG_ERROR("Parameter input error");
    else
        get_call_state(unused, ril_state);
}
