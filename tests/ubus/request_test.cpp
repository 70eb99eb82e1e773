// Requests over the bus as an application sees them: results, replies, log lines, limits, threads.
#include "ril_call.h"
#include "support/sim.h"

#include <atomic>
#include <thread>
#include <vector>

namespace {

using nlohmann::json;

class Request : public testing::Test {
  protected:
    void SetUp() override {
        sim::call("reset");
        Tavrik_Switch_Log_Mode(0);
    }
    void TearDown() override { Tavrik_Switch_Log_Mode(1); }
    static void ril_fault(unsigned id, json fault) {
        fault["service"] = "ril";
        fault["match"] = id;
        sim::call("fault", fault);
    }
};

struct Seen {
    int calls = 0;
    pthread_t thread = {};
    uint32_t last = 0;
    int (*inside)() = nullptr;
    int inside_result = -2;
};

void note(ubus_request *request, int type, blob_attr *message) {
    auto *seen = static_cast<Seen *>(request->priv);
    EXPECT_EQ(type, UBUS_MSG_DATA);
    seen->calls++;
    seen->thread = pthread_self();
    ubus_request copy = *request;
    copy.priv = &seen->last;
    take_number(&copy, type, message);
    if (seen->inside)
        seen->inside_result = seen->inside();
}

TEST_F(Request, OutcomesAndTheirLines) {
    const struct {
        const char *what;
        json fault;
        int timeout_ms, result, calls;
        const char *line;
    } cases[] = {
        {"a reply", {}, 3000, 0, 1, nullptr},
        {"no limit", {{"delay", 100}}, 0, 0, 1, nullptr},
        {"three replies", {{"times", 3}}, 3000, 0, 3, nullptr},
        {"late", {{"delay", 400}}, 150, -1, 0, "Failed to ubus invoke: Request timed out"},
        {"silent", {{"drop", true}}, 100, -1, 0, "Failed to ubus invoke: Request timed out"},
        {"no wait", {{"delay", 100}}, -1, -1, 0, "Failed to ubus invoke: Request timed out"},
        {"no reply data", {{"times", 0}}, 3000, 0, 0, nullptr},
        {"refused", {{"status", 6}, {"times", 0}}, 3000, -1, 0, "Failed to ubus invoke: Permission denied"},
        {"unknown status", {{"status", 77}, {"times", 0}}, 3000, -1, 0, "Failed to ubus invoke: Unknown error: 77"},
    };
    unsigned id = 900;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        if (!c.fault.is_null())
            ril_fault(++id, c.fault);
        Seen seen;
        testing::internal::CaptureStdout();
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(tavrik_ubus_invoke(id, note, &seen, c.timeout_ms), c.result);
        const double took = seconds_since(start);
        fflush(stdout);
        const std::string lines = testing::internal::GetCapturedStdout();
        EXPECT_EQ(seen.calls, c.calls);
        if (c.calls) {
            EXPECT_TRUE(pthread_equal(seen.thread, pthread_self()));
            EXPECT_EQ(seen.last, id);
        }
        if (c.line) {
            EXPECT_NE(lines.find("[sdklog err:tavrik_ubus_invoke:"), std::string::npos) << lines;
            EXPECT_NE(lines.find(std::string(c.line) + "\n"), std::string::npos) << lines;
        } else {
            EXPECT_EQ(lines, "");
        }
        if (c.line && strstr(c.line, "timed out") && c.timeout_ms > 0) {
            EXPECT_GE(took, c.timeout_ms / 1e3 - 0.005);
        }
        EXPECT_LT(took, 30);
        EXPECT_TRUE(answered(7, 3000)); // what was late or wrong before does not reach the next one
    }
}

TEST_F(Request, NegativeLimitSeesNoReply) {
    Tavrik_Switch_Log_Mode(1);
    std::atomic<bool> done{false};
    std::vector<std::thread> busy; // so that now and then the reply is there before the caller looks for it
    for (int i = 0; i < 4; i++)
        busy.emplace_back([&] {
            while (!done) {
            }
        });
    int right = 0;
    for (int i = 0; i < 100; i++)
        right += answered(7, -1);
    done = true;
    for (std::thread &thread : busy)
        thread.join();
    EXPECT_EQ(right, 0);
}

TEST_F(Request, WithoutTheService) {
    Seen seen;
    sim::call("fault", {{"service", "ril"}, {"stop", true}});
    testing::internal::CaptureStdout();
    EXPECT_EQ(tavrik_ubus_invoke(7, note, &seen, 3000), -1);
    EXPECT_EQ(seen.calls, 0);
    fflush(stdout);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Failed to lookup id: Not found\n"), std::string::npos);
}

TEST_F(Request, OfAnyObject) {
    blob_buf message = {};
    _reset_blob_buf(&message);
    blobmsg_add_u32(&message, "reqid", 4711);
    blob_attr *reply = reinterpret_cast<blob_attr *>(1);
    ASSERT_EQ(tavrik_call_ubusinvoke(&message, "ril", "ril_request", 1, &reply, 3000), 0);
    uint32_t number = 0;
    ubus_request request = {};
    request.priv = &number;
    take_number(&request, 0, reply);
    EXPECT_EQ(number, 4711u);
    free(reply);
    EXPECT_EQ(tavrik_call_ubusinvoke(&message, "ril", "ril_request", 1, nullptr, 3000), 0);
    EXPECT_EQ(tavrik_call_ubusinvoke(&message, "ril", "ril_request", 0, &reply, 3000), 0);

    const struct {
        blob_buf *message;
        const char *object, *method, *lines[2];
    } failures[] = {
        {&message, "nosuch", "x", {"ubus_lookup_id fail Not found!", "exit fail Not found!"}},
        {nullptr,
         "ril",
         "nosuch",
         {"ubus_invoke config_dspgain failed Method not found", "exit fail Method not found!"}},
        {&message, nullptr, "x", {"Parameter input error", ""}},
    };
    for (const auto &f : failures) {
        reply = reinterpret_cast<blob_attr *>(1);
        testing::internal::CaptureStdout();
        EXPECT_EQ(tavrik_call_ubusinvoke(f.message, f.object, f.method, 1, &reply, 3000), -1);
        fflush(stdout);
        const std::string lines = testing::internal::GetCapturedStdout();
        EXPECT_EQ(reply, nullptr);
        for (const char *line : f.lines)
            EXPECT_NE(lines.find(line), std::string::npos) << lines;
    }
    _free_blob_buf(&message);
    _free_blob_buf(&message);
}

TEST_F(Request, HandlerCallsTheApi) {
    Seen seen;
    seen.inside = [] {
        char imei[TAVRIK_IMEI_SIZE];
        int length = 0;
        return Tavrik_DM_GetIMEI(imei, &length) || length != 15 || !answered(12, 3000) ? -1 : 0;
    };
    EXPECT_EQ(tavrik_ubus_invoke(2011, note, &seen, 3000), 0);
    EXPECT_EQ(seen.last, 2011u);
    EXPECT_EQ(seen.inside_result, 0);
}

TEST_F(Request, ContextOfTheApplicationsOwn) {
    ubus_context *context = tavrik_get_ubus_ctx();
    ASSERT_NE(context, nullptr);
    uint32_t id = 0;
    tavrik_ubus_lock();
    tavrik_ubus_lock();
    EXPECT_EQ(ubus_lookup_id(context, "ril", &id), 0);
    tavrik_ubus_unlock();
    std::atomic<bool> done{false};
    std::thread other([&] {
        EXPECT_FALSE(answered(7, 100)); // the lock is taken
        done = true;
    });
    other.join();
    EXPECT_TRUE(done);
    tavrik_free_ubus_ctx(context);
    tavrik_ubus_unlock();
    EXPECT_NE(id, 0u);
    EXPECT_TRUE(answered(7, 3000));
    tavrik_free_ubus_ctx(nullptr);
    tavrik_ubus_unlock(); // without its lock
    EXPECT_TRUE(answered(8, 3000));
}

// Each call carries its thread and number, and finds them in the reply.
TEST_F(Request, ThreadsDoNotMix) {
    constexpr unsigned kThreads = 8, kCalls = 2000;
    Tavrik_Switch_Log_Mode(1);
    ASSERT_EQ(Tavrik_AT_Init(), 0);
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (unsigned t = 0; t < kThreads; t++)
        threads.emplace_back([&, t] {
            for (unsigned i = 0; i < kCalls; i++) {
                if (i % 2) {
                    wrong += !answered(0x40000000u | t << 20 | i, 20000);
                    continue;
                }
                char command[64], expected[64], response[512];
                snprintf(command, sizeof command, "AT+ECHO=%u-%u", t, i);
                snprintf(expected, sizeof expected, "+ECHO: %u-%u\r\n", t, i);
                wrong += Tavrik_AT_Send(command, "OK", response, sizeof response, 20000) || !strstr(response, expected);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}

} // namespace
