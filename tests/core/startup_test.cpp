// Start and stop of the library as a whole.
#include "support/sim.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <future>
#include <sys/resource.h>
#include <sys/wait.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TAVRIK_OWN_ALLOCATOR
#endif
#endif

namespace {

#ifdef TAVRIK_OWN_ALLOCATOR
constexpr bool kOwnAllocator = true;
#else
constexpr bool kOwnAllocator = false;
#endif

std::function<void(int)> g_inside; // of the SMS callback, by event
std::atomic<int> g_events{0}, g_calls{0};

void on_sms(int event, void *data) {
    if (const auto inside = std::exchange(g_inside, nullptr))
        inside(event);
    if (!event)
        free(data);
    ++g_events;
}

void on_call(const Tavrik_CallList *) {
    ++g_calls;
}

SmsMessage hello() {
    SmsMessage message = {};
    strcpy(message.number, "1");
    strcpy(message.text, "hello");
    message.length = 5;
    return message;
}

bool reaches(const std::atomic<int> &count, int value) {
    for (int i = 0; i < 3000 && count < value; ++i)
        usleep(10000);
    return count == value;
}

void incoming_message() {
    sim::call("line", {{"text", "\r\n+CMT: ,24\r\n"
                                "07919421436587F9040B919421436587F90000429042418003000AE8329BFD4697D9EC37\r\n"}});
}

class Startup : public testing::Test {
  protected:
    Startup() {
        sim::call("reset");
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
        g_events = g_calls = 0;
    }
    ~Startup() override {
        Tavrik_Basic_Destroy();
        Tavrik_AT_Deinit();
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID);
        g_inside = nullptr;
        sim::call("reset");
    }
};

TEST_F(Startup, AnyOrder) {
    EXPECT_EQ(Tavrik_Basic_Destroy(), 0); // of nothing
    EXPECT_EQ(sim::log_of([] {
                  EXPECT_EQ(Tavrik_Basic_Init(nullptr, nullptr), 0);
                  EXPECT_EQ(Tavrik_Basic_Init(nullptr, nullptr), 0);
              }),
              "");
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
    EXPECT_EQ(Tavrik_Basic_Init(on_sms, on_call), 0);
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_Basic_Init(on_sms, on_call), 0); }),
              "warn Tavrik_SMS_Init: sms has been already inited\n");
    incoming_message();
    sim::call("line", {{"text", "\r\n+CLCC: 1,1,4,0,0\r\n"}});
    EXPECT_TRUE(reaches(g_calls, 1));
    EXPECT_EQ(g_events, 1);
    EXPECT_EQ(Tavrik_Basic_Destroy(), 0);
    EXPECT_EQ(Tavrik_Basic_Destroy(), 0);
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
    EXPECT_EQ(Tavrik_Basic_Init(on_sms, nullptr), 0); // anew, and so without a warning
    incoming_message();
    EXPECT_TRUE(reaches(g_events, 2));
    const SmsMessage message = hello();
    EXPECT_EQ(Tavrik_SMS_SendMsg(&message), 0);
    EXPECT_EQ(g_events, 3);
}

TEST_F(Startup, WhatFails) {
    const auto log_has = [](const std::string &log, const char *line) {
        EXPECT_NE(log.find(line), std::string::npos) << log;
    };
    sim::call("fault", {{"service", "atind"}, {"stop", true}});
    log_has(sim::log_of([] { EXPECT_EQ(Tavrik_Basic_Init(on_sms, on_call), -1); }),
            "Tavrik_Basic_Init: sms init failed!\n");
    sim::call("reset");
    Tavrik_Basic_Destroy();
    sim::call("fault", {{"service", "at"}, {"stop", true}});
    log_has(sim::log_of([] { EXPECT_EQ(Tavrik_Basic_Init(on_sms, on_call), -1); }),
            "Tavrik_VoiceCall_Init: at init faild\nTavrik_Basic_Init: voice call init failed\n");
    incoming_message(); // the SMS callback stays
    EXPECT_TRUE(reaches(g_events, 1));
    sim::call("reset");
    EXPECT_EQ(Tavrik_Basic_Init(on_sms, on_call), 0);
    Tavrik_Basic_Destroy();

    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {3, limit.rlim_max};
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    EXPECT_EQ(sim::log_of([&] {
                  setrlimit(RLIMIT_NOFILE, &none);
                  EXPECT_EQ(Tavrik_Basic_Init(nullptr, nullptr), -1);
                  setrlimit(RLIMIT_NOFILE, &limit);
              }),
              "Tavrik_Basic_Init: ubus init failed!\n");
    EXPECT_EQ(Tavrik_Basic_Init(nullptr, nullptr), 0);
}

TEST_F(Startup, DestroyAbortsWhatIsUnderWay) {
    ASSERT_EQ(Tavrik_Basic_Init(on_sms, nullptr), 0);
    sim::fault("sms", "*", {{"drop", true}});
    const SmsMessage message = hello();
    ASSERT_EQ(Tavrik_SMS_SendMsg_Async(&message), 0);
    ASSERT_EQ(Tavrik_SMS_SendPdu_Async("00"), 0);
    const std::string log = sim::log_of([] { EXPECT_EQ(Tavrik_Basic_Destroy(), 0); });
    EXPECT_NE(log.find("send_async_message_core: asynchronous request aborted\n"), std::string::npos) << log;
    EXPECT_NE(log.find("send_pdu_async_message_core: asynchronous request aborted\n"), std::string::npos) << log;
    EXPECT_EQ(g_events, 0);
}

// On the indication thread, on the loop thread and in a synchronous send: the stop does not wait for itself, and after
// the callback everything can be started again.
TEST_F(Startup, DestroyInsideACallback) {
    for (const char *where : {"incoming", "async", "sync"}) {
        SCOPED_TRACE(where);
        ASSERT_EQ(Tavrik_Basic_Init(on_sms, on_call), 0);
        ASSERT_EQ(tavrik_ubus_thread_init(), 0);
        const int before = g_events;
        std::atomic<int> took_ms{-1};
        g_inside = [&](int) {
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(Tavrik_Basic_Destroy(), 0);
            took_ms = int((std::chrono::steady_clock::now() - start) / std::chrono::milliseconds(1));
        };
        const SmsMessage message = hello();
        if (*where == 'i')
            incoming_message();
        else
            EXPECT_EQ((*where == 'a' ? Tavrik_SMS_SendMsg_Async : Tavrik_SMS_SendMsg)(&message), 0);
        EXPECT_TRUE(reaches(g_events, before + 1));
        EXPECT_GE(took_ms, 0);
        EXPECT_LT(took_ms, 1500);
        EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
    }
}

// Two callbacks on the two threads of the library stop everything at once.
TEST_F(Startup, DestroyInsideTwoCallbacks) {
    for (int round = 0; round < 10; ++round) {
        ASSERT_EQ(Tavrik_Basic_Init(on_sms, nullptr), 0);
        const int before = g_events;
        std::promise<void> on_indication;
        auto ready = on_indication.get_future();
        std::atomic<int> sent{0}, received{0};
        static std::atomic<int> *g_sent;
        g_sent = &sent;
        g_inside = [&](int) {
            on_indication.set_value();
            Tavrik_Basic_Destroy();
            ++received;
        };
        incoming_message();
        ready.wait();
        const auto start = std::chrono::steady_clock::now();
        const SmsMessage message = hello();
        const auto on_end = [](void *, int, int32_t) {
            Tavrik_Basic_Destroy();
            ++*g_sent;
        };
        if (Tavrik_SMS_SendMsg_AsyncEx(&message, 0, on_end, nullptr))
            ++sent;
        EXPECT_TRUE(reaches(sent, 1) && reaches(received, 1) && reaches(g_events, before + 1));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
        Tavrik_Basic_Destroy();
    }
}

size_t entries(const char *folder) {
    size_t count = 0;
    DIR *list = opendir(folder);
    while (readdir(list))
        ++count;
    closedir(list);
    return count;
}

struct Footprint {
    size_t descriptors = entries("/proc/self/fd"), threads = entries("/proc/self/task");
    long pages = 0;
    Footprint() { std::ifstream("/proc/self/statm") >> pages >> pages; }
};

// A started thread may still be on its way out.
Footprint settled(const Footprint &wanted) {
    Footprint now;
    for (int i = 0; i < 500 && (now.threads > wanted.threads || now.descriptors > wanted.descriptors); ++i) {
        usleep(10000);
        now = Footprint();
    }
    return now;
}

TEST_F(Startup, ThousandRounds) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID);
    setenv("TAVRIK_LOG_OPTION", "0", 1);
    struct sigaction before[65], after;
    for (int number = 1; number < 65; ++number)
        sigaction(number, nullptr, &before[number]);
    const SmsMessage message = hello();
    const auto round = [&](int n) {
        ASSERT_EQ(Tavrik_Basic_Init(on_sms, on_call), 0);
        const int events = g_events;
        if (n % 2) {
            ASSERT_EQ(Tavrik_SMS_SendMsg_Async(&message), 0);
        }
        if (n % 4 == 1) {
            ASSERT_TRUE(reaches(g_events, events + 1));
        }
        const pid_t child = n % 10 ? 0 : fork();
        if (n % 10 == 0) {
            if (!child)
                _exit(7);
            int status = 0;
            ASSERT_EQ(waitpid(child, &status, 0), child); // nobody else has taken it
            ASSERT_EQ(WEXITSTATUS(status), 7);
        }
        ASSERT_EQ(Tavrik_Basic_Destroy(), 0);
        Tavrik_AT_Deinit();
    };
    for (int n = 1; n <= 20; ++n) // allocators and caches of the process grow first
        round(n);
    round(1);
    const Footprint first = settled(Footprint());
    for (int n = 1; n <= 1000 && !HasFatalFailure(); ++n)
        round(n);
    const Footprint last = settled(first);
    EXPECT_EQ(last.descriptors, first.descriptors);
    EXPECT_EQ(last.threads, first.threads);
    if (!kOwnAllocator && !getenv("TAVRIK_EMULATOR")) { // which keep what was freed
        EXPECT_LE(last.pages, first.pages + 64) << "of 4 KiB";
    }
    for (int number = 1; number < 65; ++number) {
        if (!sigaction(number, nullptr, &after)) {
            EXPECT_EQ(after.sa_handler, before[number].sa_handler) << number;
        }
    }
    unsetenv("TAVRIK_LOG_OPTION");
}

} // namespace
