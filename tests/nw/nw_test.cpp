// Registration, signal and radio settings against the simulated modem.
#include "support/sim.h"

namespace {

using sim::calling, sim::given, sim::log_of, sim::number, sim::refused, sim::unmatched, sim::words;

class Nw : public sim::AtTest {};

TEST_F(Nw, TellsTheRegistration) {
    const std::string lte = "AT+CPSI? AT+CEREG? AT+CREG? AT+CGATT?", gsm = "AT+CPSI? AT+CGREG? AT+CREG? AT+CGATT?",
                      no_cs = "AT+CPSI? AT+CEREG? AT+CREG?", no_state = ": Failed to get reg_state\n";
    const auto state = [] {
        int reg = 77, cs = 77, ps = 77;
        return words(Tavrik_NW_GetRegStatus(&reg, &cs, &ps), reg, cs, ps);
    };
    table({
        {"cereg=5 creg=3", state, "0 5 2 1", lte},
        {"act=2 cgreg=2 creg=5", state, "0 2 1 1", gsm},
        {"attached=false", state, "0 1 1 2", lte},
        {"at AT+CPSI? raw=\r\n+CPSI: LTE CAT-M1,Online\r\nOK\r\n", state, "0 1 1 1", gsm},
        {"at AT+CPSI? raw=\r\n+CPSI: \r\nOK\r\n", state, "0 1 1 1", gsm, "get_network_type" + no_state},
        {"at AT+CPSI? raw=\r\nOK\r\n", state, "0 1 1 1", gsm,
         unmatched + "get_network_type: Failed to get network type\n"},
        {"at AT+CEREG? raw=\r\n+CEREG: 2\r\nOK\r\n", state, "0 4 1 1", lte, "get_lte_reg_state" + no_state},
        {"act=0 | at AT+CGREG? raw=\r\nOK\r\n", state, "0 4 1 1", gsm,
         unmatched + "get_wcdma_or_gsm_reg_state" + no_state},
        {"at AT+CREG? raw=\r\n+CREG: 2\r\nOK\r\n", state, "0 1 0 1", lte},
        {"at AT+CREG? raw=\r\nOK\r\n", state, "-1 1 77 77", no_cs,
         unmatched + "Tavrik_NW_GetRegStatus: Failed to get cs_state\n"},
        {"at AT+CGATT? error=ERROR", state, "-1 1 1 77", lte,
         refused + "Tavrik_NW_GetRegStatus: Failed to get ps_state\n"},
    });
}

TEST_F(Nw, TellsTheSignal) {
    const std::string wire = "AT+CESQ AT*ZCQI? AT+CPSI?", none = "-1 77 -7 -7 7 -7 -7",
                      nothing = ": Failed to get network signal\n",
                      no_service = "Tavrik_NW_GetSignal: no service or get signal failed\n";
    const auto signal = [] {
        Tavrik_Signal s = {-7, -7, 7, -7, -7};
        int technology = 77;
        const int result = Tavrik_NW_GetSignal(&s, &technology);
        return words(result, technology, s.rxlev, s.rsrp, int(s.rsrq), s.sinr, s.cqi);
    };
    table({
        {"", signal, "0 4 99 60 25 18 11", wire},
        {"cqi=3 | at AT*ZCQI? error=ERROR", signal, "0 4 99 60 25 18 11", wire, refused}, // the last one
        {"at AT*ZCQI? raw=\r\nOK\r\n", signal, "0 4 99 60 25 18 0", wire, unmatched + "get_cqi_info" + nothing},
        {"", signal, "0 4 99 60 25 18 11", wire},
        {"rsrp=61 | at AT+CESQ error=ERROR", signal, "0 4 99 60 25 18 11", wire, refused},
        {"at AT+CESQ raw=\r\n+CESQ: 65537,0,65538,0,259,65540\r\nOK\r\n", signal, "0 4 1 4 3 18 11", wire},
        {"at AT+CESQ raw=\r\nOK\r\n", signal, "0 4 0 0 0 18 11", wire, unmatched + "get_signal_parameter" + nothing},
        {"act=2 rscp=48", signal, "0 3 48 -7 7 -7 -7", wire},
        {"act=0 | at AT+CESQ raw=\r\n+CESQ: 289,0,0,0,0,0\r\nOK\r\n", signal, "0 2 33 -7 7 -7 -7", wire},
        {"creg=2 cgreg=2 cereg=2", signal, none, wire, no_service},
        {"at AT+CPSI? error=ERROR", signal, none, wire,
         refused + "get_network_type: Send AT+CPSI? faild\n" + no_service},
    });
}

TEST_F(Nw, ReadsAndWritesSettings) {
    const auto mode = [] { return number(Tavrik_NW_GetPreferredMode); };
    const auto set_mode_3 = calling(Tavrik_NW_SetPreferredMode, 3);
    const auto bands = [] {
        Tavrik_RfBandInfo info = {{7, 7, 7, 7}};
        return words(Tavrik_NW_GetRfBandInfo(&info), info.band[0], info.band[1], info.band[2], info.band[3]);
    };
    const auto set_bands = calling(Tavrik_NW_SetRfBandInfo, 1, 2, 3, 4294967295u, 5);
    const auto volte = [] { return number(Tavrik_NW_GetVolteStatus); };
    const auto rejects = [] {
        Tavrik_RejectCause causes[TAVRIK_REJECT_CAUSES] = {};
        const int count = Tavrik_NW_QueryRejectCause(causes);
        std::string text = words(count);
        for (int i = 0; i < count; ++i)
            text += "; " + words(causes[i].field[0], causes[i].field[1], causes[i].field[2]);
        return text;
    };
    const auto lock = calling(Tavrik_NW_CellLock, 3, 1300, 22);
    const std::string ask = "AT*BAND?", set = "AT*BAND? AT*BAND=15,1,2,3,4294967295,,,,5", vol = "AT+CIREG?",
                      rej = "AT*REJCAUSE=2", cell = "AT*CELL=2,3,,1300,22",
                      told = "debug Tavrik_NW_SetPreferredMode: mode:4\n",
                      unread = "Tavrik_NW_SetRfBandInfo: get current band faild\n";
    table({
        {"", mode, "0 1", ask},
        {"band_mode=0", mode, "0 5", ask},
        {"band_mode=7", mode, "0 0", ask},
        {"at AT*BAND? raw=\r\n*BAND: 16\r\nOK\r\n", mode, "-1 77", ask},
        {"at AT*BAND? raw=\r\n*BAND: -1\r\nOK\r\n", mode, "-1 77", ask},
        {"at AT*BAND? raw=\r\n*BAND: x\r\nOK\r\n", mode, "-1 77", ask},
        {"at AT*BAND? error=ERROR", mode, "-1 77", ask, refused},
        {"", set_mode_3, "0", "AT*BAND? AT*BAND=4", told},
        {"at AT*BAND=4 error=ERROR", set_mode_3, "-1", "AT*BAND? AT*BAND=4", told + refused},
        {"at AT*BAND? error=ERROR", set_mode_3, "-1", ask, refused},
        {"band_mode=4", set_mode_3, "0", ask, "debug Tavrik_NW_SetPreferredMode: same mode, not need to change\n"},

        {"", bands, "0 78 147 482 134742231", ask},
        {"at AT*BAND? raw=\r\n*BAND: 15,1,4294967295\r\nOK\r\n", bands, "0 1 4294967295 0 0", ask},
        {"at AT*BAND? raw=\r\nOK\r\n", bands, "0 0 0 0 0", ask,
         unmatched + "Tavrik_NW_GetRfBandInfo: Failed to get network signal\n"},
        {"at AT*BAND? error=ERROR", bands, "-1 7 7 7 7", ask, refused},
        {"", set_bands, "0", set},
        {"at AT*BAND=* error=ERROR", set_bands, "-1", set, refused},
        {"at AT*BAND? error=ERROR", set_bands, "-1", ask, refused + unread},
        {"at AT*BAND? raw=\r\n*BAND: \r\nOK\r\n", set_bands, "-1", ask, unread},

        {"", volte, "0 1", vol},
        {"at * raw=\r\n+CIREG: 1\r\nOK\r\n", volte, "0 0", vol},
        {"at * raw=\r\nOK\r\n", volte, "-1 77", vol,
         unmatched + "Tavrik_NW_GetVolteStatus: Failed to get ims status\n"},
        {"at * error=ERROR", volte, "-1 77", vol, refused + "Tavrik_NW_GetVolteStatus: get current ims faild\n"},

        {"", rejects, "0", rej},
        {"reject_causes=1,2,3;;x,-5", rejects, "3; 1 2 3; 0 0 0; 0 -5 0", rej},
        {"reject_causes=1;2;3;4;5;6;7;8;9;10;11,12,13", rejects,
         "10; 1 0 0; 2 0 0; 3 0 0; 4 0 0; 5 0 0; 6 0 0; 7 0 0; 8 0 0; 9 0 0; 10 0 0", rej},
        {"at * error=ERROR", rejects, "-1", rej, refused},

        {"at * delay=2300", lock, "0", cell},
        {"at * error=ERROR", lock, "-1", cell, refused + "Tavrik_NW_CellLock: Tavrik_NW_CellLock, lock cell faid!\n"},
        {"", calling(Tavrik_NW_ResetCellLock), "0", "AT*CELL=0,0,0,0,0"},
        {"at * error=ERROR", calling(Tavrik_NW_ResetCellLock), "-1", "AT*CELL=0,0,0,0,0", refused},
        {"", calling(Tavrik_NW_RejectCauseSwitch, 2), "0", "AT*REJCAUSE=1"},
        {"at * error=ERROR", calling(Tavrik_NW_RejectCauseSwitch, 0), "-1", "AT*REJCAUSE=0", refused},
        {"", calling(Tavrik_Set_POWERIND, 0), "0", "AT*POWERIND=0"},
        {"at * error=ERROR", calling(Tavrik_Set_POWERIND, 1), "-1", "AT*POWERIND=31", refused},
        {"", calling(Tavrik_Set_POWERIND, 2), "-1", ""},
    });
}

TEST_F(Nw, RefusesBeforeSending) {
    int value;
    const std::string null = ": Parameter input error";
    refuse({
        {"Tavrik_NW_CellLock: Tavrik_NW_CellLock, error act", [] { return Tavrik_NW_CellLock(4, 1, 1); }},
        {"Tavrik_NW_CellLock: Tavrik_NW_CellLock, error freq", [] { return Tavrik_NW_CellLock(0, 0, 1); }},
        {"Tavrik_NW_CellLock: Tavrik_NW_CellLock, error cellid", [] { return Tavrik_NW_CellLock(0, 1, 0); }},
        {"Tavrik_NW_SetPreferredMode: error input", [] { return Tavrik_NW_SetPreferredMode(6); }},
        {"Tavrik_NW_SetPreferredMode: error input", [] { return Tavrik_NW_SetPreferredMode(0); }},
        {"Tavrik_NW_GetRfBandInfo: Error input", [] { return Tavrik_NW_GetRfBandInfo(nullptr); }},
        {"Tavrik_NW_GetPreferredMode" + null, [] { return Tavrik_NW_GetPreferredMode(nullptr); }},
        {"Tavrik_NW_GetVolteStatus" + null, [] { return Tavrik_NW_GetVolteStatus(nullptr); }},
        {"Tavrik_NW_QueryRejectCause" + null, [] { return Tavrik_NW_QueryRejectCause(nullptr); }},
        {"Tavrik_NW_GetSignal" + null, [&] { return Tavrik_NW_GetSignal(nullptr, &value); }},
        {"Tavrik_NW_GetRegStatus" + null, [&] { return Tavrik_NW_GetRegStatus(&value, nullptr, &value); }},
        {"Tavrik_NW_Cb_Reg: Parameter input error!", [] { return Tavrik_NW_Cb_Reg(nullptr); }},
        {"Tavrik_NW_Cb_Reg_Ext: Parameter input error!", [] { return Tavrik_NW_Cb_Reg_Ext(nullptr); }},
    });
}

TEST_F(Nw, ChecksRilReplies) {
    const auto ask = [] { return words(tavrik_ubus_invoke(521, ps_state_request_cb, nullptr, 3000)); };
    table({
        {"", ask, "0", "ril 521"},
        {"ril * id=522", ask, "0", "ril 521", "ps_state_request_cb: The response not for the request\n"},
        {"ril * error=3 data=\"00\"", ask, "0", "ril 521", "ps_state_request_cb: response error 3\n"},
        {"ril * data=null", ask, "0", "ril 521", "ps_state_request_cb: no response data\n"},
        {"ril * raw=noise", ask, "0", "ril 521", "ps_state_request_cb: Call back Parse response failed\n"},
    });
}

TEST_F(Nw, SubscribesAndFailsWithoutAServer) {
    const Tavrik_NwCb on_network = [](const Tavrik_NwEvent *) {};
    const Tavrik_CellCb on_cell = [](const void *) {};
    EXPECT_EQ(Tavrik_NW_Cb_Reg(on_network), 0);
    EXPECT_EQ(Tavrik_NW_Cb_Reg_Ext(on_cell), 0);
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_CONNECTED);
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_NW_Cb_Free(), 0); }),
              "info tavrik_indication_nwderegister: indication_register_number:0\n");
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
    given("atind stop=true");
    const std::string failed = "start_indication_thread: create socket failed\n"
                               "tavrik_indication_register: indication thread id < 0\n";
    refuse({{failed + "Tavrik_NW_Cb_Reg: nw indication register failed", [&] { return Tavrik_NW_Cb_Reg(on_network); }},
            {failed + "Tavrik_NW_Cb_Reg_Ext: cell info indication register failed",
             [&] { return Tavrik_NW_Cb_Reg_Ext(on_cell); }}});
    EXPECT_EQ(Tavrik_NW_Cb_Free(), 0);

    EXPECT_EQ(Tavrik_NW_Init(), 0); // open already
    Tavrik_AT_Deinit();
    given("at stop=true");
    refuse({{"Tavrik_AT_Init: error: opening device: /tmp/atcmdsdk\nTavrik_NW_Init: at init faild", Tavrik_NW_Init}});
}

} // namespace
