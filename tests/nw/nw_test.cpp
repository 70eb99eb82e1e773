// Registration, signal and radio settings against the simulated modem.
#include "support/sim.h"

namespace {

using nlohmann::json;
using sim::refused, sim::unmatched;

std::string registration() {
    int reg = 77, cs = 77, ps = 77;
    const int result = Tavrik_NW_GetRegStatus(&reg, &cs, &ps);
    return std::to_string(result) + " " + std::to_string(reg) + " " + std::to_string(cs) + " " + std::to_string(ps);
}

std::string signal() {
    Tavrik_Signal s = {-7, -7, 7, -7, -7};
    int technology = 77;
    const int result = Tavrik_NW_GetSignal(&s, &technology);
    std::string text = std::to_string(result) + " " + std::to_string(technology) + ":";
    for (const int value : {int(s.rxlev), int(s.rsrp), int(s.rsrq), int(s.sinr), int(s.cqi)})
        text += " " + std::to_string(value);
    return text;
}

std::string preferred() {
    int mode = 77;
    const int result = Tavrik_NW_GetPreferredMode(&mode);
    return std::to_string(result) + " " + std::to_string(mode);
}

std::string prefer_mode_3() {
    return std::to_string(Tavrik_NW_SetPreferredMode(3));
}

std::string bands() {
    Tavrik_RfBandInfo info = {{7, 7, 7, 7}};
    std::string text = std::to_string(Tavrik_NW_GetRfBandInfo(&info));
    for (const uint32_t band : info.band)
        text += " " + std::to_string(band);
    return text;
}

std::string set_bands() {
    return std::to_string(Tavrik_NW_SetRfBandInfo(1, 2, 3, 4294967295u, 5));
}

std::string volte() {
    int status = 77;
    const int result = Tavrik_NW_GetVolteStatus(&status);
    return std::to_string(result) + " " + std::to_string(status);
}

std::string rejects() {
    Tavrik_RejectCause causes[TAVRIK_REJECT_CAUSES] = {};
    const int count = Tavrik_NW_QueryRejectCause(causes);
    std::string text = std::to_string(count);
    for (int i = 0; i < count; ++i)
        for (const int32_t field : causes[i].field)
            text += " " + std::to_string(field);
    return text;
}

std::string lock_cell() {
    return std::to_string(Tavrik_NW_CellLock(3, 1300, 22));
}

json fail(const char *command) {
    return {{"fault", {{"match", command}, {"error", "ERROR"}}}};
}
json raw(const char *command, const char *text) {
    return {{"fault", {{"match", command}, {"raw", text}}}};
}

class Nw : public sim::AtTest {};

TEST_F(Nw, TellsTheRegistration) {
    const std::vector<std::string> lte = {"AT+CPSI?", "AT+CEREG?", "AT+CREG?", "AT+CGATT?"},
                                   gsm = {"AT+CPSI?", "AT+CGREG?", "AT+CREG?", "AT+CGATT?"},
                                   no_cs(lte.begin(), lte.end() - 1);
    check({
        {"LTE", {{"state", {{"cereg", 5}, {"creg", 3}}}}, registration, lte, "0 5 2 1", ""},
        {"WCDMA", {{"state", {{"act", 2}, {"cgreg", 2}}}}, registration, gsm, "0 2 1 1", ""},
        {"detached", {{"state", {{"attached", false}}}}, registration, lte, "0 1 1 2", ""},
        {"another mode", raw("AT+CPSI?", "\r\n+CPSI: LTE CAT-M1,Online\r\n\r\nOK\r\n"), registration, gsm, "0 1 1 1",
         ""},
        {"no EPS state", fail("AT+CEREG?"), registration, lte, "0 4 1 1",
         refused + "get_lte_reg_state: Failed to get reg_state\n"},
        {"no EPS field", raw("AT+CEREG?", "\r\n+CEREG: 2\r\n\r\nOK\r\n"), registration, lte, "0 4 1 1",
         "get_lte_reg_state: Failed to get reg_state\n"},
        {"no GPRS state",
         {{"state", {{"act", 0}}}, {"fault", {{"match", "AT+CGREG?"}, {"raw", "\r\nOK\r\n"}}}},
         registration,
         gsm,
         "0 4 1 1",
         unmatched + "get_wcdma_or_gsm_reg_state: Failed to get reg_state\n"},
        {"no mode line", raw("AT+CPSI?", "\r\nOK\r\n"), registration, gsm, "0 1 1 1",
         unmatched + "get_network_type: Failed to get network type\n"},
        {"no mode", raw("AT+CPSI?", "\r\n+CPSI: \r\n\r\nOK\r\n"), registration, gsm, "0 1 1 1",
         "get_network_type: Failed to get reg_state\n"},
        {"no CS line", raw("AT+CREG?", "\r\nOK\r\n"), registration, no_cs, "-1 1 77 77",
         unmatched + "Tavrik_NW_GetRegStatus: Failed to get cs_state\n"},
        {"no PS line", raw("AT+CGATT?", "\r\nOK\r\n"), registration, lte, "-1 1 1 77",
         unmatched + "Tavrik_NW_GetRegStatus: Failed to get ps_state\n"},
        {"status beyond all", raw("AT+CEREG?", "\r\n+CEREG: 2,-70000\r\n\r\nOK\r\n"), registration, lte, "0 -70000 1 1",
         ""},
        {"one field", raw("AT+CREG?", "\r\n+CREG: 2\r\n\r\nOK\r\n"), registration, lte, "0 1 0 1", ""},
        {"no CS state", fail("AT+CREG?"), registration, no_cs, "-1 1 77 77",
         refused + "Tavrik_NW_GetRegStatus: Failed to get cs_state\n"},
        {"no PS state", fail("AT+CGATT?"), registration, lte, "-1 1 1 77",
         refused + "Tavrik_NW_GetRegStatus: Failed to get ps_state\n"},
    });
}

TEST_F(Nw, TellsTheSignal) {
    const std::vector<std::string> wire = {"AT+CESQ", "AT*ZCQI?", "AT+CPSI?"};
    check({
        {"LTE", json::object(), signal, wire, "0 4: 99 60 25 18 11", ""},
        {"keeps the CQI",
         {{"state", {{"cqi", 3}}}, {"fault", {{"match", "AT*ZCQI?"}, {"error", "ERROR"}}}},
         signal,
         wire,
         "0 4: 99 60 25 18 11",
         refused},
        {"no CQI", raw("AT*ZCQI?", "\r\nOK\r\n"), signal, wire, "0 4: 99 60 25 18 0",
         unmatched + "get_cqi_info: Failed to get network signal\n"},
        {"the CQI again", json::object(), signal, wire, "0 4: 99 60 25 18 11", ""},
        {"keeps the values", fail("AT+CESQ"), signal, wire, "0 4: 99 60 25 18 11", refused},
        {"too wide for the fields",
         {{"fault", {{"match", "AT+CESQ"}, {"raw", "\r\n+CESQ: 65537,0,65538,0,259,65540\r\n\r\nOK\r\n"}}}},
         signal,
         wire,
         "0 4: 1 4 3 18 11",
         ""},
        {"no values", raw("AT+CESQ", "\r\nOK\r\n"), signal, wire, "0 4: 0 0 0 18 11",
         unmatched + "get_signal_parameter: Failed to get network signal\n"},
        {"WCDMA", {{"state", {{"act", 2}, {"rscp", 48}}}}, signal, wire, "0 3: 48 -7 7 -7 -7", ""},
        {"GSM", {{"state", {{"act", 0}, {"rxlev", 33}}}}, signal, wire, "0 2: 33 -7 7 -7 -7", ""},
        {"no service",
         {{"state", {{"creg", 2}, {"cgreg", 2}, {"cereg", 2}}}},
         signal,
         wire,
         "-1 77: -7 -7 7 -7 -7",
         "Tavrik_NW_GetSignal: no service or get signal failed\n"},
        {"no type", fail("AT+CPSI?"), signal, wire, "-1 77: -7 -7 7 -7 -7",
         refused + "get_network_type: Send AT+CPSI? faild\nTavrik_NW_GetSignal: no service or get signal failed\n"},
    });
}

TEST_F(Nw, ReadsAndWritesSettings) {
    const std::vector<std::string> band = {"AT*BAND?"};
    const auto mode = [](int number) { return json{{"state", {{"band_mode", number}}}}; };
    check({
        {"mode 15", json::object(), preferred, band, "0 1", ""},
        {"mode 7", mode(7), preferred, band, "0 0", ""},
        {"mode 16", raw("AT*BAND?", "\r\n*BAND: 16\r\n\r\nOK\r\n"), preferred, band, "-1 77", ""},
        {"write",
         json::object(),
         prefer_mode_3,
         {"AT*BAND?", "AT*BAND=4"},
         "0",
         "debug Tavrik_NW_SetPreferredMode: mode:4\n"},
        {"no mode", fail("AT*BAND?"), preferred, band, "-1 77", refused},
        {"mode is no number", raw("AT*BAND?", "\r\n*BAND: x\r\n\r\nOK\r\n"), preferred, band, "-1 77", ""},
        {"mode -1", raw("AT*BAND?", "\r\n*BAND: -1\r\n\r\nOK\r\n"), preferred, band, "-1 77", ""},
        {"no mode to compare", fail("AT*BAND?"), prefer_mode_3, band, "-1", refused},
        {"write failed",
         fail("AT*BAND=4"),
         prefer_mode_3,
         {"AT*BAND?", "AT*BAND=4"},
         "-1",
         "debug Tavrik_NW_SetPreferredMode: mode:4\n" + refused},
        {"same", mode(4), prefer_mode_3, band, "0",
         "debug Tavrik_NW_SetPreferredMode: same mode, not need to change\n"},
        {"bands", json::object(), bands, band, "0 78 147 482 134742231", ""},
        {"bands failed", fail("AT*BAND?"), bands, band, "-1 7 7 7 7", refused},
        {"no bands", raw("AT*BAND?", "\r\nOK\r\n"), bands, band, "0 0 0 0 0",
         unmatched + "Tavrik_NW_GetRfBandInfo: Failed to get network signal\n"},
        {"set bands", json::object(), set_bands, {"AT*BAND?", "AT*BAND=15,1,2,3,4294967295,,,,5"}, "0", ""},
        {"set bands failed", fail("AT*BAND?"), set_bands, band, "-1",
         refused + "Tavrik_NW_SetRfBandInfo: get current band faild\n"},
        {"no band mode", raw("AT*BAND?", "\r\n*BAND: \r\n\r\nOK\r\n"), set_bands, band, "-1",
         "Tavrik_NW_SetRfBandInfo: get current band faild\n"},
        {"bands not taken",
         fail("AT*BAND=*"),
         set_bands,
         {"AT*BAND?", "AT*BAND=15,1,2,3,4294967295,,,,5"},
         "-1",
         refused},
        {"fewer bands", raw("AT*BAND?", "\r\n*BAND: 15,1,4294967295\r\n\r\nOK\r\n"), bands, band, "0 1 4294967295 0 0",
         ""},
        {"VoLTE", json::object(), volte, {"AT+CIREG?"}, "0 1", ""},
        {"no VoLTE",
         fail("AT+CIREG?"),
         volte,
         {"AT+CIREG?"},
         "-1 77",
         refused + "Tavrik_NW_GetVolteStatus: get current ims faild\n"},
        {"no VoLTE state",
         raw("AT+CIREG?", "\r\nOK\r\n"),
         volte,
         {"AT+CIREG?"},
         "-1 77",
         unmatched + "Tavrik_NW_GetVolteStatus: Failed to get ims status\n"},
        {"VoLTE, one field", raw("AT+CIREG?", "\r\n+CIREG: 1\r\n\r\nOK\r\n"), volte, {"AT+CIREG?"}, "0 0", ""},
        {"more than ten rejects",
         {{"state", {{"reject_causes", "1;2;3;4;5;6;7;8;9;10;11,12,13"}}}},
         rejects,
         {"AT*REJCAUSE=2"},
         "10 1 0 0 2 0 0 3 0 0 4 0 0 5 0 0 6 0 0 7 0 0 8 0 0 9 0 0 10 0 0",
         ""},
        {"a reject without fields",
         {{"state", {{"reject_causes", "1,2,3;;x,-5"}}}},
         rejects,
         {"AT*REJCAUSE=2"},
         "3 1 2 3 0 0 0 0 -5 0",
         ""},
        {"no rejects", json::object(), rejects, {"AT*REJCAUSE=2"}, "0", ""},
        {"rejects", {{"state", {{"reject_causes", "1,2,3;4,5,6"}}}}, rejects, {"AT*REJCAUSE=2"}, "2 1 2 3 4 5 6", ""},
        {"rejects failed", fail("AT*REJCAUSE=2"), rejects, {"AT*REJCAUSE=2"}, "-1", refused},
        {"lock", {{"fault", {{"match", "AT*CELL=*"}, {"delay", 2300}}}}, lock_cell, {"AT*CELL=2,3,,1300,22"}, "0", ""},
        {"lock failed",
         fail("AT*CELL=*"),
         lock_cell,
         {"AT*CELL=2,3,,1300,22"},
         "-1",
         refused + "Tavrik_NW_CellLock: Tavrik_NW_CellLock, lock cell faid!\n"},
    });
}

TEST_F(Nw, RefusesBeforeSending) {
    int value;
    EXPECT_EQ(sim::log_of([&] {
                  EXPECT_EQ(Tavrik_NW_CellLock(4, 1, 1), -1);
                  EXPECT_EQ(Tavrik_NW_CellLock(0, 0, 1), -1);
                  EXPECT_EQ(Tavrik_NW_CellLock(0, 1, 0), -1);
                  EXPECT_EQ(Tavrik_NW_SetPreferredMode(6), -1);
                  EXPECT_EQ(Tavrik_NW_SetPreferredMode(0), -1);
                  EXPECT_EQ(Tavrik_NW_GetPreferredMode(nullptr), -1);
                  EXPECT_EQ(Tavrik_NW_GetVolteStatus(nullptr), -1);
                  EXPECT_EQ(Tavrik_NW_QueryRejectCause(nullptr), -1);
                  EXPECT_EQ(Tavrik_NW_GetRfBandInfo(nullptr), -1);
                  EXPECT_EQ(Tavrik_NW_GetSignal(nullptr, &value), -1);
                  EXPECT_EQ(Tavrik_NW_GetRegStatus(&value, nullptr, &value), -1);
                  EXPECT_EQ(Tavrik_Set_POWERIND(2), -1);
              }),
              "Tavrik_NW_CellLock: Tavrik_NW_CellLock, error act\n"
              "Tavrik_NW_CellLock: Tavrik_NW_CellLock, error freq\n"
              "Tavrik_NW_CellLock: Tavrik_NW_CellLock, error cellid\n"
              "Tavrik_NW_SetPreferredMode: error input\nTavrik_NW_SetPreferredMode: error input\n"
              "Tavrik_NW_GetPreferredMode: Parameter input error\nTavrik_NW_GetVolteStatus: Parameter input error\n"
              "Tavrik_NW_QueryRejectCause: Parameter input error\nTavrik_NW_GetRfBandInfo: Error input\n"
              "Tavrik_NW_GetSignal: Parameter input error\nTavrik_NW_GetRegStatus: Parameter input error\n");
    EXPECT_TRUE(sim::recorded("at").empty());
    for (const int on : {0, 1}) {
        EXPECT_EQ(Tavrik_Set_POWERIND(on), 0);
        EXPECT_EQ(Tavrik_NW_RejectCauseSwitch(2 * on), 0);
    }
    EXPECT_EQ(Tavrik_NW_ResetCellLock(), 0);
    sim::fault("at", "*", {{"error", "ERROR"}});
    EXPECT_EQ(sim::log_of([] {
                  EXPECT_EQ(Tavrik_Set_POWERIND(1), -1);
                  EXPECT_EQ(Tavrik_NW_RejectCauseSwitch(0), -1);
                  EXPECT_EQ(Tavrik_NW_ResetCellLock(), -1);
              }),
              refused + refused + refused);
    EXPECT_EQ(sim::recorded("at"),
              (std::vector<std::string>{"AT*POWERIND=0", "AT*REJCAUSE=0", "AT*POWERIND=31", "AT*REJCAUSE=1",
                                        "AT*CELL=0,0,0,0,0", "AT*POWERIND=31", "AT*REJCAUSE=0", "AT*CELL=0,0,0,0,0"}));
}

TEST_F(Nw, ChecksRilReplies) {
    const std::pair<json, const char *> cases[] = {
        {{{"times", 1}, {"delay", 1}}, ""},
        {{{"id", 522}}, "ps_state_request_cb: The response not for the request\n"},
        {{{"error", 3}, {"data", "00"}}, "ps_state_request_cb: response error 3\n"},
        {{{"data", nullptr}}, "ps_state_request_cb: no response data\n"},
        {{{"raw", "noise"}}, "ps_state_request_cb: Call back Parse response failed\n"},
    };
    for (auto &[effect, log] : cases) {
        sim::fault("ril", 521, effect);
        EXPECT_EQ(sim::log_of([] { EXPECT_EQ(tavrik_ubus_invoke(521, ps_state_request_cb, nullptr, 3000), 0); }), log);
        sim::call("clear");
    }
}

TEST_F(Nw, SubscribesAndFailsWithoutAServer) {
    const Tavrik_NwCb on_network = [](const Tavrik_NwEvent *) {};
    const Tavrik_CellCb on_cell = [](const void *) {};
    EXPECT_EQ(sim::log_of([&] {
                  EXPECT_EQ(Tavrik_NW_Cb_Reg(nullptr), -1);
                  EXPECT_EQ(Tavrik_NW_Cb_Reg_Ext(nullptr), -1);
              }),
              "Tavrik_NW_Cb_Reg: Parameter input error!\nTavrik_NW_Cb_Reg_Ext: Parameter input error!\n");
    EXPECT_EQ(Tavrik_NW_Cb_Reg(on_network), 0);
    EXPECT_EQ(Tavrik_NW_Cb_Reg_Ext(on_cell), 0);
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_CONNECTED);
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_NW_Cb_Free(), 0); }),
              "info tavrik_indication_nwderegister: indication_register_number:0\n");
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);

    sim::call("fault", {{"service", "atind"}, {"stop", true}});
    const std::string failed = "start_indication_thread: create socket failed\n"
                               "tavrik_indication_register: indication thread id < 0\n";
    EXPECT_EQ(sim::log_of([&] { EXPECT_EQ(Tavrik_NW_Cb_Reg(on_network), -1); }),
              failed + "Tavrik_NW_Cb_Reg: nw indication register failed\n");
    EXPECT_EQ(sim::log_of([&] { EXPECT_EQ(Tavrik_NW_Cb_Reg_Ext(on_cell), -1); }),
              failed + "Tavrik_NW_Cb_Reg_Ext: cell info indication register failed\n");
    EXPECT_EQ(Tavrik_NW_Cb_Free(), 0);

    EXPECT_EQ(Tavrik_NW_Init(), 0); // open already
    Tavrik_AT_Deinit();
    sim::call("fault", {{"service", "at"}, {"stop", true}});
    EXPECT_EQ(sim::log_of([] { EXPECT_EQ(Tavrik_NW_Init(), -1); }),
              "Tavrik_AT_Init: error: opening device: /tmp/atcmdsdk\nTavrik_NW_Init: at init faild\n");
    sim::call("clear");
    EXPECT_EQ(Tavrik_NW_Init(), 0);
}

} // namespace
