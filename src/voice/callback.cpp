// The application's callback for calls.
#include "core/log.h"
#include "indication/listen.h"
#include "tavrik_sdk.h"

int Tavrik_VoiceCall_Init(Tavrik_CallCb callback) {
    return tavrik::listen_for_calls(TAVRIK_IND_VOICE, reinterpret_cast<Tavrik_IndicationCb>(callback),
                                    "voice call indication register failed");
}

void Tavrik_VoiceCall_Deinit(void) {
    if (tavrik_indication_voicecallderegister())
        TAVRIK_LOG_ERROR("VoiceCall indication deregister failed");
}
