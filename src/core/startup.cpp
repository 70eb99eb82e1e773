// Start and stop of the library as a whole.
#include "core/log.h"
#include "indication/parsers.h"
#include "tavrik_sdk.h"

int Tavrik_Basic_Init(Tavrik_SmsCb sms, Tavrik_CallCb call) {
    if (sms && Tavrik_SMS_Init(sms)) {
        TAVRIK_LOG_ERROR("sms init failed!");
        return -1;
    }
    if (call && Tavrik_VoiceCall_Init(call)) {
        TAVRIK_LOG_ERROR("voice call init failed");
        return -1;
    }
    if (tavrik_ubus_init()) {
        TAVRIK_LOG_ERROR("ubus init failed!");
        return -1;
    }
    return 0;
}

int Tavrik_Basic_Destroy(void) {
    tavrik::end_loop();
    return tavrik_indication_deregister();
}
