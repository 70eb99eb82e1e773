// Sending, in the simulated module: what reaches the service, what its answers make of it, and who hears of them.
#include "sms/sms_test.h"
#include "support/events.h"

#include "bus.h"

#include <numeric>
#include <thread>

namespace {

using nlohmann::json;
using Texts = std::vector<std::string>;

// What the SMS callback was told: a text, or a result, with "own " in front when on the test's own thread.
Events *g_heard;
pthread_t g_own;
std::function<void()> g_inside;

void on_sms(int event, void *data) {
    const auto *message = static_cast<SmsMessage *>(data);
    if (const auto inside = std::exchange(g_inside, nullptr))
        inside();
    const std::string told = event ? std::to_string(message->result) : message->text;
    g_heard->add((pthread_equal(g_own, pthread_self()) ? "own " : "") + told);
    if (!event)
        free(data);
}

class Sending : public testing::Test {
  protected:
    Sending() {
        sim::call("reset");
        g_heard = &heard;
        g_own = pthread_self();
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
        EXPECT_EQ(Tavrik_SMS_Init(on_sms), 0);
    }
    ~Sending() override {
        tavrik_indication_deregister();
        tavrik_ubus_deinit();
        sim::call("reset");
    }
    Events heard;
};

SmsMessage message_of(const std::string &text, const std::string &number) {
    SmsMessage message = {};
    number.copy(message.number, sizeof message.number);
    text.copy(message.text, sizeof message.text);
    message.length = int32_t(text.size());
    return message;
}

int send(const std::string &number) {
    const SmsMessage message = message_of("x", number);
    return Tavrik_SMS_SendMsg(&message);
}

// "VERB NUMBER/TEXT", "VERB PDU" or "VERB": the result of the call, what it logs, and what is heard when it waits.
std::string step(const std::string &line) {
    std::string verb, number, text;
    std::istringstream words(line);
    std::getline(std::getline(std::getline(words, verb, ' '), number, '/'), text);
    const SmsMessage message = message_of(text, number);
    const std::string told = outcome([&] {
        return verb == "SendMsg"         ? Tavrik_SMS_SendMsg(&message)
               : verb == "SendMsg_Async" ? Tavrik_SMS_SendMsg_Async(&message)
               : verb == "SendPdu"       ? Tavrik_SMS_SendPdu(number.c_str())
               : verb == "SendPdu_Async" ? Tavrik_SMS_SendPdu_Async(number.c_str())
                                         : Tavrik_SMS_Init(on_sms);
    });
    const Texts heard = verb.find("Async") == verb.npos ? g_heard->take(0) : Texts();
    return std::accumulate(heard.begin(), heard.end(), told);
}

std::string times(int count, const char *text) {
    std::string all;
    while (count--)
        all += text;
    return all;
}

TEST_F(Sending, WhatTheServiceGets) {
    const std::string longest(50, '7'), sent = "=0 own 0"; // fills the field
    check(step, {"SendMsg +49/" + times(70, "你") + sent, "SendMsg " + longest + "/1" + sent,
                 "SendMsg +49/x\xF0\x9F\x98\x80" + sent,
                 "SendMsg +49/ab\xFFyz=0 code_convert_utf8_to_unicodeStr: intput error!\nown 0",
                 "SendMsg +49/" + times(160, "a") + sent, "SendMsg +49/" + times(68, "a") + "ää" + sent,
                 "SendPdu no PDU at all" + sent, "SendPdu " + sent, "SendMsg_Async +49/hello=0 "});
    EXPECT_EQ(heard.take(1), Texts{"0"});
    check(step, {"SendPdu_Async 0011=0 "});
    EXPECT_EQ(heard.take(1), Texts{"0"});
    const auto text = [](const char *gsm7, const std::string &number, const std::string &body) {
        return std::string("sms.send {\"sms\":{\"id\":\"-1\",\"gsm7\":\"") + gsm7 + "\",\"address\":\"" + number +
               "\",\"date\":\"23,9,24,14,8,30,+8\",\"protocol\":\"0\",\"body\":\"" + body + "\"}}";
    };
    EXPECT_EQ(sim::recorded("sms"),
              (Texts{text("0", "+49", times(70, "4F60")), text("1", longest, "0031"), text("0", "+49", "007801F600"),
                     text("0", "+49", "00610062"), text("1", "+49", times(160, "0061")),
                     text("0", "+49", times(68, "0061") + "00E400E4"),
                     "sms.send_pdu {\"sms\":{\"pdu\":\"no PDU at all\"}}", "sms.send_pdu {\"sms\":{\"pdu\":\"\"}}",
                     text("1", "+49", "00680065006C006C006F"), "sms.send_pdu {\"sms\":{\"pdu\":\"0011\"}}"}));
}

TEST_F(Sending, Refused) {
    SmsMessage message = message_of("abc", "1");
    for (message.length = -1; message.length < 6; message.length += message.length == 2 ? 2 : 1)
        EXPECT_EQ(Tavrik_SMS_SendMsg(&message) + Tavrik_SMS_SendMsg_Async(&message), -2) << message.length;
    EXPECT_EQ(Tavrik_SMS_SendMsg(nullptr) + Tavrik_SMS_SendMsg_Async(nullptr), -2);
    EXPECT_EQ(outcome([] { return Tavrik_SMS_SendPdu(nullptr) + Tavrik_SMS_SendPdu_Async(nullptr); }),
              "-2 Tavrik_SMS_SendPdu: Parameter input error\nTavrik_SMS_SendPdu_Async: Parameter input error\n");
    for (const std::string verb : {"SendMsg", "SendMsg_Async"}) {
        const std::string log = "=-1 Tavrik_SMS_" + verb, input = log + ": Parameter input error\n";
        const std::string most = log + ": The length of the input text message cannot exceed ";
        check(step, {verb + " /abc" + input, verb + " 1/" + input, verb + " 1/" + times(257, "a") + input,
                     verb + " 1/" + times(161, "a") + most + "160\n", verb + " 1/" + times(256, "a") + most + "160\n",
                     verb + " 1/" + times(70, "你") + "a" + most + "210\n",
                     verb + " 1/" + times(69, "a") + "ää" + most + "210\n"});
    }
    EXPECT_EQ(sim::recorded("sms"), Texts());
}

// The table in the reply, or behind "!" another answer: what comes of it by text, and by PDU.
TEST_F(Sending, Answers) {
    const auto run = [&](const std::string &answer) {
        const bool table = answer[0] != '!';
        const json given = json::parse(answer.substr(!table));
        sim::fault("sms", "*", table ? json{{"reply", {{"sms", given}}}} : given);
        std::string outcomes;
        for (const std::string verb : {"SendMsg", "SendPdu"}) {
            const std::string now = step(verb + " 1/x");
            // Without waiting the same is heard, on another thread.
            const size_t own = now.rfind("own ");
            const Texts other = own == now.npos ? Texts() : Texts{now.substr(own + 4)};
            EXPECT_EQ(step(verb + "_Async 1/x")[0], '0');
            tavrik_ubus_thread_deinit();
            EXPECT_EQ(heard.take(other.size()), other) << answer;
            sim::call("wait", {{"kind", "sms"}, {"count", verb == "SendMsg" ? 2 : 4}});
            tavrik_ubus_deinit();
            outcomes += now + "|";
        }
        sim::call("reset");
        return outcomes;
    };
    const std::string no_resp = "=-1 sms_recv_send_msg_cb: resp is null\n|-1 |", success = "=0 own 0|0 own 0|";
    const std::string unread =
        "=-1 sms_recv_send_msg_cb: blobmsg_parse failed\n|-1 sms_pdu_recv_send_msg_cb: blobmsg_parse failed\n|";
    check(run,
          {R"({"resp": "38", "smsid": "", "smsRef": "x"}=38 own 38|38 own 38|)",
           R"({"resp": " -7x", "smsid": "1", "smsRef": "1"}=-7 own -7|-7 own -7|)",
           R"({"resp": "-1", "smsid": "1", "smsRef": "1"}=-1 own -1|-1 own -1|)",
           R"({"resp": "ok", "smsid": "1", "smsRef": "1"})" + success, R"({"smsid": "1", "smsRef": "1"})" + no_resp,
           R"({"resp": "1", "smsRef": "1"})" + no_resp, R"({"resp": "", "smsid": "1", "smsRef": "1"})" + no_resp,
           R"({"resp": 5, "smsid": "1", "smsRef": "1"})" + no_resp,
           R"({"resp": "1", "smsid": "1"}=-1 sms_recv_send_msg_cb: resp is null)"
           "\n|1 own 1|",
           R"("0")" + unread, R"(!{"reply": {"other": 1}})" + unread, R"(!{"raw": ""})" + unread,
           R"(!{"times": 0}=-1 |-1 |)", R"(!{"times": 2})" + success, R"(!{"delay": 100})" + success,
           // A failure behind the answer.
           R"(!{"status": 9}=0 send_message_core: Failed to ubus invoke: Unknown error)"
           "\nown 0|"
           "0 send_pdu_message_core: Failed to ubus invoke: Unknown error\nown 0|"});
}

TEST_F(Sending, WithoutTheService) {
    for (const auto &[service, log] :
         {std::pair("sms", ": Failed to lookup id: Not found\n"), {"bus", ": Failed to connect to ubus\n"}}) {
        sim::call("fault", {{"service", service}, {"stop", true}});
        check(step,
              {"SendMsg 1/x=-1 send_message_core"s + log, "SendMsg_Async 1/x=-1 send_async_message_core"s + log,
               "SendPdu 00=-1 send_pdu_message_core"s + log, "SendPdu_Async 00=-1 send_pdu_async_message_core"s + log});
        sim::call("reset");
    }
    sim::fault("sms", "*", {{"drop", true}});
    const auto start = std::chrono::steady_clock::now();
    check(step, {"SendMsg 1/x=-1 send_message_core: Failed to ubus invoke: Request timed out\n"});
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(9995));
    EXPECT_LT(took, std::chrono::seconds(30));
}

// A result belongs to its send: one inside the callback of another, and several at once, each get their own.
TEST_F(Sending, ResultsDoNotMix) {
    std::vector<std::thread> threads;
    for (const std::string resp : {"11", "12", "13", "14"})
        sim::fault(
            "sms", "sms.send " + resp,
            json{{"reply", {{"sms", {{"resp", resp}, {"smsid", "1"}, {"smsRef", "1"}}}}}, {"delay", 50 - stoi(resp)}});
    int inner = 0;
    g_inside = [&] { inner = send("12"); };
    EXPECT_EQ(step("SendMsg 11/x"), "11 own 12own 11");
    EXPECT_EQ(inner, 12);
    for (const int resp : {11, 12, 13, 14})
        threads.emplace_back([resp] {
            for (int i = 0; i < 20; ++i)
                EXPECT_EQ(send(std::to_string(resp)), resp);
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(heard.take(80).size(), 80u);
}

TEST_F(Sending, StartAndStop) {
    check(step, {"Init=0 warn Tavrik_SMS_Init: sms has been already inited\n"});
    Tavrik_SMS_Deinit(); // the last registration: all is removed
    EXPECT_EQ(sim::log_of(Tavrik_SMS_Deinit), "warn Tavrik_SMS_Deinit: sms not init\n");
    check(step, {"SendMsg 1/x=0 sms_recv_send_msg_cb: sms_send_cb is null\n",
                 "SendPdu 00=0 sms_pdu_recv_send_msg_cb: sms_send_cb is null\n"});
    EXPECT_EQ(outcome([] { return Tavrik_SMS_Init(nullptr); }), "-1 Tavrik_SMS_Init: Parameter input error!\n");
    sim::call("fault", {{"service", "atind"}, {"stop", true}});
    EXPECT_TRUE(
        std::regex_match(step("Init"), std::regex("-1 (.+\n)*Tavrik_SMS_Init: sms indication register failed\n")));
    sim::call("reset");
    check(step, {"Init=0 ", "SendMsg 1/x=0 own 0"});
    // Another family's registration stays: results still arrive after the stop.
    ASSERT_EQ(tavrik_indication_register(TAVRIK_IND_SIM, [] {}), 0);
    Tavrik_SMS_Deinit();
    EXPECT_EQ(sim::log_of(Tavrik_SMS_Deinit), "warn Tavrik_SMS_Deinit: sms not init\n");
    check(step, {"SendMsg 1/x=0 own 0"});
    tavrik_indication_deregister();
    check(step, {"SendMsg 1/x=0 sms_recv_send_msg_cb: sms_send_cb is null\n"});
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
    EXPECT_EQ(heard.take(0), Texts(2, "own 21"));
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
    const auto current = [](size_t size = 73) {
        char text[73] = "-";
        const int result = Tavrik_SMS_CurrentPdu(text, size);
        return std::to_string(result) + text + " ";
    };
    std::string inside;
    g_inside = [&] {
        inside = current(72) + current();
        std::thread([&] { inside += current(); }).join();
        send("1"); // its result is another event of this thread
        inside += current();
    };
    sim::call("line", {{"text", "\r\n+CMT: ,24\r\n" + pdu + "\r\n"}});
    EXPECT_EQ(heard.take(2), (Texts{"0", "hellohello"}));
    EXPECT_EQ(inside, "-1- 0" + pdu + " -1- 0" + pdu + " ");
    EXPECT_EQ(current(), "-1- ");
    EXPECT_EQ(outcome([] { return Tavrik_SMS_CurrentPdu(nullptr, 1); }),
              "-1 Tavrik_SMS_CurrentPdu: Parameter input error\n");
}

} // namespace
