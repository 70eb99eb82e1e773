// The application's callback for calls.
#include "core/log.h"
#include "tavrik_sdk.h"

int Tavrik_VoiceCall_Init(Tavrik_CallCb callback) {
    if (!callback) {
        TAVRIK_LOG_ERROR("Paramter input error");
        return -1;
    }
    if (Tavrik_AT_Init()) {
        TAVRIK_LOG_ERROR("at init faild");
        return -1;
    }
    if (tavrik_indication_register(TAVRIK_IND_VOICE, reinterpret_cast<Tavrik_IndicationCb>(callback))) {
        TAVRIK_LOG_ERROR("voice call indication register failed");
        return -1;
    }
    if (tavrik_ubus_init()) {
        TAVRIK_LOG_ERROR("ubus init failed!");
        return -1;
    }
    return 0;
}

void Tavrik_VoiceCall_Deinit(void) {
    if (tavrik_indication_voicecallderegister())
        TAVRIK_LOG_ERROR("VoiceCall indication deregister failed");
}
