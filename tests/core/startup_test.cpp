// Start and stop: of the library as a whole, and of the AT channel while others use it.
#include "support/descriptors.h"
#include "support/events.h"
#include "support/shell.h"
#include "support/sim.h"

#include <atomic>
#include <csignal>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

namespace {

using Texts = std::vector<std::string>;

Events g_heard;
std::function<void()> g_inside; // of the SMS callback, once

void on_sms(int event, void *data) {
    if (const auto inside = std::exchange(g_inside, nullptr))
        inside();
    if (!event)
        free(data);
    g_heard.add("sms " + std::to_string(event));
}

const Tavrik_CallCb on_call = [](const Tavrik_CallList *) { g_heard.add("call"); };
const SmsMessage kHello = {0, 0, 0, 0, 0, "1", "hello", 5, 0};

void incoming(const char *line = "+CMT: ,24\r\n"
                                 "07919421436587F9040B919421436587F90000429042418003000AE8329BFD4697D9EC37") {
    sim::call("line", {{"text", "\r\n" + std::string(line) + "\r\n"}});
}

// What a start logs.
std::string start(Tavrik_SmsCb sms, Tavrik_CallCb call, int result = 0) {
    return sim::log_of([=] { EXPECT_EQ(Tavrik_Basic_Init(sms, call), result); });
}

class Startup : public sim::AtTest {
  protected:
    ~Startup() override { Tavrik_Basic_Destroy(); }
};

TEST_F(Startup, AnyOrder) {
    EXPECT_EQ(Tavrik_Basic_Destroy(), 0); // of nothing
    EXPECT_EQ(start(nullptr, nullptr) + start(nullptr, nullptr), "");
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
    EXPECT_EQ(start(on_sms, on_call), "");
    EXPECT_EQ(start(on_sms, on_call), "warn Tavrik_SMS_Init: sms has been already inited\n");
    incoming();
    incoming("+CLCC: 1,1,4,0,0");
    EXPECT_EQ(g_heard.take(2), (Texts{"sms 0", "call"}));
    sim::fault("sms", "*", {{"drop", true}});
    EXPECT_EQ(Tavrik_SMS_SendMsg_Async(&kHello), 0);
    EXPECT_EQ(Tavrik_SMS_SendPdu_Async("00"), 0);
    EXPECT_EQ(sim::log_of(Tavrik_Basic_Destroy), "send_pdu_async_message_core: asynchronous request aborted\n"
                                                 "send_async_message_core: asynchronous request aborted\n");
    EXPECT_EQ(Tavrik_Basic_Destroy(), 0);
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
    sim::call("clear");
    EXPECT_EQ(start(on_sms, nullptr), ""); // anew
    incoming();
    EXPECT_EQ(g_heard.take(1), Texts{"sms 0"});
    EXPECT_EQ(Tavrik_SMS_SendMsg(&kHello), 0);
    EXPECT_EQ(g_heard.take(0), Texts{"sms 1"});
}

TEST_F(Startup, WhatFails) {
    Tavrik_AT_Deinit();
    EXPECT_EQ(sim::log_of([] {
                  const NoDescriptors none;
                  EXPECT_EQ(Tavrik_Basic_Init(nullptr, nullptr), -1);
              }),
              "Tavrik_Basic_Init: ubus init failed!\n");
    EXPECT_EQ(start(nullptr, nullptr), "");
    sim::call("fault", {{"service", "atind"}, {"stop", true}});
    const std::string log = start(on_sms, on_call, -1), last = "Tavrik_Basic_Init: sms init failed!\n";
    EXPECT_EQ(log.substr(log.size() - std::min(log.size(), last.size())), last);
    Tavrik_Basic_Destroy();
    sim::call("reset");
    sim::call("fault", {{"service", "at"}, {"stop", true}});
    EXPECT_EQ(start(on_sms, on_call, -1),
              "Tavrik_AT_Init: error: opening device: /tmp/atcmdsdk\nTavrik_VoiceCall_Init: at init faild\n"
              "Tavrik_Basic_Init: voice call init failed\n");
    incoming(); // the SMS callback stays
    EXPECT_EQ(g_heard.take(1), Texts{"sms 0"});
    sim::call("reset");
    EXPECT_EQ(start(nullptr, on_call), "");
}

void stop_everything(void *, int, int32_t) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Tavrik_Basic_Destroy(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1500)) << "waits for a callback";
    g_heard.add("stopped");
}

// On the indication thread, or in a synchronous send, and at once on the loop thread: the stop does not wait for
// itself, and after the callback everything can be started again.
TEST_F(Startup, DestroyInsideCallbacks) {
    for (int round = 0; round < 12; ++round) {
        ASSERT_EQ(Tavrik_Basic_Init(on_sms, nullptr), 0);
        ASSERT_EQ(tavrik_ubus_thread_init(), 0);
        std::promise<void> inside;
        g_inside = [&] {
            inside.set_value();
            stop_everything(nullptr, 0, 0);
        };
        if (round % 4)
            incoming();
        else
            EXPECT_EQ(Tavrik_SMS_SendMsg(&kHello), 0);
        inside.get_future().wait();
        const size_t events = Tavrik_SMS_SendMsg_AsyncEx(&kHello, 0, stop_everything, nullptr) ? 2 : 3;
        EXPECT_EQ(g_heard.take(events).size(), events);
        EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
        Tavrik_Basic_Destroy(); // the send may have started the loop anew
    }
}

// Without the connections that are kept for the next request.
long in_use() {
    tavrik_ubus_deinit();
    return entries_of("/proc/self/fd") + entries_of("/proc/self/task");
}

long pages() {
    long count = 0;
    std::ifstream("/proc/self/statm") >> count >> count;
    return count;
}

TEST_F(Startup, ThousandRounds) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_SYSLOG); // to nobody
    struct sigaction before[65], after;
    for (int number = 1; number < 65; ++number)
        sigaction(number, nullptr, &before[number]);
    const auto round = [](int n) {
        ASSERT_EQ(Tavrik_Basic_Init(on_sms, on_call), 0);
        ASSERT_EQ(n % 2 ? Tavrik_SMS_SendMsg_Async(&kHello) : 0, 0);
        ASSERT_TRUE(n % 4 != 1 || g_heard.take(1).size() == 1);
        ASSERT_EQ(n % 10 ? 7 : shell("exit 7").code, 7); // nobody else has taken it
        ASSERT_EQ(Tavrik_Basic_Destroy(), 0);
        Tavrik_AT_Deinit();
        g_heard.take(0);
    };
    // Meanwhile threads send whenever the channel is open: each answer belongs to its command.
    std::atomic<int> right{0}, wrong{0};
    const auto rounds = [&](int count) {
        std::atomic<bool> over{false};
        std::vector<std::thread> threads;
        for (int thread = 0; thread < 4; ++thread)
            threads.emplace_back([&, thread] {
                for (int i = 0; !over; ++i) {
                    const std::string text = std::to_string(thread) + "-" + std::to_string(i);
                    char response[64];
                    if (Tavrik_AT_Send(("AT+ECHO=" + text).c_str(), "OK", response, sizeof response, 20000))
                        usleep(100);
                    else
                        ++(response == "\r\n+ECHO: " + text + "\r\n\r\nOK\r\n" ? right : wrong);
                }
            });
        for (int n = 1; n <= count && !HasFatalFailure(); ++n)
            round(n);
        over = true;
        for (std::thread &thread : threads)
            thread.join();
    };
    rounds(21); // allocators and caches of the process grow first
    const long used = in_use(), memory = pages();
    rounds(1000);
    for (int i = 0; i < 500 && in_use() > used; ++i) // a thread may still be on its way out
        usleep(10000);
    EXPECT_LE(in_use(), used);
    const bool freed = !*TAVRIK_SANITIZER && !getenv("TAVRIK_EMULATOR"); // which keep it
    EXPECT_TRUE(!freed || pages() <= memory + 64) << pages() - memory << " pages of 4 KiB";
    for (int number = 1; number < 65; ++number)
        EXPECT_TRUE(sigaction(number, nullptr, &after) || after.sa_handler == before[number].sa_handler) << number;
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(right, 0);
}

} // namespace
