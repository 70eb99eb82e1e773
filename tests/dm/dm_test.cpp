// Identity and phone mode against the simulated modem, and against answers that no modem should give.
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/sim.h"
#include "tavrik_sdk.h"

namespace {

using nlohmann::json;
using sim::fault, sim::hex, sim::log_of;

class Dm : public testing::Test {
  protected:
    Dm() {
        sim::call("reset");
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
        EXPECT_EQ(Tavrik_AT_Init(), 0);
    }
    ~Dm() { Tavrik_AT_Deinit(); }
};

std::vector<std::string> requests_with(int id) {
    std::vector<std::string> payloads;
    const json record = sim::call("record", {{"kind", "ril"}, {"id", id}});
    for (const json &entry : record["entries"])
        payloads.push_back(entry.value("data", "none"));
    return payloads;
}

TEST_F(Dm, ReadsVersionTexts) {
    sim::call("state", {{"manufacturer", "Tavrik Works"}, {"model", "TM-7"}, {"revision", "R2.1"}});
    Tavrik_VersionInfo info;
    EXPECT_EQ(Tavrik_DM_GetVersionInfo(&info), 0);
    EXPECT_STREQ(info.manufacturer, "Tavrik Works");
    EXPECT_STREQ(info.model, "TM-7");
    EXPECT_STREQ(info.revision, "R2.1");

    const std::string text(60, 'm');
    const struct {
        const char *what;
        json effect;
        int result;
        const char *manufacturer, *model, *revision; // "##" where nothing was written
        std::string log;
    } cases[] = {
        {"blanks at the ends",
         {{"raw", "Manufacturer: \t A B \t\r\nModel:M\r\nRevision:  \r\nOK\r\n"}},
         0,
         "A B",
         "M",
         "",
         ""},
        {"too long for the fields",
         {{"raw", "Manufacturer: " + text + "\r\nModel: " + text + "\r\nRevision: " + text + "\r\nOK\r\n"}},
         0,
         "mmmmmmmmmmmmmmmmmmm",
         "mmmmmmmmmmmmmmmmmmmmmmmmmmmmm",
         "mmmmmmmmmmmmmmmmmmmmmmmmmmmmmmmmmmmmmmm",
         ""},
        {"exact fit",
         {{"raw", "Manufacturer: " + text.substr(0, 19) + "\r\nModel:M\r\nRevision:R\r\nOK\r\n"}},
         0,
         "mmmmmmmmmmmmmmmmmmm",
         "M",
         "R",
         ""},
        {"no revision",
         {{"raw", "Manufacturer: A\r\nModel: M\r\nOK\r\n"}},
         -1,
         "A",
         "M",
         "",
         "handle_response_data: failed to match the keyword\nTavrik_DM_GetVersionInfo: get revision failed\n"},
        {"no model",
         {{"raw", "Manufacturer: A\r\nRevision: R\r\nOK\r\n"}},
         -1,
         "A",
         "",
         "##",
         "handle_response_data: failed to match the keyword\nTavrik_DM_GetVersionInfo: get model failed\n"},
        {"no line end",
         {{"raw", "OK Manufacturer: A"}},
         -1,
         "",
         "##",
         "##",
         "handle_response_data: failed to match the \\r\\n\nTavrik_DM_GetVersionInfo: get manufacturer failed\n"},
        {"error", {{"error", 3}}, -1, "##", "##", "##", "Tavrik_AT_Send: response error\n"},
        {"gone", {{"close", true}}, -1, "##", "##", "##", "Tavrik_AT_Send: read error!\n"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.what);
        fault("at", "AT+PALDEXATI", test.effect);
        memset(&info, 0, sizeof info);
        memset(info.manufacturer, '#', 2);
        memset(info.model, '#', 2);
        memset(info.revision, '#', 2);
        EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_DM_GetVersionInfo(&info), test.result); }), test.log);
        EXPECT_STREQ(info.manufacturer, test.manufacturer);
        EXPECT_STREQ(info.model, test.model);
        EXPECT_STREQ(info.revision, test.revision);
        sim::call("clear");
    }
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_DM_GetVersionInfo(nullptr), -1); }),
              "Tavrik_DM_GetVersionInfo: Parameter input error\n");
}

TEST_F(Dm, ReadsImei) {
    sim::call("state", {{"imei", "490154203237518"}});
    const std::string unusable = "Tavrik_DM_GetIMEI: Parsing the response data failed\n",
                      failed = "Tavrik_DM_GetIMEI: Failed to get imei\n", callback = "get_imei_request_cb: ";
    const struct {
        const char *what;
        json effect;
        const char *imei; // NULL: the call fails
        std::string log;
    } cases[] = {
        {"as it is", nullptr, "490154203237518", ""},
        {"longer than the field", {{"data", hex("12345678901234567890")}}, "123456789012345", ""},
        {"shorter", {{"data", hex("123")}}, "123", ""},
        {"with a zero byte inside",
         {{"data", hex(std::string("12\0"
                                   "45",
                                   5))}},
         "12",
         ""},
        {"of another request", {{"id", 39}}, nullptr, callback + "The response not for the request\n" + unusable},
        {"error", {{"error", -2}, {"data", "00"}}, nullptr, callback + "response error -2\n" + unusable},
        {"error, and of another request",
         {{"error", 1}, {"id", 1}, {"data", "00"}},
         nullptr,
         callback + "The response not for the request\n" + unusable},
        {"error without data", {{"error", 2}}, nullptr, callback + "no response data\n" + unusable},
        {"no data", {{"data", nullptr}}, nullptr, callback + "no response data\n" + unusable},
        {"empty data", {{"data", ""}}, nullptr, callback + "no response data\n" + unusable},
        {"no RIL reply", {{"raw", "noise"}}, nullptr, callback + "Call back Parse response failed\n" + unusable},
        {"no reply at all", {{"times", 0}}, nullptr, unusable},
        {"refused",
         {{"status", 6}, {"times", 0}},
         nullptr,
         "tavrik_ubus_invoke: Failed to ubus invoke: Permission denied\n" + failed},
        {"too late",
         {{"delay", 3500}},
         nullptr,
         "tavrik_ubus_invoke: Failed to ubus invoke: Request timed out\n" + failed},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.what);
        if (!test.effect.is_null())
            fault("ril", 38, test.effect);
        char imei[TAVRIK_IMEI_SIZE + 1] = "################";
        int length = -7;
        EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_DM_GetIMEI(imei, &length), test.imei ? 0 : -1); }), test.log);
        EXPECT_STREQ(imei, test.imei ? test.imei : "################");
        EXPECT_EQ(length, test.imei ? int(strlen(test.imei)) : -7);
        EXPECT_EQ(imei[TAVRIK_IMEI_SIZE], 0);
        sim::call("clear");
    }
    char imei[TAVRIK_IMEI_SIZE];
    int length;
    EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_DM_GetIMEI(nullptr, &length), -1); }),
              "Tavrik_DM_GetIMEI: Parameter input error\n");
    EXPECT_EQ(Tavrik_DM_GetIMEI(imei, nullptr), -1);
}

TEST_F(Dm, SwitchesThePhoneMode) {
    int mode = -7;
    EXPECT_EQ(Tavrik_DM_SetPhoneMode(TAVRIK_PHONE_MODE_MINIMUM), 0);
    EXPECT_EQ(Tavrik_DM_GetPhoneMode(&mode), 0);
    EXPECT_EQ(mode, TAVRIK_PHONE_MODE_MINIMUM);
    EXPECT_EQ(Tavrik_DM_SetPhoneMode(TAVRIK_PHONE_MODE_ONLINE), 0);
    EXPECT_EQ(Tavrik_DM_GetPhoneMode(&mode), 0);
    EXPECT_EQ(mode, TAVRIK_PHONE_MODE_ONLINE);
    for (const int wrong : {0, 3, -1})
        EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_DM_SetPhoneMode(wrong), -1); }),
                  "Tavrik_DM_SetPhoneMode: Parameter input error\n");
    EXPECT_EQ(requests_with(538), (std::vector<std::string>{"00000000", "01000000"}));
    EXPECT_EQ(requests_with(537), (std::vector<std::string>{"none", "none"}));
    sim::call("state", {{"mode", 4}});
    EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_DM_GetPhoneMode(&mode), 0); }), "dms_get_op_mode_cb: cfun mode : 4\n");
    EXPECT_EQ(mode, TAVRIK_PHONE_MODE_OTHER);
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_DM_GetPhoneMode(nullptr), -1); }),
              "Tavrik_DM_GetPhoneMode: Parameter input error\n");
}

TEST_F(Dm, TellsWhyThePhoneModeFailed) {
    const struct {
        const char *what;
        json effect;
        int get_result;
        const char *get_log;
        int set_result;
        const char *set_log;
    } cases[] = {
        {"error", {{"error", 2}}, -1, "dms_get_op_mode_cb: errcode : 2\n", -1, "dms_set_op_mode_cb: errorcode : 2\n"},
        {"no RIL reply",
         {{"raw", "noise"}},
         -1,
         "dms_get_op_mode_cb: parse get cfun data failed\n",
         -1,
         "dms_set_op_mode_cb: parse set op mode data failed\n"},
        {"no data", {{"data", nullptr}}, -1, "dms_get_op_mode_cb: data is null\n", 0, ""},
        {"three bytes", {{"data", "010000"}}, -1, "dms_get_op_mode_cb: data is null\n", 0, ""},
        {"five bytes", {{"data", "0100000000"}}, 0, "", 0, ""},
        {"no reply at all", {{"times", 0}}, -1, "", -1, ""},
        {"refused",
         {{"status", 6}, {"times", 0}},
         -1,
         "Tavrik_DM_GetPhoneMode: ubus invoke failed, ret[6]\n",
         -1,
         "Tavrik_DM_SetPhoneMode: ubus_invoke failed, ret[6]\n"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.what);
        fault("ril", "*", test.effect);
        int mode = -7;
        EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_DM_GetPhoneMode(&mode), test.get_result); }), test.get_log);
        EXPECT_EQ(mode, test.get_result ? -7 : 1);
        EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_DM_SetPhoneMode(1), test.set_result); }), test.set_log);
        sim::call("clear");
    }
    int mode;
    sim::call("fault", {{"service", "ril"}, {"stop", true}});
    EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_DM_GetPhoneMode(&mode), -1); }),
              "Tavrik_DM_GetPhoneMode: ubus_lookup_id failed, ret[4]\n");
    EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_DM_SetPhoneMode(1), -1); }),
              "Tavrik_DM_SetPhoneMode: ubus_lookup_id failed, ret[4]\n");
    sim::call("fault", {{"service", "bus"}, {"stop", true}});
    EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_DM_GetPhoneMode(&mode), -1); }),
              "Tavrik_DM_GetPhoneMode: ubus connect failed\n");
    EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_DM_SetPhoneMode(0), -1); }),
              "Tavrik_DM_SetPhoneMode: ubus connect failed\n");
}

// The exported reply handlers on requests of the application, with private pointers that are its own.
TEST_F(Dm, HandlersTrustNoPrivatePointer) {
    EXPECT_EQ(log_of([] {
                  get_imei_request_cb(nullptr, 0, nullptr);
                  dms_get_op_mode_cb(nullptr, 0, nullptr);
                  dms_set_op_mode_cb(nullptr, 0, nullptr);
              }),
              "get_imei_request_cb: Call back Parse response failed\n"
              "dms_get_op_mode_cb: parse get cfun data failed\n"
              "dms_set_op_mode_cb: parse set op mode data failed\n");
    char untouched[64];
    memset(untouched, '#', sizeof untouched);
    for (void *priv : {(void *)nullptr, (void *)1, (void *)untouched})
        EXPECT_EQ(log_of([&] {
                      EXPECT_EQ(tavrik_ubus_invoke(38, get_imei_request_cb, priv, 3000), 0);
                      EXPECT_EQ(tavrik_ubus_invoke(537, dms_get_op_mode_cb, priv, 3000), 0);
                      EXPECT_EQ(tavrik_ubus_invoke(900, get_imei_request_cb, priv, 3000), 0);
                  }),
                  "get_imei_request_cb: The response not for the request\n");
    EXPECT_EQ(std::string(untouched, sizeof untouched), std::string(64, '#'));
}

// Each call has its own result: one whose reply is refused does not spoil another's, nor take it over.
TEST_F(Dm, CallsShareNoResult) {
    sim::call("state", {{"imei", "490154203237518"}, {"mode", 1}});
    for (int nth = 2; nth < 400; nth += 3)
        fault("ril", "38", {{"error", 7}, {"nth", nth}});
    std::atomic<int> good{0}, refused{0}, wrong{0};
    std::vector<std::thread> threads;
    testing::internal::CaptureStdout();
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 100; ++round) {
                char imei[TAVRIK_IMEI_SIZE] = "";
                int length = 0, mode = 0;
                if (Tavrik_DM_GetIMEI(imei, &length))
                    ++refused;
                else
                    ++(length == 15 && !strcmp(imei, "490154203237518") ? good : wrong);
                if (Tavrik_DM_GetPhoneMode(&mode) || mode != 1)
                    ++wrong;
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(refused, 133);
    EXPECT_EQ(good, 267);
}

} // namespace
