// The application's callbacks for registration, and for cells and signal.
#include "core/log.h"
#include "tavrik_sdk.h"

namespace {

int reg(int category, Tavrik_IndicationCb callback, const char *failure, tavrik::Site site = tavrik::Site::here()) {
    const char *problem = !callback                                        ? "Parameter input error!"
                          : tavrik_indication_register(category, callback) ? failure
                                                                           : nullptr;
    if (problem)
        tavrik::log(tavrik::Level::error, site, "%s", problem);
    return problem ? -1 : 0;
}

} // namespace

int Tavrik_NW_Cb_Reg(Tavrik_NwCb callback) {
    return reg(TAVRIK_IND_NETWORK, reinterpret_cast<Tavrik_IndicationCb>(callback), "nw indication register failed");
}

int Tavrik_NW_Cb_Reg_Ext(Tavrik_CellCb callback) {
    return reg(TAVRIK_IND_CELL, reinterpret_cast<Tavrik_IndicationCb>(callback),
               "cell info indication register failed");
}

int Tavrik_NW_Cb_Free(void) {
    if (!tavrik_indication_nwderegister())
        return 0;
    TAVRIK_LOG_ERROR("NW indication deregister failed");
    return -1;
}
