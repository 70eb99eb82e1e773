// Asynchronous requests, by the sends that are made of them: each ends once, in one way, and leaves nothing.
#include "ril_call.h"
#include "support/sim.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <sys/resource.h>

namespace {

using nlohmann::json;

const char *const kEnds[] = {"answered", "failed", "timed out", "aborted"};

// The sends of a test by number, and how they ended.
std::mutex g_mutex;
std::condition_variable g_changed;
std::multimap<int, std::string> g_ends;
std::function<void(int)> g_inside; // runs in the callback

void on_end(void *user, int status, int32_t resp) {
    const int number = int(reinterpret_cast<intptr_t>(user));
    if (g_inside)
        g_inside(number);
    const std::lock_guard lock(g_mutex);
    g_ends.emplace(number, std::string(kEnds[-status]) + (status ? "" : " " + std::to_string(resp)));
    g_changed.notify_all();
}

int send(int number, int timeout_ms = 20000) {
    SmsMessage message = {};
    snprintf(message.number, sizeof message.number, "%d", number);
    strcpy(message.text, "hello");
    message.length = 5;
    return Tavrik_SMS_SendMsg_AsyncEx(&message, timeout_ms, on_end, reinterpret_cast<void *>(intptr_t(number)));
}

// Those since the last call, once there are so many: "1 answered 0, 2 aborted".
std::string ends(size_t count) {
    std::unique_lock lock(g_mutex);
    g_changed.wait_for(lock, std::chrono::seconds(90), [&] { return g_ends.size() >= count; });
    std::string all;
    for (const auto &[number, end] : std::exchange(g_ends, {}))
        all += (all.empty() ? "" : ", ") + std::to_string(number) + " " + end;
    return all;
}

class Async : public testing::Test {
  protected:
    Async() {
        sim::call("reset");
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
        EXPECT_EQ(send(0), 0);
        EXPECT_EQ(ends(1), "0 answered 0");
        tavrik_ubus_deinit();
        before_ = count_in("/proc/self/fd");
    }
    ~Async() override {
        g_inside = nullptr;
        tavrik_ubus_deinit();
        EXPECT_EQ(ends(0), "");
        EXPECT_EQ(count_in("/proc/self/fd"), before_);
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID);
        sim::call("reset");
    }
    ptrdiff_t before_;
};

TEST_F(Async, Outcomes) {
    const std::string invoke = "send_async_message_core: Failed to ubus invoke: ";
    const auto resp = [](const json &text) {
        return json{{"delay", 100}, {"reply", {{"sms", {{"resp", text}, {"smsid", "1"}, {"smsRef", "1"}}}}}};
    };
    const struct {
        json fault;
        int timeout_ms;
        const char *end;
        std::string log;
    } cases[] = {
        {{}, 5000, "1 answered 0", ""},
        {{}, 0, "1 answered 0", ""}, // the longest limit
        {resp("38"), 5000, "1 answered 38", ""},
        {resp(0), 5000, "1 failed", "sms_recv_send_msg_cb: resp is null\n"},
        {{{"times", 2}}, 5000, "1 answered 0", ""},
        {{{"times", 0}}, 5000, "1 failed", ""},
        {{{"status", 6}, {"times", 0}}, 5000, "1 failed", invoke + "Permission denied\n"},
        {{{"delay", 400}}, 100, "1 timed out", invoke + "Request timed out\n"},
        {{{"drop", true}}, 500, "1 timed out", invoke + "Request timed out\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.fault);
        if (!c.fault.is_null())
            sim::fault("sms", "sms.send 1", c.fault);
        double took = 0;
        const auto call = [&] {
            EXPECT_EQ(send(1, c.timeout_ms), 0);
            EXPECT_EQ(ends(1), c.end);
        };
        EXPECT_EQ(sim::log_of([&] { took = seconds_of(call); }), c.log);
        EXPECT_GE(took, c.timeout_ms < 1000 ? c.timeout_ms / 1e3 - 0.005 : 0);
        EXPECT_LT(took, 30);
        sim::call("reset");
    }
}

// What cannot be sent calls nobody.
TEST_F(Async, Refused) {
    const std::string log = sim::log_of([] {
        sim::call("fault", {{"service", "sms"}, {"stop", true}});
        EXPECT_EQ(send(1), -1);
        sim::call("fault", {{"service", "bus"}, {"stop", true}});
        EXPECT_EQ(send(2, 1000), -1);
    });
    EXPECT_EQ(log, "send_async_message_core: Failed to lookup id: Not found\n"
                   "send_async_message_core: Failed to connect to ubus\n");
    EXPECT_EQ(Tavrik_SMS_SendMsg_AsyncEx(nullptr, 0, on_end, nullptr), -1);
    EXPECT_EQ(Tavrik_SMS_SendPdu_AsyncEx("00", 0, nullptr, nullptr), -1);
}

TEST_F(Async, TheBusGoes) {
    sim::fault("sms", "*", {{"drop", true}});
    EXPECT_EQ(send(1), 0);
    EXPECT_EQ(send(2), 0);
    const std::string log = sim::log_of([] {
        sim::call("fault", {{"service", "bus"}, {"stop", true}});
        EXPECT_EQ(ends(2), "1 failed, 2 failed");
    });
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;
    sim::call("reset");
    EXPECT_EQ(send(3), 0);
    EXPECT_EQ(ends(1), "3 answered 0");
}

// 200 at most are under way, to a service that is late, silent, says things twice and in any order.
TEST_F(Async, Storm) {
    constexpr int kSends = 1000, kAtOnce = 200;
    const std::pair<json, const char *> faults[] = {
        {{{"drop", true}}, "timed out"}, {{{"delay", 300}}, "answered 0"},
        {{{"times", 2}}, "answered 0"},  {{{"delay", 100}, {"times", 2}}, "answered 0"},
        {{{"delay", 1}}, "answered 0"},  {{{"status", 9}, {"times", 0}}, "failed"},
        {nullptr, "answered 0"},         {nullptr, "answered 0"},
        {nullptr, "answered 0"},         {nullptr, "answered 0"}};
    std::multimap<int, std::string> expected;
    for (int i = 0; i < 10; i++)
        if (!faults[i].first.is_null())
            sim::fault("sms", "*" + std::to_string(i), faults[i].first);
    for (int number = 1000; number < 1000 + kSends; number++)
        expected.emplace(number, faults[number % 10].second);
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID);
    std::atomic<int> next{1000};
    in_threads(4, [&](unsigned) {
        for (int number; (number = next++) < 1000 + kSends;) {
            std::unique_lock lock(g_mutex);
            g_changed.wait(lock, [&] { return number - 1000 - int(g_ends.size()) < kAtOnce; });
            lock.unlock();
            EXPECT_EQ(send(number, number % 10 ? 30000 : 500 + number % 500), 0);
        }
    });
    // The last ones wait in vain for long: they are aborted.
    for (int number = 20000; number < 20200; number += 10) {
        EXPECT_EQ(send(number, 60000), 0);
        expected.emplace(number, "aborted");
    }
    std::unique_lock lock(g_mutex);
    g_changed.wait_for(lock, std::chrono::seconds(90), [] { return g_ends.size() >= kSends; });
    lock.unlock();
    tavrik_ubus_deinit();
    EXPECT_EQ(std::exchange(g_ends, {}), expected);
}

TEST_F(Async, WithoutDescriptors) {
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID);
    std::string results;
    for (int left = 0; left < 16; left++) {
        const rlimit few = {rlim_t(before_ + left - 1), limit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
        const int result = send(left, 5000);
        setrlimit(RLIMIT_NOFILE, &limit);
        ends(result == 0);
        tavrik_ubus_deinit();
        EXPECT_EQ(count_in("/proc/self/fd"), before_);
        results += result == 0 ? "y" : result == -1 ? "n" : "?";
    }
    EXPECT_EQ(results.find_first_not_of("n"), results.find('y')) << results;
    EXPECT_EQ(results.front(), 'n');
    EXPECT_EQ(results.back(), 'y');
}

TEST_F(Async, AStopWaitsForWhatIsUnderWay) {
    sim::fault("sms", "*", {{"delay", 200}});
    EXPECT_EQ(send(1), 0);
    tavrik_ubus_thread_deinit();
    EXPECT_EQ(ends(1), "1 answered 0");
    EXPECT_EQ(send(2), 0); // and is revoked, or followed by a start
    tavrik_ubus_thread_deinit();
    EXPECT_EQ(send(3), 0);
    EXPECT_EQ(ends(2), "2 answered 0, 3 answered 0");
}

TEST_F(Async, DeinitAborts) {
    sim::fault("sms", "*", {{"drop", true}});
    EXPECT_EQ(send(1), 0);
    EXPECT_EQ(send(2), 0);
    g_inside = [](int number) { EXPECT_EQ(send(number + 10), -1); }; // not in the middle of the end
    const std::string aborted = "send_async_message_core: asynchronous request aborted\n"
                                "tavrik_ubus_thread_init: the loop thread is being stopped\n"
                                "send_async_message_core: ubus_thread init failed!\n";
    EXPECT_EQ(sim::log_of(tavrik_ubus_deinit), aborted + aborted);
    EXPECT_EQ(ends(2), "1 aborted, 2 aborted");
    sim::call("reset");
    g_inside = nullptr;
    EXPECT_EQ(send(3), 0);
    EXPECT_EQ(ends(1), "3 answered 0");
}

// A callback may stop everything, which then ends behind it, and begin anew.
TEST_F(Async, FromInsideACallback) {
    sim::fault("sms", "sms.send 9", {{"drop", true}});
    for (const bool again : {false, true}) {
        g_inside = [again](int number) {
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
        EXPECT_EQ(send(9), 0);
        EXPECT_EQ(send(1), 0);
        EXPECT_EQ(ends(again ? 3 : 2), again ? "1 answered 0, 2 answered 0, 9 aborted" : "1 answered 0, 9 aborted");
        tavrik_ubus_deinit();
    }
}

// One that does not return holds up nobody for long.
TEST_F(Async, LeftBehind) {
    sim::fault("sms", "sms.send 9", {{"drop", true}});
    std::promise<void> inside, release;
    g_inside = [&](int number) {
        if (number != 1)
            return;
        inside.set_value();
        release.get_future().wait();
    };
    EXPECT_EQ(send(9), 0);
    EXPECT_EQ(send(1), 0);
    inside.get_future().wait();
    double took = 0;
    EXPECT_EQ(sim::log_of([&] { took = seconds_of(tavrik_ubus_deinit); }),
              "tavrik_ubus_deinit: callback does not end, left behind\n");
    EXPECT_GE(took, 1.995);
    EXPECT_EQ(send(2), 0); // on another thread
    EXPECT_EQ(ends(1), "2 answered 0");
    const auto threads = count_in("/proc/self/task");
    release.set_value();
    EXPECT_EQ(ends(2), "1 answered 0, 9 aborted");
    for (int i = 0; i < 3000 && count_in("/proc/self/task") >= threads; i++)
        usleep(10000);
    EXPECT_EQ(count_in("/proc/self/task"), threads - 1);
}

// Starts, stops and sends in any order on several threads: what was under way ends once, whatever came between.
TEST_F(Async, StartAndStopWhileSending) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID);
    std::atomic<int> sending{3};
    std::mutex mutex;
    std::map<int, int> sent;
    in_threads(4, [&](unsigned thread) {
        for (int i = 0; thread && i < 150; i++) {
            const int number = int(thread) * 1000 + i;
            if (send(number, 5000))
                continue;
            const std::lock_guard lock(mutex);
            sent[number] = 1;
        }
        for (sending -= thread > 0; !thread && sending;) {
            tavrik_ubus_thread_deinit();
            tavrik_ubus_thread_init();
            usleep(500);
            tavrik_ubus_deinit();
        }
    });
    tavrik_ubus_deinit();
    EXPECT_FALSE(sent.empty());
    std::map<int, int> ended;
    for (const auto &end : std::exchange(g_ends, {}))
        ended[end.first]++;
    EXPECT_EQ(ended, sent);
}

} // namespace
