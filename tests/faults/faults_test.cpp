// Whatever the system refuses at whatever moment of an operation: it ends with 0 or -1, and the next one is right.
#include "faults.h"

#include "bus.h"
#include "support/descriptors.h"
#include "tavrik_sdk.h"

#include <future>
#include <gtest/gtest.h>

namespace {

blob_buf g_request;
const SmsMessage kHello = {0, 0, 0, 0, 0, "1", "x", 1, 0};

int send_at() {
    char response[512];
    return Tavrik_AT_Send("AT+CFUN?", "OK", response, sizeof response, 2000);
}

int get_mode() {
    int mode;
    return Tavrik_DM_GetPhoneMode(&mode);
}

// Either the reply is kept or the call has failed.
int keep_reply() {
    blob_attr *reply = nullptr;
    const int result = tavrik_call_ubusinvoke(&g_request, "ril", "ril_request", 1, &reply, 3000);
    const bool kept = reply;
    free(reply);
    return result || kept ? result : 1;
}

int loop() {
    const int result = tavrik_ubus_thread_init();
    tavrik_ubus_deinit();
    return result;
}

int send_message_later() {
    std::promise<int> ended;
    const auto on_end = [](void *user, int status, int32_t) {
        static_cast<std::promise<int> *>(user)->set_value(status ? -1 : 0);
    };
    const int result = Tavrik_SMS_SendMsg_AsyncEx(&kHello, 5000, on_end, &ended) ? -1 : ended.get_future().get();
    tavrik_ubus_deinit();
    return result;
}

const std::pair<const char *, int (*)()> kOperations[] = {
    {"send", send_at},
    {"reopen", [] { return Tavrik_AT_Deinit(), Tavrik_AT_Init(); }},
    {"mode", get_mode},
    {"first mode", [] { return tavrik_ubus_deinit(), get_mode(); }},
    {"keep the reply", keep_reply},
    {"loop", loop},
    {"message", [] { return Tavrik_SMS_SendMsg(&kHello); }},
    {"message, later", send_message_later},
};

class Faults : public testing::TestWithParam<int> {};

TEST_P(Faults, AtEachCall) {
    blob_buf_init(&g_request, 0);
    blobmsg_add_u32(&g_request, "reqid", 4711);
    int met = 0;
    for (const auto &[name, run] : kOperations) {
        ASSERT_EQ(Tavrik_AT_Init(), 0);
        ASSERT_EQ(run(), 0);
        tavrik_ubus_deinit();
        ASSERT_EQ(run(), 0);
        const long before = entries_of("/proc/self/fd");
        bool came = true;
        for (int n = 1; came; ++n) {
            SCOPED_TRACE(std::string(name) + ", call " + std::to_string(n));
            ASSERT_LT(n, 300);
            faults::left = n;
            faults::error = GetParam();
            const int result = run();
            faults::error = 0;
            came = faults::left <= 0;
            met += came;
            EXPECT_TRUE(result == 0 || (result == -1 && came)) << result;
            Tavrik_AT_Init();
            EXPECT_EQ(run(), 0);
        }
        tavrik_ubus_deinit(); // a context more may have been set up, and kept
        EXPECT_EQ(run(), 0);
        EXPECT_EQ(entries_of("/proc/self/fd"), before) << name;
    }
    EXPECT_GT(met, 5) << "the library calls others";
}

INSTANTIATE_TEST_SUITE_P(, Faults, testing::Values(ENOMEM, EAGAIN, EINTR, EMFILE, faults::one_byte));

} // namespace
