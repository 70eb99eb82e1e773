// Requests over the bus as an application sees them: results, replies, log lines, limits, threads.
#include "ril_call.h"
#include "support/sim.h"

#include <atomic>
#include <functional>

namespace {

using nlohmann::json;

class Request : public testing::Test {
  protected:
    Request() {
        sim::call("reset");
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    }
    ~Request() override { Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID); }
};

struct Seen {
    int calls = 0;
    uint32_t last = 0;
    std::function<void()> inside = [] {};
};

void note(ubus_request *request, int type, blob_attr *message) {
    auto *seen = static_cast<Seen *>(request->priv);
    EXPECT_EQ(type, UBUS_MSG_DATA);
    seen->calls++;
    ubus_request copy = *request;
    copy.priv = &seen->last;
    take_number(&copy, type, message);
    seen->inside();
}

TEST_F(Request, OutcomesAndTheirLines) {
    const std::string invoke = "tavrik_ubus_invoke: Failed to ubus invoke: ";
    const struct {
        json fault;
        int timeout_ms, calls;
        std::string log;
    } cases[] = {
        {{}, 3000, 1, ""},
        {{{"delay", 100}}, 0, 1, ""}, // no limit
        {{{"times", 3}}, 3000, 3, ""},
        {{{"delay", 400}}, 150, 0, invoke + "Request timed out\n"},
        {{{"drop", true}}, 100, 0, invoke + "Request timed out\n"},
        {{{"delay", 100}}, -1, 0, invoke + "Request timed out\n"},
        {{{"times", 0}}, 3000, 0, ""},
        {{{"status", 6}, {"times", 0}}, 3000, 0, invoke + "Permission denied\n"},
        {{{"status", 77}, {"times", 0}}, 3000, 0, invoke + "Unknown error: 77\n"},
        {{{"stop", true}}, 3000, 0, "tavrik_ubus_invoke: Failed to lookup id: Not found\n"},
    };
    unsigned id = 900;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.fault);
        if (!c.fault.is_null())
            sim::fault("ril", ++id, c.fault);
        Seen seen;
        const pthread_t here = pthread_self();
        seen.inside = [&] {
            EXPECT_TRUE(pthread_equal(pthread_self(), here));
            EXPECT_TRUE(answered(8, 3000)); // a handler may call the API
        };
        double took = 0;
        const auto call = [&] { EXPECT_EQ(tavrik_ubus_invoke(id, note, &seen, c.timeout_ms), c.log.empty() ? 0 : -1); };
        EXPECT_EQ(sim::log_of([&] { took = seconds_of(call); }), c.log);
        EXPECT_EQ(seen.calls, c.calls);
        EXPECT_EQ(seen.last, c.calls ? id : 0);
        EXPECT_GE(took, c.timeout_ms < 1000 && c.calls == 0 ? c.timeout_ms / 1e3 - 0.005 : 0);
        EXPECT_LT(took, 30);
        if (c.fault.contains("stop"))
            sim::call("reset");
        EXPECT_TRUE(answered(7, 3000)); // what was late or wrong before does not reach the next one
    }
}

TEST_F(Request, NegativeLimitSeesNoReply) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID);
    std::atomic<bool> done{false};
    in_threads(5, [&](unsigned thread) {
        for (; thread && !done;) // busy, so that now and then the reply is there before it is looked for
            continue;
        for (int i = 0; !thread && i < 100; i++)
            EXPECT_FALSE(answered(7, -1));
        done = true;
    });
}

TEST_F(Request, OfAnyObject) {
    blob_buf message = {};
    _reset_blob_buf(&message);
    blobmsg_add_u32(&message, "reqid", 4711);
    const std::string invoke = "tavrik_call_ubusinvoke: ";
    const struct {
        blob_buf *message;
        const char *object, *method;
        int keep;
        uint32_t number; // in the reply
        std::string log;
    } cases[] = {
        {&message, "ril", "ril_request", 1, 4711, ""},
        {&message, "ril", "ril_request", 0, 0, ""},
        {&message, "nosuch", "x", 1, 0,
         invoke + "ubus_lookup_id fail Not found!\n" + invoke + "exit fail Not found!\n"},
        {nullptr, "ril", "nosuch", 1, 0,
         invoke + "ubus_invoke config_dspgain failed Method not found\n" + invoke + "exit fail Method not found!\n"},
        {&message, nullptr, "x", 1, 0, invoke + "Parameter input error\n"},
        {&message, "ril", nullptr, 1, 0, invoke + "Parameter input error\n"},
    };
    for (const auto &c : cases) {
        auto *const before = reinterpret_cast<blob_attr *>(1);
        blob_attr *reply = before;
        int result = 1;
        const auto call = [&] { return tavrik_call_ubusinvoke(c.message, c.object, c.method, c.keep, &reply, 3000); };
        EXPECT_EQ(sim::log_of([&] { result = call(); }), c.log);
        EXPECT_EQ(result, c.log.empty() ? 0 : -1);
        EXPECT_EQ(reply == before, !c.keep); // else preset
        uint32_t number = 0;
        ubus_request request = {};
        request.priv = &number;
        take_number(&request, 0, reply == before ? nullptr : reply);
        EXPECT_EQ(number, c.number);
        if (c.number)
            free(reply);
    }
    EXPECT_EQ(tavrik_call_ubusinvoke(&message, "ril", "ril_request", 1, nullptr, 3000), 0);
    _free_blob_buf(&message);
    _free_blob_buf(&message);
}

TEST_F(Request, ContextOfTheApplicationsOwn) {
    ubus_context *context = tavrik_get_ubus_ctx();
    ASSERT_NE(context, nullptr);
    uint32_t id = 0;
    tavrik_ubus_lock();
    tavrik_ubus_lock();
    EXPECT_EQ(ubus_lookup_id(context, "ril", &id), 0);
    EXPECT_NE(id, 0u);
    tavrik_ubus_unlock();
    in_threads(1, [](unsigned) {
        tavrik_ubus_unlock();           // without its lock
        EXPECT_FALSE(answered(7, 100)); // that is taken
    });
    tavrik_free_ubus_ctx(context);
    tavrik_ubus_unlock();
    EXPECT_TRUE(answered(7, 3000));
    tavrik_free_ubus_ctx(nullptr);
    tavrik_ubus_unlock();
    EXPECT_TRUE(answered(8, 3000));
}

// Each call carries its thread and number, and finds them in the reply.
TEST_F(Request, ThreadsDoNotMix) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID);
    ASSERT_EQ(Tavrik_AT_Init(), 0);
    std::atomic<int> wrong{0};
    in_threads(8, [&](unsigned thread) {
        for (unsigned i = 0; i < 2000; i++) {
            char response[512];
            const std::string text = std::to_string(thread) + "-" + std::to_string(i);
            wrong += i % 2 ? !answered(0x40000000u | thread << 20 | i, 20000)
                           : Tavrik_AT_Send(("AT+ECHO=" + text).c_str(), "OK", response, sizeof response, 20000) ||
                                 !strstr(response, ("+ECHO: " + text + "\r\n").c_str());
        }
    });
    EXPECT_EQ(wrong, 0);
}

} // namespace
