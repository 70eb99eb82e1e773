// What each line becomes, and how a chunk is cut into lines.
#include "indication/events.h"

using namespace ind;

namespace {

class Parsers : public Indication {};

struct Case {
    const char *line;
    Texts events;
    const char *log = ""; // what the failure logs, line feeds in between
};

constexpr char kPdu[] = "07911326040000F0040B911346610089F60000208062917314080CC8F71D14969741F977FD07";

// Of a log of mode 0 the texts alone.
std::string texts_of(const std::string &log) {
    std::string texts;
    for (size_t at = 0, end; (end = log.find('\n', at)) != std::string::npos; at = end + 1)
        texts += (texts.empty() ? "" : "\n") + log.substr(log.find("]:", at) + 2, end - log.find("]:", at) - 2);
    return texts;
}

TEST_F(Parsers, lines) {
    on_at_indication_report("+CALLDISCONNECT: 1"); // whatever came before
    add_all();
    g_idx_cid[2].cid = 3;
    const std::string pair = std::string("+CMT: ,24\r\n") + kPdu;
    const std::string long_number = "+CLCC: 1,0,0,0,0,\"" + std::string(31, '1') + "23\",129";
    const std::string long_text = "+CPIN: " + std::string(40, 'x');
    const Case cases[] = {
        {pair.c_str(), {"sms 0 +31641600986 How are you?"}},
        {"+CMT: ,24", {}},
        {"+CMT: ,24\r\n", {}},
        // a call's fields, each state, each failure
        {"+CLCC: 1,0,0,0,0,\"+4930123\",145", {"call 1: 1 1 3 +4930123"}},
        {"+CLCC: 2,1,4,0,1", {"call 1: 2 2 2 "}},
        {"+CLCC: 1,0,1,0,0", {"call 1: 1 1 6 "}},
        {"+CLCC: 1,0,2,0,0", {"call 1: 1 1 1 "}},
        {"+CLCC: 1,0,3,0,0", {"call 1: 1 1 5 "}},
        {"+CLCC: 1,0,5,0,0", {"call 1: 1 1 7 "}},
        {"+CLCC: 1,0,6,0,0", {"call 1: 1 1 10 "}},
        {"+CLCC: 1,0,7,0,0", {"call 1: 1 1 8 "}},
        {"+CLCC: 1,0,8,0,0", {"call 1: 1 1 9 "}},
        {long_number.c_str(), {"call 1: 1 1 3 " + std::string(31, '1') + "2"}},
        {"+CLCC", {}, "at_tok_start failed\nhandler call info failed"},
        {"+CLCC: x", {}, "get h_vcall failed\nhandler call info failed"},
        {"+CLCC: 1,2,0,0,0", {}, "get h_vcall failed\nhandler call info failed"},
        {"+CLCC: 1,-1,0,0,0", {}, "get h_vcall failed\nhandler call info failed"},
        {"+CLCC: 1,0,9,0,0", {}, "get h_vcall failed\nhandler call info failed"},
        {"+CLCC: 1,0,-1,0,0", {}, "get h_vcall failed\nhandler call info failed"},
        {"+CLCC: 1,0,0,,0", {}, "get mode failed\nhandler call info failed"},
        {"+CLCC: 1,0,0,0,2", {}, "get is_mpty failed\nhandler call info failed"},
        // an eCall ends with the first call that ends behind a report of it
        {"+CALLDISCONNECT: 1,16", {"call 1: 1 0 9 "}},
        {"*ECALLDATA: 5,\"T5 expired\",1", {"ecall 5 T5 expired"}},
        {"*ECALLDATA: 7", {"ecall 7 (none)"}},
        {"*ECALLDATA: x,y", {"ecall 0 y"}},
        {"*ECALLDATA", {"ecall 0 (none)"}},
        {"+CALLDISCONNECT: 1,16", {"call 1: 1 0 9 ", "ecall -1 16"}},
        {"+CALLDISCONNECT: 1", {"call 1: 1 0 9 "}},
        {"*ECALLDATA: 1", {"ecall 1 (none)"}},
        {"+CALLDISCONNECT: 2", {"call 1: 2 0 9 ", "ecall -1 (none)"}},
        {"+CALLDISCONNECT:", {}, "get h_vcall failed\nhandler call info failed"},
        // a context that the application started goes down with another event
        {"+ZCONSTAT: 1,1", {"data 2: 1 0 1 -2147483648 -2147483648 ccinet0"}},
        {"+ZCONSTAT: 0,3,36,10", {"data 4: 3 2 0 36 10 ccinet2"}},
        {"+ZCONSTAT: 1,3", {"data 2: 3 2 1 -2147483648 -2147483648 ccinet2"}},
        {"+ZCONSTAT: 0,16", {"data 2: 16 15 0 -2147483648 -2147483648 ccinet15"}},
        {"+ZCONSTAT: 0,17", {"data 2: 17 -2147483648 0 -2147483648 -2147483648 ccinet16"}},
        {"+ZCONSTAT: +CGEV: ME PDN ACT 5,0", {"data 2: 5 4 1 -2147483648 -2147483648 ccinet4"}},
        {"+ZCONSTAT: NW PDN DEACT 3", {"data 4: 3 2 0 -2147483648 -2147483648 ccinet2"}},
        {"+ZCONSTAT: NW DEACT 1,6,0", {"data 2: 6 5 0 -2147483648 -2147483648 ccinet5"}},
        {"+ZCONSTAT: ME DEACT \"IP\",\"10.0.0.1\",7", {"data 2: 7 6 0 -2147483648 -2147483648 ccinet6"}},
        {"+ZCONSTAT: NW DEACT \"IP\"", {}, "handler data_call info failed"},
        {"+ZCONSTAT: NW DETACH", {}, "handler data_call info failed"},
        {"+ZCONSTAT: 2,1", {}, "handler data_call info failed"},
        {"+ZCONSTAT: 1,0", {}, "handler data_call info failed"},
        {"+ZCONSTAT: 1,256", {}, "handler data_call info failed"},
        {"+ZCONSTAT: 1", {}, "handler data_call info failed"},
        // registration
        {"+CREG: 1,\"1A2B\",\"01C4D5E6\",7", {"nw 1 17 1a2b 1c4d5e6"}},
        {"+CGREG: 5,\"FFFF\",\"FFFFFFFF\",2,\"0A\"", {"nw 5 22 ffff ffffffff"}},
        {"+CEREG: 3,,,,0,15", {"nw 3 3f 0 0"}},
        {"+CEREG: 0", {"nw 0 3f 0 0"}},
        {"+CREG: 1,\"10000\",\"xyz\",16", {"nw 1 1f 0 0"}},
        {"+CREG: 256", {}, "handler nw info failed"},
        {"+CREG", {}, "handler nw info failed"},
        // card
        {"+CPIN: READY", {"sim 6 64: 1 1 -2147483648 READY"}},
        {"+CPIN: SIM PUK2 ", {"sim 6 64: 3 1 -2147483648 SIM PUK2"}},
        {"+CPIN: SIM REMOVED", {"sim 6 64: 0 1 -2147483648 SIM REMOVED"}},
        {"+CPIN: PH-SIM PIN", {"sim 6 64: 6 1 -2147483648 PH-SIM PIN"}},
        {long_text.c_str(), {"sim 6 64: 6 1 -2147483648 " + std::string(31, 'x')}},
        {"+SIMCARD: 0", {"sim 6 64: 0 2 0 0"}},
        {"+SIMCARD: 1,x", {"sim 6 64: 6 2 1 1,x"}},
        {"+SIMCARD: x", {}, "handler simcard info failed"},
        {"+CPIN: ", {}, "handler simcard info failed"},
        // cells and signal
        {"+EEMLTESVC: 262,\"01\",1A2B,\"01C4D5E6\",1300,3,20,311,55,22,-4",
         {"cell 7 64: 4 262.1/2 1a2b 1c4d5e6 1300 b3 w20 p311 55 22 -4"}},
        {"+EEMUMTSSVC: 310,410,1,2,,65536,x,,-32769",
         {"cell 7 64: 3 310.410/3 1 2 4294967295 b65535 w255 p65535 -32768 -32768 -32768"}},
        {"+EEMGINFOSVC: 1,002,0,FFFFFFFF,4294967295,8,,63,0,7",
         {"cell 7 64: 2 1.2/3 0 ffffffff 4294967295 b8 w255 p63 0 7 -32768"}},
        {"+EEMGINFOSVC: 262,1,1,1", {}, "handler data_call info failed"},
        {"+EEMGINFOSVC: 262,1234,1,1", {}, "handler data_call info failed"},
        {"+EEMGINFOSVC: 262,01,1", {}, "handler data_call info failed"},
        {"+EEMGINFOSVC: ,01,1,1", {}, "handler data_call info failed"},
        {"+CESQ: 63,99,255,255,34,97", {"signal 32: 63 99 255 255 34 97"}},
        {"+CESQ: 63,99,255,255,34", {}, "handler data_call info failed"},
        {"+CESQ: 256,99,255,255,34,97", {}, "handler data_call info failed"},
        // the first kind that fits decides
        {"+CLCC: 1,0,0,0,0,\"+CREG: 1\"", {"call 1: 1 1 3 +CREG: 1"}},
        {"RING", {}},
    };
    for (const Case &c : cases) {
        int result = 0;
        const std::string log = logged([&] { result = on_at_indication_report(c.line); });
        const bool silent = !strncmp(c.line, "+CMT:", 5) && c.events.empty();
        EXPECT_EQ(result, *c.log || silent ? -1 : 0) << c.line;
        EXPECT_EQ(events(), c.events) << c.line;
        EXPECT_EQ(texts_of(log), c.log) << c.line;
        EXPECT_EQ(count(log, "handler"), count(log, "[sdklog err:on_at_indication_report:")) << log;
    }
    EXPECT_EQ(on_at_indication_report(nullptr), -1);
    g_idx_cid[2].cid = 0;
}

TEST_F(Parsers, chunks) {
    add_all();
    const std::string pdu = std::string(kPdu) + "\r\n", sms = "sms 0 +31641600986 How are you?";
    const std::string number(600, '7'); // a line is cut to 511 characters, as its number is to 32
    const struct {
        std::string chunk;
        Texts events;
        const char *log = "";
    } cases[] = {
        {"+CREG: 1\r\n", {"nw 1 1f 0 0"}},
        {"\r\n+CREG: 1\r\n\r\n\r\n+CREG: 2\r\n", {"nw 1 1f 0 0", "nw 2 1f 0 0"}},
        {"+CREG: 1\r\n+CREG: 2", {"nw 1 1f 0 0"}},
        {"+CREG: 1\r\n+CREG: 2\r", {"nw 1 1f 0 0"}},
        {"+CREG: 1", {}, "error format AT ind"},
        {"+CREG: 1\n", {}, "error format AT ind"},
        {"+CMT: ,24\r\n" + pdu, {sms}},
        {"+CREG: 1\r\n+CMT: ,24\r\n" + pdu + "+CREG: 2\r\n", {"nw 1 1f 0 0", sms, "nw 2 1f 0 0"}},
        {"+CMT: ,24\r\n", {}},
        {"+CMT: ,24\r\n" + pdu.substr(0, 20), {}},
        {"x+CMT: ,24\r\n" + pdu, {}}, // it does not start the line, so its PDU goes alone
        {"+CMT: ,24\r\n\r\n" + pdu, {}},
        {"+CLCC: 1,0,0,0,0,\"" + number + "\"\r\n", {"call 1: 1 1 3 " + number.substr(0, 32)}},
        {std::string("+CREG: 3\0,,9\r\n", 14), {"nw 3 1f 0 0"}},
    };
    for (const auto &c : cases) {
        // exactly as long as it is: a read behind it is seen by the sanitizer
        const std::vector<char> bytes(c.chunk.begin(), c.chunk.end());
        const std::string log = logged([&] { at_indication_data_handler(bytes.data(), int(bytes.size())); });
        EXPECT_EQ(events(), c.events) << c.chunk;
        EXPECT_EQ(texts_of(log), c.log) << c.chunk;
        EXPECT_EQ(count(log, "[sdklog err:at_indication_data_handler:"), *c.log ? 1u : 0u) << log;
    }
    at_indication_data_handler(nullptr, 1);
    at_indication_data_handler("+CREG: 1\r\n", 0);
    at_indication_data_handler("+CREG: 1\r\n", -1);
    EXPECT_EQ(events(), Texts());
}

} // namespace
