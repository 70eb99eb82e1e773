// Whatever the system refuses at whatever moment of an operation: it ends with 0 or -1, and the next one is right.
#include "faults.h"

#include "bus.h"
#include "tavrik_sdk.h"

#include <chrono>
#include <dirent.h>
#include <future>
#include <gtest/gtest.h>
#include <tuple>

namespace {

size_t descriptors() {
    size_t count = 0;
    DIR *folder = opendir("/proc/self/fd");
    while (readdir(folder))
        count++;
    closedir(folder);
    return count;
}

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
    static blob_buf message = [] {
        blob_buf buffer = {};
        blob_buf_init(&buffer, 0);
        blobmsg_add_u32(&buffer, "reqid", 4711);
        return buffer;
    }();
    blob_attr *reply = nullptr;
    const int result = tavrik_call_ubusinvoke(&message, "ril", "ril_request", 1, &reply, 3000);
    const bool kept = reply;
    free(reply);
    return result || kept ? result : 1;
}

// A first request of a process, which makes the connection that later ones take over.
int get_mode_anew() {
    tavrik_ubus_deinit();
    return get_mode();
}

int reopen() {
    Tavrik_AT_Deinit();
    return Tavrik_AT_Init();
}

int loop() {
    const int result = tavrik_ubus_thread_init();
    tavrik_ubus_deinit();
    return result;
}

SmsMessage hello() {
    SmsMessage message = {};
    message.number[0] = '1';
    message.text[0] = 'x';
    message.length = 1;
    return message;
}

int send_message() {
    const SmsMessage message = hello();
    return Tavrik_SMS_SendMsg(&message);
}

int send_message_later() {
    const SmsMessage message = hello();
    std::promise<int> ended;
    const auto on_end = [](void *user, int status, int32_t) {
        static_cast<std::promise<int> *>(user)->set_value(status ? -1 : 0);
    };
    const int result = Tavrik_SMS_SendMsg_AsyncEx(&message, 5000, on_end, &ended) ? -1 : ended.get_future().get();
    tavrik_ubus_deinit();
    return result;
}

const struct Operation {
    const char *name;
    int (*run)();
} kOperations[] = {
    {"Send", send_at},    {"Reopen", reopen}, {"Mode", get_mode},        {"ModeAnew", get_mode_anew},
    {"Keep", keep_reply}, {"Loop", loop},     {"Message", send_message}, {"MessageLater", send_message_later}};

const struct {
    const char *name;
    faults::Kind kind;
} kKinds[] = {{"NoMemory", faults::no_memory}, {"ShortRead", faults::short_read}, {"ShortWrite", faults::short_write},
              {"Eintr", faults::eintr},        {"Eagain", faults::eagain},        {"Emfile", faults::emfile}};

class Faults : public testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(Faults, AtEachCall) {
    const auto &operation = kOperations[std::get<0>(GetParam())];
    const auto &kind = kKinds[std::get<1>(GetParam())];
    Tavrik_AT_Deinit();
    ASSERT_EQ(Tavrik_AT_Init(), 0);
    ASSERT_EQ(operation.run(), 0);
    tavrik_ubus_deinit();
    ASSERT_EQ(operation.run(), 0);
    const size_t before = descriptors();
    int n = 0, failed = 0;
    for (bool came = true; came && n < 300;) {
        faults::arm(kind.kind, ++n);
        const auto start = std::chrono::steady_clock::now();
        const int result = operation.run();
        came = faults::disarm();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
        EXPECT_TRUE(result == 0 || result == -1) << "call " << n << ": " << result;
        EXPECT_TRUE(came || result == 0) << "call " << n;
        failed += result != 0;
        Tavrik_AT_Init();
        EXPECT_EQ(operation.run(), 0) << "after call " << n;
    }
    EXPECT_LT(n, 300);
    tavrik_ubus_deinit(); // a context more may have been set up, and kept
    EXPECT_EQ(operation.run(), 0);
    EXPECT_EQ(descriptors(), before);
    printf("%d calls, %d of them end it\n", n - 1, failed);
}

INSTANTIATE_TEST_SUITE_P(, Faults, testing::Combine(testing::Range(0, 8), testing::Range(0, 6)), [](const auto &param) {
    return std::string(kOperations[std::get<0>(param.param)].name) + kKinds[std::get<1>(param.param)].name;
});

} // namespace
