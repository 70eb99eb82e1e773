#include "indication/listen.h"

int tavrik::listen_for_calls(int category, Tavrik_IndicationCb callback, const char *not_registered, Site site) {
    const char *const failed = !callback                                        ? "Paramter input error"
                               : Tavrik_AT_Init()                               ? "at init faild"
                               : tavrik_indication_register(category, callback) ? not_registered
                               : tavrik_ubus_init()                             ? "ubus init failed!"
                                                                                : nullptr;
    if (!failed)
        return 0;
    log(Level::error, site, "%s", failed);
    return -1;
}
