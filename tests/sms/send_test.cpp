// Sending, in the simulated module: what reaches the service, what its answers make of it, and who hears of them.
#include "support/sim.h"

#include "bus.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace {

using nlohmann::json;
using Texts = std::vector<std::string>;

SmsMessage message_of(const std::string &number, const std::string &text) {
    SmsMessage message = {};
    memcpy(message.number, number.data(), std::min(number.size(), sizeof message.number));
    memcpy(message.text, text.data(), std::min(text.size(), sizeof message.text));
    message.length = int32_t(text.size());
    return message;
}

int send(const std::string &text, const std::string &number = "+4917") {
    const SmsMessage message = message_of(number, text);
    return Tavrik_SMS_SendMsg(&message);
}

// Events of the SMS callback, on whatever thread.
struct Heard {
    std::mutex mutex;
    std::condition_variable more;
    Texts events;
    pthread_t thread = {};
    std::function<void()> inside;

    Texts wait(size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        more.wait_for(lock, std::chrono::seconds(20), [&] { return events.size() >= count; });
        return std::exchange(events, {});
    }
} * g_heard;

void on_sms(int event, void *data) {
    const auto *message = static_cast<SmsMessage *>(data);
    if (const auto inside = std::exchange(g_heard->inside, nullptr))
        inside();
    const std::lock_guard<std::mutex> lock(g_heard->mutex);
    g_heard->thread = pthread_self();
    g_heard->events.push_back(std::to_string(event) + " " +
                              (event ? std::to_string(message->result) : std::string(message->text)));
    g_heard->more.notify_all();
    if (!event)
        free(data);
}

class Sending : public testing::Test {
  protected:
    Sending() {
        sim::call("reset");
        g_heard = &heard;
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
        EXPECT_EQ(Tavrik_SMS_Init(on_sms), 0);
    }
    ~Sending() override {
        tavrik_indication_deregister();
        tavrik_ubus_deinit();
        sim::call("reset");
    }
    Heard heard;
};

TEST_F(Sending, WhatTheServiceGets) {
    const auto request = [](const char *gsm7, const char *number, const std::string &body) {
        return std::string("sms.send {\"sms\":{\"id\":\"-1\",\"gsm7\":\"") + gsm7 + "\",\"address\":\"" + number +
               "\",\"date\":\"23,9,24,14,8,30,+8\",\"protocol\":\"0\",\"body\":\"" + body + "\"}}";
    };
    std::string characters, hex;
    for (int i = 0; i < 70; ++i) {
        characters += "你";
        hex += "4F60";
    }
    const std::string longest(50, '7'); // fills the field
    EXPECT_EQ(send("hello"), 0);
    EXPECT_EQ(send("aä€"), 0);
    EXPECT_EQ(send(characters), 0);
    EXPECT_EQ(send("x\xF0\x9F\x98\x80"), 0);
    EXPECT_EQ(send("ab\xFFyz"), 0); // what is not UTF-8 ends it
    EXPECT_EQ(send("1", longest), 0);
    EXPECT_EQ(Tavrik_SMS_SendPdu("no PDU at all"), 0);
    EXPECT_EQ(Tavrik_SMS_SendPdu(""), 0);
    const SmsMessage message = message_of("+4917", "hello");
    EXPECT_EQ(Tavrik_SMS_SendMsg_Async(&message), 0);
    EXPECT_EQ(heard.wait(9), Texts(9, "1 0"));
    EXPECT_EQ(Tavrik_SMS_SendPdu_Async("0011"), 0);
    EXPECT_EQ(heard.wait(1), Texts{"1 0"});
    EXPECT_EQ(sim::recorded("sms"),
              (Texts{request("1", "+4917", "00680065006C006C006F"), request("0", "+4917", "006100E420AC"),
                     request("0", "+4917", hex), request("0", "+4917", "007801F600"), request("0", "+4917", "00610062"),
                     request("1", longest.c_str(), "0031"), "sms.send_pdu {\"sms\":{\"pdu\":\"no PDU at all\"}}",
                     "sms.send_pdu {\"sms\":{\"pdu\":\"\"}}", request("1", "+4917", "00680065006C006C006F"),
                     "sms.send_pdu {\"sms\":{\"pdu\":\"0011\"}}"}));
}

TEST_F(Sending, Refused) {
    const std::string input = "Parameter input error\n", most = "The length of the input text message cannot exceed ";
    std::string characters;
    for (int i = 0; i < 70; ++i)
        characters += "你";
    SmsMessage bad = message_of("1", "abc");
    bad.length = 2;
    SmsMessage negative = message_of("1", "abc");
    negative.length = -3;
    const struct {
        SmsMessage message;
        std::string log;
    } cases[] = {
        {message_of("", "abc"), input},
        {message_of("1", ""), input},
        {bad, input},
        {negative, input},
        {message_of("1", std::string(161, 'a')), most + "160\n"},
        {message_of("1", std::string(256, 'a')), most + "160\n"}, // without a terminating zero
        {message_of("1", std::string(256, 'a') + "b"), input},
        {message_of("1", characters + "a"), most + "210\n"},
        {message_of("1", std::string(69, 'a') + "ää"), most + "210\n"},
    };
    for (const auto &c : cases)
        for (const bool async : {false, true}) {
            const std::string name = async ? "Tavrik_SMS_SendMsg_Async: " : "Tavrik_SMS_SendMsg: ";
            EXPECT_EQ(sim::log_of(
                          [&] { EXPECT_EQ((async ? Tavrik_SMS_SendMsg_Async : Tavrik_SMS_SendMsg)(&c.message), -1); }),
                      name + c.log);
        }
    EXPECT_EQ(sim::log_of([] {
                  EXPECT_EQ(Tavrik_SMS_SendMsg(nullptr), -1);
                  EXPECT_EQ(Tavrik_SMS_SendPdu(nullptr), -1);
                  EXPECT_EQ(Tavrik_SMS_SendPdu_Async(nullptr), -1);
              }),
              "Tavrik_SMS_SendMsg: " + input + "Tavrik_SMS_SendPdu: " + input + "Tavrik_SMS_SendPdu_Async: " + input);
    EXPECT_EQ(send(std::string(160, 'a')), 0);
    EXPECT_EQ(send(std::string(68, 'a') + "ää"), 0); // 208 units
    EXPECT_EQ(heard.wait(2).size(), 2u);
    EXPECT_EQ(sim::recorded("sms").size(), 2u);
}

json reply(json fields) {
    return {{"reply", {{"sms", std::move(fields)}}}};
}

// Both methods, with and without waiting.
TEST_F(Sending, Answers) {
    const std::string text = "sms_recv_send_msg_cb: ", pdu = "sms_pdu_recv_send_msg_cb: ",
                      unread = "blobmsg_parse failed\n", none = "resp is null\n";
    const json no_table = {{"reply", {{"other", 1}}}};
    const struct {
        const char *what;
        json fault;
        int text_result, pdu_result; // -1 without an event
        std::string text_log, pdu_log;
    } cases[] = {
        {"success", json(), 0, 0, "", ""},
        {"a number of the modem", reply({{"resp", "38"}, {"smsid", ""}, {"smsRef", "x"}}), 38, 38, "", ""},
        {"with text behind", reply({{"resp", " -7x"}, {"smsid", "1"}, {"smsRef", "1"}}), -7, -7, "", ""},
        {"no number", reply({{"resp", "ok"}, {"smsid", "1"}, {"smsRef", "1"}}), 0, 0, "", ""},
        {"-1 as an answer", reply({{"resp", "-1"}, {"smsid", "1"}, {"smsRef", "1"}}), -1, -1, "", ""},
        {"no resp", reply({{"smsid", "1"}, {"smsRef", "1"}}), -2, -2, text + none, ""},
        {"no smsid", reply({{"resp", "1"}, {"smsRef", "1"}}), -2, -2, text + none, ""},
        {"no smsRef", reply({{"resp", "1"}, {"smsid", "1"}}), -2, 1, text + none, ""},
        {"empty", reply({{"resp", ""}, {"smsid", "1"}, {"smsRef", "1"}}), -2, -2, text + none, ""},
        {"a number", reply({{"resp", 5}, {"smsid", "1"}, {"smsRef", "1"}}), -2, -2, text + none, ""},
        {"no table", no_table, -2, -2, text + unread, pdu + unread},
        {"the table is none", {{"reply", {{"sms", "0"}}}}, -2, -2, text + unread, pdu + unread},
        {"no fields", {{"raw", ""}}, -2, -2, text + unread, pdu + unread},
        {"no message", {{"times", 0}}, -2, -2, "", ""},
        {"twice", {{"times", 2}}, 0, 0, "", ""},
        {"late", {{"delay", 100}}, 0, 0, "", ""},
        {"with a failure behind",
         {{"status", 9}},
         0,
         0,
         "send_message_core: Failed to ubus invoke: Unknown error\n",
         "send_pdu_message_core: Failed to ubus invoke: Unknown error\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        if (!c.fault.is_null())
            sim::fault("sms", "*", c.fault);
        for (const bool by_pdu : {false, true}) {
            const int expected = by_pdu ? c.pdu_result : c.text_result;
            const Texts event = expected == -2 ? Texts() : Texts{"1 " + std::to_string(expected)};
            int result = 0;
            EXPECT_EQ(sim::log_of([&] { result = by_pdu ? Tavrik_SMS_SendPdu("00") : send("x"); }),
                      by_pdu ? c.pdu_log : c.text_log);
            EXPECT_EQ(result, expected == -2 ? -1 : expected);
            EXPECT_TRUE(event.empty() || pthread_equal(heard.thread, pthread_self()));
            EXPECT_EQ(heard.wait(0), event);

            const SmsMessage message = message_of("1", "x");
            sim::log_of([&] {
                ASSERT_EQ(by_pdu ? Tavrik_SMS_SendPdu_Async("00") : Tavrik_SMS_SendMsg_Async(&message), 0);
                tavrik_ubus_thread_deinit();
                EXPECT_EQ(heard.wait(event.size()), event);
            });
            EXPECT_TRUE(event.empty() || !pthread_equal(heard.thread, pthread_self()));
            sim::call("wait", {{"kind", "sms"}, {"count", 2}});
            tavrik_ubus_deinit();
            sim::call("record", {{"clear", true}});
        }
        sim::call("reset");
    }
}

TEST_F(Sending, WithoutTheService) {
    const SmsMessage message = message_of("1", "x");
    const struct {
        json fault;
        const char *log;
    } cases[] = {
        {{{"service", "sms"}, {"stop", true}}, "Failed to lookup id: Not found\n"},
        {{{"service", "bus"}, {"stop", true}}, "Failed to connect to ubus\n"},
    };
    for (const auto &c : cases) {
        sim::call("fault", c.fault);
        const std::string log = c.log;
        EXPECT_EQ(sim::log_of([&] {
                      EXPECT_EQ(send("x"), -1);
                      EXPECT_EQ(Tavrik_SMS_SendPdu("00"), -1);
                      EXPECT_EQ(Tavrik_SMS_SendMsg_Async(&message), -1);
                      EXPECT_EQ(Tavrik_SMS_SendPdu_Async("00"), -1);
                  }),
                  "send_message_core: " + log + "send_pdu_message_core: " + log + "send_async_message_core: " + log +
                      "send_pdu_async_message_core: " + log);
        sim::call("reset");
    }
    sim::fault("sms", "*", {{"drop", true}});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(send("x"), -1); }),
              "send_message_core: Failed to ubus invoke: Request timed out\n");
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(9995));
    EXPECT_LT(took, std::chrono::seconds(30));
    EXPECT_EQ(heard.wait(0), Texts());
}

// A result belongs to its send: one inside the callback of another, and several at once, each get their own.
TEST_F(Sending, ResultsDoNotMix) {
    for (const int resp : {11, 12, 13, 14})
        sim::fault("sms", "sms.send " + std::to_string(resp),
                   {{"reply", {{"sms", {{"resp", std::to_string(resp)}, {"smsid", "1"}, {"smsRef", "1"}}}}},
                    {"delay", 50 - resp}});
    int inner = 0;
    heard.inside = [&] { inner = send("x", "12"); };
    EXPECT_EQ(send("x", "11"), 11);
    EXPECT_EQ(inner, 12);
    EXPECT_EQ(heard.wait(2), (Texts{"1 12", "1 11"}));
    std::vector<std::thread> threads;
    for (const int resp : {11, 12, 13, 14})
        threads.emplace_back([resp] {
            for (int i = 0; i < 20; ++i)
                EXPECT_EQ(send("x", std::to_string(resp)), resp);
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(heard.wait(80).size(), 80u);
}

TEST_F(Sending, StartAndStop) {
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_SMS_Init(nullptr), 0); }),
              "warn Tavrik_SMS_Init: sms has been already inited\n");
    Tavrik_SMS_Deinit(); // the last registration: all is removed
    EXPECT_EQ(sim::log_of(Tavrik_SMS_Deinit), "warn Tavrik_SMS_Deinit: sms not init\n");
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(send("x"), 0); }), "sms_recv_send_msg_cb: sms_send_cb is null\n");
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_SMS_SendPdu("00"), 0); }),
              "sms_pdu_recv_send_msg_cb: sms_send_cb is null\n");
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_SMS_Init(nullptr), -1); }),
              "Tavrik_SMS_Init: Parameter input error!\n");
    sim::call("fault", {{"service", "atind"}, {"stop", true}});
    const std::string log = sim::log_of([] { EXPECT_EQ(Tavrik_SMS_Init(on_sms), -1); });
    EXPECT_NE(log.find("Tavrik_SMS_Init: sms indication register failed\n"), std::string::npos) << log;
    sim::call("reset");
    ASSERT_EQ(Tavrik_SMS_Init(on_sms), 0);
    EXPECT_EQ(send("x"), 0);
    EXPECT_EQ(heard.wait(1), Texts{"1 0"});

    // Another family's registration stays: results still arrive after the stop.
    ASSERT_EQ(tavrik_indication_register(TAVRIK_IND_SIM, [] {}), 0);
    Tavrik_SMS_Deinit();
    EXPECT_EQ(send("x"), 0);
    EXPECT_EQ(heard.wait(1), Texts{"1 0"});
    tavrik_indication_deregister();
    EXPECT_EQ(send("x"), 0);
    EXPECT_EQ(heard.wait(0), Texts());
}

TEST_F(Sending, ExportedHandlers) {
    blob_buf buffer = {};
    blob_buf_init(&buffer, 0);
    void *table = blobmsg_open_table(&buffer, "sms");
    for (const char *name : {"resp", "smsid", "smsRef"})
        blobmsg_add_string(&buffer, name, "21");
    blobmsg_close_table(&buffer, table);
    sms_recv_send_msg_cb(nullptr, 0, buffer.head);
    sms_pdu_recv_send_msg_cb(nullptr, 0, buffer.head);
    EXPECT_EQ(heard.wait(2), (Texts{"1 21", "1 21"}));
    blob_buf_free(&buffer);
    EXPECT_EQ(sim::log_of([] { sms_recv_send_msg_cb(nullptr, 0, nullptr); }),
              "sms_recv_send_msg_cb: blobmsg_parse failed\n");
    auto *request = static_cast<ubus_request *>(calloc(1, sizeof(ubus_request)));
    request->priv = malloc(1);
    complete_sms_async_cb(request, 0);
    complete_sms_async_cb(nullptr, 0);
}

TEST_F(Sending, CurrentPdu) {
    const std::string pdu = "07919421436587F9040B919421436587F90000429042418003000AE8329BFD4697D9EC37";
    char text[512] = "-";
    EXPECT_EQ(Tavrik_SMS_CurrentPdu(text, sizeof text), -1);
    std::string inside;
    heard.inside = [&] {
        char small[72 + 1] = "-";
        inside = std::to_string(Tavrik_SMS_CurrentPdu(small, sizeof small - 1)) + small;
        inside += std::to_string(Tavrik_SMS_CurrentPdu(small, sizeof small)) + small;
        std::thread other([&] { inside += std::to_string(Tavrik_SMS_CurrentPdu(small, sizeof small)); });
        other.join();
        send("x"); // its result is another event of this thread
        inside += std::to_string(Tavrik_SMS_CurrentPdu(small, sizeof small));
    };
    sim::call("line", {{"text", "\r\n+CMT: ,24\r\n" + pdu + "\r\n"}});
    EXPECT_EQ(heard.wait(2), (Texts{"1 0", "0 hellohello"}));
    EXPECT_EQ(inside, "-1-0" + pdu + "-10");
    EXPECT_EQ(Tavrik_SMS_CurrentPdu(text, sizeof text), -1);
    EXPECT_STREQ(text, "-");
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_SMS_CurrentPdu(nullptr, 1), -1); }),
              "Tavrik_SMS_CurrentPdu: Parameter input error\n");
}

} // namespace
