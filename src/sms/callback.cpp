// The application's SMS callback: incoming messages reach it through the indication channel, results of sends directly.
#include "sms/callback.h"

#include "core/sync.h"
#include "indication/parsers.h"
#include "tavrik_sdk.h"

#include <atomic>

using namespace tavrik;

namespace {

constexpr int kSendResult = 1; // event

Mutex g_initialising; // one Tavrik_SMS_Init at a time
std::atomic<bool> g_sms_init_flag{false};
std::atomic<Tavrik_SmsCb> sms_send_cb{nullptr};

} // namespace

void tavrik::reset_sms() {
    g_sms_init_flag = false;
    sms_send_cb = nullptr;
}

void tavrik::announce_result(int32_t result, Site site) {
    const Tavrik_SmsCb callback = sms_send_cb;
    if (!callback) {
        log(Level::error, site, "sms_send_cb is null");
        return;
    }
    SmsMessage record = {};
    record.result = result;
    callback(kSendResult, &record);
}

int Tavrik_SMS_Init(Tavrik_SmsCb callback) {
    Lock one(g_initialising);
    if (g_sms_init_flag) {
        TAVRIK_LOG_WARNING("sms has been already inited");
        return 0;
    }
    if (!callback) {
        TAVRIK_LOG_ERROR("Parameter input error!");
        return -1;
    }
    if (tavrik_indication_register(TAVRIK_IND_SMS, reinterpret_cast<Tavrik_IndicationCb>(callback))) {
        TAVRIK_LOG_ERROR("sms indication register failed");
        return -1;
    }
    sms_send_cb = callback;
    if (tavrik_ubus_init()) {
        TAVRIK_LOG_ERROR("ubus init failed!");
        return -1;
    }
    g_sms_init_flag = true;
    return 0;
}

void Tavrik_SMS_Deinit(void) {
    if (!g_sms_init_flag.exchange(false)) { // by one thread only: the registry counts
        TAVRIK_LOG_WARNING("sms not init");
        return;
    }
    if (tavrik_indication_smsderegister())
        TAVRIK_LOG_ERROR("sms indication deregister failed");
}
