// Identity and phone mode against the simulated modem, and against answers that no modem should give.
#include <atomic>
#include <thread>

#include "support/sim.h"

namespace {

using sim::calling, sim::log_of, sim::number, sim::words;

class Dm : public sim::AtTest {};

TEST_F(Dm, ReadsVersionTexts) {
    // "RESULT|MANUFACTURER|MODEL|REVISION"; "#" where nothing was written
    const auto version = [] {
        Tavrik_VersionInfo info = {"#", "#", "#"};
        const int result = Tavrik_DM_GetVersionInfo(&info);
        return words(result, "|", info.manufacturer, "|", info.model, "|", info.revision);
    };
    const std::string wire = "AT+PALDEXATI", self = "Tavrik_DM_GetVersionInfo: ", longer(60, 'm'), m19(19, 'm'),
                      m29(29, 'm'), m39(39, 'm'), answer = "at * raw=Manufacturer: ";
    table({
        {"manufacturer=Tavrik Works model=TM-7 revision=R2.1", version, "0 | Tavrik Works | TM-7 | R2.1", wire},
        {answer + "\t A B \t\r\nModel:M\r\nRevision:  \r\nOK\r\n", version, "0 | A B | M | ", wire},
        {answer + longer + "\r\nModel: " + longer + "\r\nRevision: " + longer + "\r\nOK\r\n", version,
         "0 | " + m19 + " | " + m29 + " | " + m39, wire},
        {answer + m19 + "\r\nModel:M\r\nRevision:R\r\nOK\r\n", version, "0 | " + m19 + " | M | R", wire},
        {answer + "A\r\nModel: M\r\nOK\r\n", version, "-1 | A | M | ", wire,
         sim::unmatched + self + "get revision failed\n"},
        {answer + "A\r\nRevision: R\r\nOK\r\n", version, "-1 | A |  | #", wire,
         sim::unmatched + self + "get model failed\n"},
        {"at * raw=OK Manufacturer: A", version, "-1 |  | # | #", wire,
         "handle_response_data: failed to match the \\r\\n\n" + self + "get manufacturer failed\n"},
        {"at * error=3", version, "-1 | # | # | #", wire, sim::refused},
        {"at * close=true", version, "-1 | # | # | #", wire, "Tavrik_AT_Send: read error!\n"},
    });
    refuse({{self + "Parameter input error", [] { return Tavrik_DM_GetVersionInfo(nullptr); }}});
}

TEST_F(Dm, ReadsImei) {
    const auto imei = [] {
        char text[TAVRIK_IMEI_SIZE + 1] = "################";
        int length = -7;
        const int result = Tavrik_DM_GetIMEI(text, &length);
        EXPECT_EQ(text[TAVRIK_IMEI_SIZE], 0);
        return words(result, length, text);
    };
    const std::string wire = "ril 38", none = "-1 -7 ################", callback = "get_imei_request_cb: ",
                      unusable = "Tavrik_DM_GetIMEI: Parsing the response data failed\n",
                      failed = "Tavrik_DM_GetIMEI: Failed to get imei\n",
                      other = callback + "The response not for the request\n" + unusable,
                      empty = callback + "no response data\n" + unusable;
    table({
        {"imei=\"490154203237518\"", imei, "0 15 490154203237518", wire},
        {"ril * data=\"" + sim::hex("12345678901234567890") + "\"", imei, "0 15 123456789012345", wire},
        {"ril * data=\"3132003435\"", imei, "0 2 12", wire},
        {"ril * id=39", imei, none, wire, other},
        {"ril * error=-2 data=\"00\"", imei, none, wire, callback + "response error -2\n" + unusable},
        {"ril * error=1 id=1 data=\"00\"", imei, none, wire, other},
        {"ril * error=2", imei, none, wire, empty},
        {"ril * data=null", imei, none, wire, empty},
        {"ril * data=\"\"", imei, none, wire, empty},
        {"ril * raw=noise", imei, none, wire, callback + "Call back Parse response failed\n" + unusable},
        {"ril * times=0", imei, none, wire, unusable},
        {"ril * status=6 times=0", imei, none, wire,
         "tavrik_ubus_invoke: Failed to ubus invoke: Permission denied\n" + failed},
        {"ril * delay=3500", imei, none, wire,
         "tavrik_ubus_invoke: Failed to ubus invoke: Request timed out\n" + failed},
    });
    char text[TAVRIK_IMEI_SIZE];
    int length;
    refuse({{"Tavrik_DM_GetIMEI: Parameter input error", [&] { return Tavrik_DM_GetIMEI(nullptr, &length); }},
            {"Tavrik_DM_GetIMEI: Parameter input error", [&] { return Tavrik_DM_GetIMEI(text, nullptr); }}});
}

TEST_F(Dm, ReadsAndSwitchesThePhoneMode) {
    const auto get = [] { return number(Tavrik_DM_GetPhoneMode); };
    const auto online = calling(Tavrik_DM_SetPhoneMode, TAVRIK_PHONE_MODE_ONLINE);
    const auto minimum = calling(Tavrik_DM_SetPhoneMode, TAVRIK_PHONE_MODE_MINIMUM);
    const std::string asked = "ril 537", on = "ril 538 01000000", got = "dms_get_op_mode_cb: ",
                      getting = "Tavrik_DM_GetPhoneMode: ", setting = "Tavrik_DM_SetPhoneMode: ";
    table({
        {"mode=0", get, "0 2", asked},
        {"mode=1", get, "0 1", asked},
        {"mode=4", get, "0 0", asked, got + "cfun mode : 4\n"},
        {"ril * data=\"0100000000\"", get, "0 1", asked},
        {"ril * error=2", get, "-1 77", asked, got + "errcode : 2\n"},
        {"ril * raw=noise", get, "-1 77", asked, got + "parse get cfun data failed\n"},
        {"ril * data=null", get, "-1 77", asked, got + "data is null\n"},
        {"ril * data=\"010000\"", get, "-1 77", asked, got + "data is null\n"},
        {"ril * times=0", get, "-1 77", asked},
        {"ril * status=6 times=0", get, "-1 77", asked, getting + "ubus invoke failed, ret[6]\n"},
        {"ril stop=true", get, "-1 77", "", getting + "ubus_lookup_id failed, ret[4]\n"},
        {"bus stop=true", get, "-1 77", "", getting + "ubus connect failed\n"},

        {"", online, "0", on},
        {"", minimum, "0", "ril 538 00000000"},
        {"ril * data=null", online, "0", on},
        {"ril * error=2", online, "-1", on, "dms_set_op_mode_cb: errorcode : 2\n"},
        {"ril * raw=noise", online, "-1", on, "dms_set_op_mode_cb: parse set op mode data failed\n"},
        {"ril * times=0", online, "-1", on},
        {"ril * status=6 times=0", online, "-1", on, setting + "ubus_invoke failed, ret[6]\n"},
        {"ril stop=true", online, "-1", "", setting + "ubus_lookup_id failed, ret[4]\n"},
        {"bus stop=true", calling(Tavrik_DM_SetPhoneMode, 0), "-1", "", setting + "ubus connect failed\n"},
    });
    refuse({{getting + "Parameter input error", [] { return Tavrik_DM_GetPhoneMode(nullptr); }},
            {setting + "Parameter input error", [] { return Tavrik_DM_SetPhoneMode(0); }},
            {setting + "Parameter input error", [] { return Tavrik_DM_SetPhoneMode(3); }}});
}

// The exported reply handlers on requests of the application, with private pointers that are its own.
TEST_F(Dm, HandlersTrustNoPrivatePointer) {
    EXPECT_EQ(log_of([] {
                  for (const auto handler : {get_imei_request_cb, dms_get_op_mode_cb, dms_set_op_mode_cb})
                      handler(nullptr, 0, nullptr);
              }),
              "get_imei_request_cb: Call back Parse response failed\n"
              "dms_get_op_mode_cb: parse get cfun data failed\n"
              "dms_set_op_mode_cb: parse set op mode data failed\n");
    const std::string before(64, '#');
    std::string own = before;
    for (void *priv : {(void *)nullptr, (void *)1, (void *)own.data()})
        EXPECT_EQ(log_of([&] {
                      EXPECT_EQ(tavrik_ubus_invoke(38, get_imei_request_cb, priv, 3000), 0);
                      EXPECT_EQ(tavrik_ubus_invoke(537, dms_get_op_mode_cb, priv, 3000), 0);
                      EXPECT_EQ(tavrik_ubus_invoke(900, get_imei_request_cb, priv, 3000), 0);
                  }),
                  "get_imei_request_cb: The response not for the request\n");
    EXPECT_EQ(own, before);
}

// Each call has its own result: one whose reply is refused does not spoil another's, nor take it over.
TEST_F(Dm, CallsShareNoResult) {
    sim::given("imei=\"490154203237518\" mode=1");
    for (int nth = 2; nth < 400; nth += 3)
        sim::fault("ril", "38", {{"error", 7}, {"nth", nth}});
    std::atomic<int> good{0}, refused{0}, wrong{0};
    log_of([&] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&] {
                for (int round = 0; round < 100; ++round) {
                    char imei[TAVRIK_IMEI_SIZE] = "";
                    int length = 0;
                    if (Tavrik_DM_GetIMEI(imei, &length))
                        ++refused;
                    else
                        ++(length == 15 && !strcmp(imei, "490154203237518") ? good : wrong);
                    wrong += number(Tavrik_DM_GetPhoneMode) != "0 1";
                }
            });
        for (std::thread &thread : threads)
            thread.join();
    });
    EXPECT_EQ(words(good, refused, wrong), "267 133 0");
}

} // namespace
