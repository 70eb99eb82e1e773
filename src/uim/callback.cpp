// The application's callback for SIM events.
#include "core/log.h"
#include "tavrik_sdk.h"

using namespace tavrik;

int Tavrik_UIM_Init_Ex(Tavrik_SimCb callback) {
    if (!callback) {
        TAVRIK_LOG_ERROR("Parameter input error!");
        return -1;
    }
    if (tavrik_indication_register(TAVRIK_IND_SIM, reinterpret_cast<Tavrik_IndicationCb>(callback))) {
        TAVRIK_LOG_ERROR("nw indication register failed");
        return -1;
    }
    return 0;
}

int Tavrik_UIM_Deinit_Ex(void) {
    if (tavrik_indication_uimderegister()) {
        TAVRIK_LOG_ERROR("UIM indication deregister failed");
        return -1;
    }
    return 0;
}
