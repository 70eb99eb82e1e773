// Asynchronous requests, by the sends that are made of them: each ends once, in one way, and leaves nothing.
#include "ril_call.h"
#include "support/sim.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <dirent.h>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <sys/resource.h>
#include <thread>

namespace {

using nlohmann::json;

const char *const kEnds[] = {"answered", "failed", "timed out", "aborted"};

// The sends of a test, each with its number, and how they ended.
struct Sends {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<int, std::vector<std::string>> ends;
    int ended = 0, started = 0;
    std::function<void(int)> inside; // runs in the callback

    void wait(int count) {
        std::unique_lock<std::mutex> lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, std::chrono::seconds(90), [&] { return ended >= count; })) << ended;
    }
    std::string end_of(int number) {
        std::lock_guard<std::mutex> lock(mutex);
        std::string all;
        for (const std::string &end : ends[number])
            all += (all.empty() ? "" : ", ") + end;
        return all;
    }
} * g_sends;

void on_end(void *user, int status, int32_t resp) {
    const int number = int(reinterpret_cast<intptr_t>(user));
    if (g_sends->inside)
        g_sends->inside(number);
    std::lock_guard<std::mutex> lock(g_sends->mutex);
    g_sends->ends[number].push_back(std::string(kEnds[-status]) + (status ? "" : " " + std::to_string(resp)));
    g_sends->ended++;
    g_sends->changed.notify_all();
}

int send(int number, int timeout_ms = 20000) {
    SmsMessage message = {};
    snprintf(message.number, sizeof message.number, "%d", number);
    strcpy(message.text, "hello");
    message.length = 5;
    g_sends->started++;
    return Tavrik_SMS_SendMsg_AsyncEx(&message, timeout_ms, on_end, reinterpret_cast<void *>(intptr_t(number)));
}

size_t count_in(const char *folder) {
    size_t count = 0;
    DIR *list = opendir(folder);
    while (dirent *entry = readdir(list))
        count += entry->d_name[0] != '.';
    closedir(list);
    return count;
}

class Async : public testing::Test {
  protected:
    Async() {
        sim::call("reset");
        g_sends = &sends;
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    }
    ~Async() override {
        tavrik_ubus_deinit();
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID);
        sim::call("reset");
    }
    Sends sends;
};

TEST_F(Async, Outcomes) {
    const struct {
        const char *what;
        json fault;
        int timeout_ms;
        const char *end, *log;
    } cases[] = {
        {"an answer", {}, 5000, "answered 0", ""},
        {"the longest limit", {}, 0, "answered 0", ""},
        {"late",
         {{"delay", 200}, {"reply", {{"sms", {{"resp", "38"}, {"smsid", "1"}, {"smsRef", "1"}}}}}},
         5000,
         "answered 38",
         ""},
        {"too late",
         {{"delay", 400}},
         100,
         "timed out",
         "send_async_message_core: Failed to ubus invoke: Request timed out\n"},
        {"twice", {{"times", 2}}, 5000, "answered 0", ""},
        {"no message", {{"times", 0}}, 5000, "failed", ""},
        {"unreadable",
         {{"reply", {{"sms", {{"resp", 0}, {"smsid", "1"}, {"smsRef", "1"}}}}}},
         5000,
         "failed",
         "sms_recv_send_msg_cb: resp is null\n"},
        {"refused",
         {{"status", 6}, {"times", 0}},
         5000,
         "failed",
         "send_async_message_core: Failed to ubus invoke: Permission denied\n"},
        {"never",
         {{"drop", true}},
         500,
         "timed out",
         "send_async_message_core: Failed to ubus invoke: Request timed out\n"},
    };
    int number = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        if (!c.fault.is_null())
            sim::fault("sms", "sms.send " + std::to_string(++number), c.fault);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(sim::log_of([&] {
                      ASSERT_EQ(send(number, c.timeout_ms), 0);
                      sends.wait(sends.started);
                  }),
                  c.log);
        EXPECT_EQ(sends.end_of(number), c.end);
        if (strstr(c.log, "timed out")) {
            EXPECT_GE(seconds_since(start), c.timeout_ms / 1e3 - 0.005);
        }
        EXPECT_LT(seconds_since(start), 30);
        sends.ends.clear();
    }
}

// What cannot be sent calls nobody.
TEST_F(Async, Refused) {
    sim::call("fault", {{"service", "sms"}, {"stop", true}});
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(send(1), -1); }), "send_async_message_core: Failed to lookup id: Not found\n");
    sim::call("fault", {{"service", "bus"}, {"stop", true}});
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(send(2, 1000), -1); }),
              "send_async_message_core: Failed to connect to ubus\n");
    EXPECT_EQ(Tavrik_SMS_SendMsg_AsyncEx(nullptr, 0, on_end, nullptr), -1);
    EXPECT_EQ(Tavrik_SMS_SendPdu_AsyncEx("00", 0, nullptr, nullptr), -1);
    tavrik_ubus_deinit();
    EXPECT_EQ(sends.ended, 0);
}

TEST_F(Async, TheBusGoes) {
    sim::fault("sms", "*", {{"drop", true}});
    ASSERT_EQ(send(1), 0);
    ASSERT_EQ(send(2), 0);
    const std::string log = sim::log_of([&] {
        sim::call("fault", {{"service", "bus"}, {"stop", true}});
        sends.wait(2);
    });
    EXPECT_EQ(sends.end_of(1) + "; " + sends.end_of(2), "failed; failed");
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;
    sim::call("reset");
    ASSERT_EQ(send(3), 0);
    sends.wait(3);
    EXPECT_EQ(sends.end_of(3), "answered 0");
}

// 200 at most are under way, to a service that is late, silent, says things twice and in any order.
TEST_F(Async, Storm) {
    constexpr int kSends = 1000, kAtOnce = 200;
    ASSERT_EQ(send(1), 0);
    sends.wait(1);
    tavrik_ubus_deinit();
    const size_t before = count_in("/proc/self/fd");
    sim::fault("sms", "*0", {{"drop", true}});
    sim::fault("sms", "*1", {{"delay", 300}});
    sim::fault("sms", "*2", {{"times", 2}});
    sim::fault("sms", "*3", {{"delay", 100}, {"times", 2}});
    sim::fault("sms", "*4", {{"delay", 1}});
    sim::fault("sms", "*5", {{"status", 9}, {"times", 0}});
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID);
    std::vector<std::thread> threads;
    std::atomic<int> next{1000};
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&] {
            for (int number; (number = next++) < 1000 + kSends;) {
                {
                    std::unique_lock<std::mutex> lock(sends.mutex);
                    sends.changed.wait(lock, [&] { return number - 1000 - (sends.ended - 1) < kAtOnce; });
                }
                SmsMessage message = {};
                snprintf(message.number, sizeof message.number, "%d", number);
                strcpy(message.text, "hello");
                message.length = 5;
                EXPECT_EQ(Tavrik_SMS_SendMsg_AsyncEx(&message, number % 10 ? 30000 : 500 + number % 500, on_end,
                                                     reinterpret_cast<void *>(intptr_t(number))),
                          0);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    // The last ones wait in vain for long: they are aborted.
    for (int number = 2000; number < 2020; number++)
        ASSERT_EQ(send(number * 10, 60000), 0);
    sends.wait(1 + kSends);
    tavrik_ubus_deinit();
    EXPECT_EQ(sends.ended, 1 + kSends + 20);
    for (int number = 1000; number < 1000 + kSends; number++)
        EXPECT_EQ(sends.end_of(number), number % 10 == 0   ? "timed out"
                                        : number % 10 == 5 ? "failed"
                                                           : "answered 0")
            << number;
    for (int number = 2000; number < 2020; number++)
        EXPECT_EQ(sends.end_of(number * 10), "aborted");
    EXPECT_EQ(count_in("/proc/self/fd"), before);
}

TEST_F(Async, WithoutDescriptors) {
    ASSERT_EQ(send(1), 0);
    sends.wait(1);
    tavrik_ubus_deinit();
    const size_t before = count_in("/proc/self/fd");
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID);
    int sent = 0;
    for (size_t left = 0; left < 16; left++) {
        const rlimit few = {before + left, limit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
        const int result = send(int(left), 5000);
        setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_TRUE(result == 0 || result == -1) << result;
        sent += result == 0;
        sends.wait(1 + sent);
        tavrik_ubus_deinit();
        EXPECT_EQ(count_in("/proc/self/fd"), before);
    }
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 16);
    EXPECT_EQ(sends.ended, 1 + sent);
}

TEST_F(Async, AStopWaitsForWhatIsUnderWay) {
    sim::fault("sms", "*", {{"delay", 200}});
    ASSERT_EQ(send(1), 0);
    tavrik_ubus_thread_deinit();
    sends.wait(1);
    EXPECT_EQ(sends.end_of(1), "answered 0");
    ASSERT_EQ(send(2), 0); // and is revoked, or followed by a start
    tavrik_ubus_thread_deinit();
    ASSERT_EQ(send(3), 0);
    sends.wait(3);
    EXPECT_EQ(sends.end_of(3), "answered 0");
}

TEST_F(Async, DeinitAborts) {
    sim::fault("sms", "*", {{"drop", true}});
    ASSERT_EQ(send(1), 0);
    ASSERT_EQ(send(2), 0);
    sends.inside = [](int number) { EXPECT_EQ(send(number + 10), -1); }; // not in the middle of the end
    const auto start = std::chrono::steady_clock::now();
    const std::string log = sim::log_of(tavrik_ubus_deinit);
    EXPECT_LT(seconds_since(start), 1.5);
    EXPECT_EQ(sends.end_of(1) + "; " + sends.end_of(2), "aborted; aborted");
    EXPECT_EQ(sends.ended, 2);
    const std::string aborted = "send_async_message_core: asynchronous request aborted\n"
                                "tavrik_ubus_thread_init: the loop thread is being stopped\n"
                                "send_async_message_core: ubus_thread init failed!\n";
    EXPECT_EQ(log, aborted + aborted);
    sim::call("reset");
    sends.inside = nullptr;
    ASSERT_EQ(send(3), 0);
    sends.wait(3);
    EXPECT_EQ(sends.end_of(3), "answered 0");
}

// A callback may stop everything, which then ends behind it, and begin anew.
TEST_F(Async, FromInsideACallback) {
    sim::fault("sms", "sms.send 9", {{"drop", true}});
    for (const bool again : {false, true}) {
        sends.inside = [&](int number) {
            if (number != 1)
                return;
            tavrik_ubus_deinit();
            tavrik_ubus_thread_deinit();
            EXPECT_TRUE(answered(5, 3000));
            if (again) {
                EXPECT_EQ(tavrik_ubus_thread_init(), 0);
                EXPECT_EQ(send(2), 0);
            }
        };
        ASSERT_EQ(send(9), 0);
        ASSERT_EQ(send(1), 0);
        sends.wait(again ? 3 : 2);
        EXPECT_EQ(sends.end_of(9), "aborted");
        EXPECT_EQ(sends.end_of(1), "answered 0");
        EXPECT_EQ(sends.end_of(2), again ? "answered 0" : "");
        tavrik_ubus_deinit();
        sends.ends.clear();
        sends.ended = 0;
    }
}

// One that does not return holds up nobody for long.
TEST_F(Async, LeftBehind) {
    sim::fault("sms", "sms.send 9", {{"drop", true}});
    std::promise<void> inside, release;
    sends.inside = [&](int number) {
        if (number != 1)
            return;
        inside.set_value();
        release.get_future().wait();
    };
    ASSERT_EQ(send(9), 0);
    ASSERT_EQ(send(1), 0);
    inside.get_future().wait();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(sim::log_of(tavrik_ubus_deinit), "tavrik_ubus_deinit: callback does not end, left behind\n");
    EXPECT_GE(seconds_since(start), 1.995);
    EXPECT_LT(seconds_since(start), 30);
    ASSERT_EQ(send(2), 0); // on another thread
    sends.wait(1);
    EXPECT_EQ(sends.end_of(2), "answered 0");
    const size_t threads = count_in("/proc/self/task");
    release.set_value();
    sends.wait(3);
    EXPECT_EQ(sends.end_of(9) + "; " + sends.end_of(1), "aborted; answered 0");
    for (int i = 0; i < 1000 && count_in("/proc/self/task") >= threads; i++)
        usleep(10000);
    EXPECT_EQ(count_in("/proc/self/task"), threads - 1);
}

// Starts, stops and sends in any order on several threads: what was under way ends once, whatever came between.
TEST_F(Async, StartAndStopWhileSending) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID);
    std::atomic<int> under_way{0};
    std::atomic<bool> over{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 150; i++) {
                SmsMessage message = {};
                strcpy(message.number, "1");
                strcpy(message.text, "x");
                message.length = 1;
                under_way += !Tavrik_SMS_SendMsg_AsyncEx(&message, 5000, on_end,
                                                         reinterpret_cast<void *>(intptr_t(t * 1000 + i)));
            }
        });
    threads.emplace_back([&] {
        while (!over) {
            tavrik_ubus_thread_deinit();
            tavrik_ubus_thread_init();
            usleep(500);
            tavrik_ubus_deinit();
        }
    });
    for (int t = 0; t < 3; t++)
        threads[size_t(t)].join();
    over = true;
    threads.back().join();
    tavrik_ubus_deinit();
    EXPECT_GT(under_way, 0);
    EXPECT_EQ(sends.ended, under_way);
    for (const auto &[number, ends] : sends.ends)
        EXPECT_EQ(ends.size(), 1u) << number;
}

} // namespace
