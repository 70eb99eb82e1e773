// Asynchronous requests, by the sends that are made of them: each ends once, in one way, and leaves nothing.
#include "ril_call.h"
#include "support/sim.h"
#include "support/words.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <sys/resource.h>

namespace {

using nlohmann::json;

const char *const kEnds[] = {"", "failed", "late", "aborted"};

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
    g_ends.emplace(number, status ? kEnds[-status] : std::to_string(resp));
    g_changed.notify_all();
}

int send(int number, int timeout_ms = 20000) {
    SmsMessage message = {};
    snprintf(message.number, sizeof message.number, "%d", number);
    strcpy(message.text, "hello");
    message.length = 5;
    return Tavrik_SMS_SendMsg_AsyncEx(&message, timeout_ms, on_end, reinterpret_cast<void *>(intptr_t(number)));
}

// Those since the last call, once there are so many: "1=38,2=aborted" for an answer and what is none.
std::string ends(size_t count) {
    std::unique_lock lock(g_mutex);
    g_changed.wait_for(lock, std::chrono::seconds(90), [&] { return g_ends.size() >= count; });
    std::string all;
    for (const auto &[number, end] : std::exchange(g_ends, {}))
        all += (all.empty() ? "" : ",") + std::to_string(number) + "=" + end;
    return all;
}

class Async : public testing::Test {
  protected:
    Async() {
        sim::call("reset");
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
        EXPECT_EQ(send(0), 0);
        EXPECT_EQ(ends(1), "0=0");
        tavrik_ubus_deinit();
        before_ = count_in("/proc/self/fd");
        threads_ = count_in("/proc/self/task");
    }
    ~Async() override {
        g_inside = nullptr;
        tavrik_ubus_deinit();
        EXPECT_EQ(ends(0), "");
        // A callback that was left behind may end only now, and its connection is kept then. A thread that had
        // connected may have been among the first ones.
        const auto more = [this] {
            return count_in("/proc/self/fd") > before_ || count_in("/proc/self/task") > threads_;
        };
        for (int i = 0; i < 3000 && more(); i++) {
            usleep(10000);
            tavrik_ubus_deinit();
        }
        EXPECT_FALSE(more());
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID);
        sim::call("reset");
    }
    ptrdiff_t before_, threads_;
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
        {{}, 5000, "1=0", ""},
        {{}, 0, "1=0", ""}, // the longest limit
        {resp("38"), 5000, "1=38", ""},
        {resp(0), 5000, "1=failed", "sms_recv_send_msg_cb: resp is null\n"},
        {{{"times", 2}}, 5000, "1=0", ""},
        {{{"times", 0}}, 5000, "1=failed", ""},
        {{{"status", 6}, {"times", 0}}, 5000, "1=failed", invoke + "Permission denied\n"},
        {{{"delay", 5000}}, 2000, "1=late", invoke + "Request timed out\n"},
        {{{"drop", true}}, 2000, "1=late", invoke + "Request timed out\n"},
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
        EXPECT_GE(took, c.timeout_ms < 5000 ? c.timeout_ms / 1e3 - 0.005 : 0);
        EXPECT_LT(took, 30);
        sim::call("reset");
    }
}

// 200 at most are under way, to a service that is late, silent, says things twice and in any order.
TEST_F(Async, Storm) {
    constexpr int kSends = 1000, kAtOnce = 200;
    const std::pair<json, const char *> faults[] = {{{{"drop", true}}, "late"},
                                                    {{{"delay", 300}}, "0"},
                                                    {{{"times", 2}}, "0"},
                                                    {{{"delay", 100}, {"times", 2}}, "0"},
                                                    {{{"delay", 1}}, "0"},
                                                    {{{"status", 9}, {"times", 0}}, "failed"},
                                                    {nullptr, "0"},
                                                    {nullptr, "0"},
                                                    {nullptr, "0"},
                                                    {nullptr, "0"}};
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
            EXPECT_EQ(send(number, number % 10 ? 30000 : 2000 + number % 500), 0);
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

// In words, see there; the callbacks are called as their sends.
struct Case {
    const char *what, *words, *log;
};

const char kAborted[] = "send_async_message_core: asynchronous request aborted\n";

class InWords : public Async, public testing::WithParamInterface<Case> {
  protected:
    using Argument = Words::Argument;
    Words words_{
        GetParam().words,
        {
            {"send", [](Argument number) { EXPECT_EQ(send(std::stoi(number)), 0); }},
            {"refuse", [](Argument number) { EXPECT_EQ(send(std::stoi(number), 1000), -1); }},
            {"ends", [](Argument all) { EXPECT_EQ(ends(size_t(std::count(all.begin(), all.end(), '='))), all); }},
            {"drop",
             [](Argument number) {
                 sim::fault("sms", "sms.send " + number, {{"drop", true}});
             }},
            {"late",
             [](Argument number) {
                 sim::fault("sms", "sms.send " + number, {{"delay", 200}});
             }},
            {"down",
             [](Argument service) {
                 sim::call("fault", {{"service", service}, {"stop", true}});
             }},
            {"reset", [](Argument) { sim::call("reset"); }},
            {"stop", [](Argument) { tavrik_ubus_thread_deinit(); }},
            {"start", [](Argument) { EXPECT_EQ(tavrik_ubus_thread_init(), 0); }},
            {"deinit", [](Argument) { tavrik_ubus_deinit(); }},
            {"patience", [](Argument) { EXPECT_GE(seconds_of(tavrik_ubus_deinit), 1.995); }},
            {"call", [](Argument) { EXPECT_TRUE(answered(5, 3000)); }},
        }};
};

TEST_P(InWords, case) {
    SCOPED_TRACE(GetParam().what);
    g_inside = [this](int number) { words_.play(std::to_string(number)); };
    const std::string log = sim::log_of([this] { words_.play("test"); });
    EXPECT_EQ(std::regex_replace(log, std::regex("invoke: .*"), "invoke:"), GetParam().log); // buses differ in why
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

const Case kCases[] = {
    {"the bus goes, and comes back",
     "drop:1 drop:2 send:1 send:2 down:bus ends:1=failed,2=failed reset send:3 ends:3=0",
     "send_async_message_core: Failed to ubus invoke:\nsend_async_message_core: Failed to ubus invoke:\n"},
    {"what cannot be sent calls nobody", "down:sms refuse:1 down:bus refuse:2",
     "send_async_message_core: Failed to lookup id: Not found\nsend_async_message_core: Failed to connect to ubus\n"},
    {"a stop waits for what is under way, and is revoked, or followed by a start",
     "late:1 late:2 send:1 stop ends:1=0 send:2 stop send:3 ends:2=0,3=0", ""},
    {"the end aborts, and in its middle nothing starts",
     "drop:1 send:1 deinit ends:1=aborted reset send:3 ends:3=0 | 1 refuse:11",
     "send_async_message_core: asynchronous request aborted\ntavrik_ubus_thread_init: the loop thread is being "
     "stopped\n"
     "send_async_message_core: ubus_thread init failed!\n"},
    {"a callback may end everything, which then ends behind it",
     "drop:9 send:9 send:1 ends:1=0,9=aborted | 1 deinit stop call", kAborted},
    {"and begin anew", "drop:9 send:9 send:1 ends:1=0,2=0,9=aborted | 1 deinit stop call start send:2", kAborted},
    {"one that does not return holds up nobody for long; others run on another thread",
     "drop:9 send:9 send:1 in? patience send:2 ends:2=0 out! ends:1=0,9=aborted | 1 in! out?",
     "tavrik_ubus_deinit: callback does not end, left behind\nsend_async_message_core: asynchronous request aborted\n"},
};
INSTANTIATE_TEST_SUITE_P(, InWords, testing::ValuesIn(kCases));

} // namespace
