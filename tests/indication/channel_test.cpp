// What lines become, and the byte stream that they come in: cuts of the sender, cuts of the library, its end.
#include "indication/events.h"

#include <ctime>
#include <sched.h>

using namespace ind;

namespace {

class Channel : public Indication {
  protected:
    // Sends the pieces, each for a read of its own, and compares what becomes of them, and how many have no line end.
    void expect(const Texts &pieces, const Texts &expected, size_t errors) {
        Texts seen;
        const std::string log = sim::log_of([&] {
            for (const std::string &piece : pieces)
                if (!piece.empty())
                    server.answer(piece);
            server.answer("+CREG: 99\r\n");
            seen = events("nw99");
        });
        seen.pop_back();
        EXPECT_EQ(seen, expected);
        EXPECT_EQ(count(log, "error format AT ind"), errors) << log;
    }
};

struct Line {
    std::string text;
    Texts events;
};

const std::string kDigits(33, '1');
const Line kLines[] = {
    {"+CREG: 1,\"1A2B\",\"01C4D5E6\",7", {"nw1 17 1a2b 1c4d5e6"}},
    {"+CPIN: SIM PIN", {"sim2 6 64 1 -2147483648 SIM PIN"}},
    {"+CLCC: 2,1,4,0,1,\"+4930123\",145", {"call1 2 2 2 +4930123"}},
    {"+ZCONSTAT: 1,1", {"data 2: 1 0 1 -2147483648 -2147483648 ccinet0"}},
    {"+CMT: ,24\r\n07911326040000F0040B911346610089F60000208062917314080CC8F71D14969741F977FD07",
     {"sms 0 +31641600986 How are you?"}},
    {"*ECALLDATA: 5,x", {"ecall 5 x"}},
    {"+EEMLTESVC: 262,01,1A,2B", {"cell 7 64: 4 262.1/2 1a 2b 4294967295 b65535 w255 p65535 -32768 -32768 -32768"}},
    {"+CESQ: 63,99,255,255,34,97", {"signal 32: 63 99 255 255 34 97"}},
    {"+CEREG: 5", {"nw5 3f 0 0"}},
    {"+SIMCARD: 1", {"sim6 6 64 2 1 1"}},
    // those above, and some that tell more; an eCall ends with the first call that ends behind a report of it
    {"+CALLDISCONNECT: 1,16", {"call1 1 0 9 ", "ecall -1 16"}},
    {"+CALLDISCONNECT: 1", {"call1 1 0 9 "}},
    {"RING", {}},
    // the first kind that fits decides
    {"+CLCC: 1,0,0,0,0,\"+CREG: 1\",145", {"call1 1 1 3 +CREG: 1"}},
    {"+CLCC: 1,0,0,0,0,\"" + kDigits + "\",129", {"call1 1 1 3 " + kDigits.substr(1)}},
    {"*ECALLDATA: 5,\"T5 expired\",1", {"ecall 5 T5 expired"}},
    {"*ECALLDATA: x,y", {"ecall 0 y"}},
    {"*ECALLDATA", {"ecall 0 (none)"}},
    {"*ECALLDATA: 1", {"ecall 1 (none)"}},
    {"+CALLDISCONNECT: 2", {"call1 2 0 9 ", "ecall -1 (none)"}},
    // a context that the application started goes down with another event
    {"+ZCONSTAT: 0,3,36,10", {"data 4: 3 2 0 36 10 ccinet2"}},
    {"+ZCONSTAT: 0,16", {"data 2: 16 15 0 -2147483648 -2147483648 ccinet15"}},
    {"+ZCONSTAT: 0,17", {"data 2: 17 -2147483648 0 -2147483648 -2147483648 ccinet16"}},
    {"+ZCONSTAT: +CGEV: ME PDN ACT 5,0", {"data 2: 5 4 1 -2147483648 -2147483648 ccinet4"}},
    {"+ZCONSTAT: NW PDN DEACT 3", {"data 4: 3 2 0 -2147483648 -2147483648 ccinet2"}},
    {"+ZCONSTAT: NW DEACT 1,6,0", {"data 2: 6 5 0 -2147483648 -2147483648 ccinet5"}},
    {"+ZCONSTAT: ME DEACT \"IP\",\"10.0.0.1\",7", {"data 2: 7 6 0 -2147483648 -2147483648 ccinet6"}},
    {"+CGREG: 5,\"FFFF\",\"FFFFFFFF\",2,\"0A\"", {"nw5 22 ffff ffffffff"}},
    {"+CEREG: 3,,,,0,15", {"nw3 3f 0 0"}},
    {"+CREG: 1,\"10000\",\"xyz\",16", {"nw1 1f 0 0"}},
    {"+CPIN: SIM PUK2 ", {"sim3 6 64 1 -2147483648 SIM PUK2"}},
    {"+CPIN: SIM REMOVED", {"sim0 6 64 1 -2147483648 SIM REMOVED"}},
    {"+CPIN: " + kDigits, {"sim6 6 64 1 -2147483648 " + kDigits.substr(2)}},
    {"+SIMCARD: 0", {"sim0 6 64 2 0 0"}},
    {"+SIMCARD: 1,x", {"sim6 6 64 2 1 1,x"}},
    {"+EEMLTESVC: 262,\"01\",1A2B,\"01C4D5E6\",1300,3,20,311,55,22,-4",
     {"cell 7 64: 4 262.1/2 1a2b 1c4d5e6 1300 b3 w20 p311 55 22 -4"}},
    {"+EEMUMTSSVC: 310,410,1,2,,65536,x,,-32769",
     {"cell 7 64: 3 310.410/3 1 2 4294967295 b65535 w255 p65535 -32768 -32768 -32768"}},
    {"+EEMGINFOSVC: 1,002,0,FFFFFFFF,4294967295,8,,63,0,7",
     {"cell 7 64: 2 1.2/3 0 ffffffff 4294967295 b8 w255 p63 0 7 -32768"}},
};
const Line &kMessage = kLines[4];

TEST_F(Channel, lines) {
    const std::string call = "on_voice_call_info_changed: ", failed = "on_at_indication_report: ",
                      call_failed = failed + "handler call info failed\n";
    const std::pair<std::string, Texts> failures[] = {
        {"", {"+CMT: ,24", "+CMT: ,24\r\n"}},
        {call + "at_tok_start failed\n" + call_failed, {"+CLCC"}},
        {call + "get h_vcall failed\n" + call_failed,
         {"+CLCC: x", "+CLCC: 1,2,0,0,0", "+CLCC: 1,-1,0,0,0", "+CLCC: 1,0,9,0,0", "+CLCC: 1,0,-1,0,0",
          "+CALLDISCONNECT:"}},
        {call + "get mode failed\n" + call_failed, {"+CLCC: 1,0,0,,0"}},
        {call + "get is_mpty failed\n" + call_failed, {"+CLCC: 1,0,0,0,2"}},
        {failed + "handler data_call info failed\n",
         {"+ZCONSTAT: NW DEACT \"IP\"", "+ZCONSTAT: NW DETACH", "+ZCONSTAT: 2,1", "+ZCONSTAT: 1,0", "+ZCONSTAT: 1,256",
          "+ZCONSTAT: 1", "+EEMGINFOSVC: 262,1,1,1", "+EEMGINFOSVC: 262,1234,1,1", "+EEMGINFOSVC: 262,01,1",
          "+EEMGINFOSVC: ,01,1,1", "+CESQ: 63,99,255,255,34", "+CESQ: 256,99,255,255,34,97"}},
        {failed + "handler nw info failed\n", {"+CREG: 256", "+CREG"}},
        {failed + "handler simcard info failed\n", {"+SIMCARD: x", "+CPIN: "}},
    };
    on_at_indication_report("+CALLDISCONNECT: 1"); // whatever came before
    add_all();
    g_idx_cid[2].cid = 3;
    int stat = 0;
    const auto check = [](const std::string &line, int result, const std::string &log, const Texts &expected) {
        EXPECT_EQ(sim::log_of([&] { EXPECT_EQ(on_at_indication_report(line.c_str()), result); }), log) << line;
        EXPECT_EQ(events(), expected) << line;
    };
    for (const Line &line : kLines)
        check(line.text, 0, "", line.events);
    for (const int state : {3, 6, 1, 5, 2, 7, 10, 8, 9})
        check("+CLCC: 1,0," + std::to_string(stat++) + ",0,0", 0, "", {"call1 1 1 " + std::to_string(state) + " "});
    for (const auto &[log, lines] : failures)
        for (const std::string &line : lines)
            check(line, -1, log, {});
    EXPECT_EQ(on_at_indication_report(nullptr), -1);
    g_idx_cid[2].cid = 0;
}

// A cut takes away the line that it goes through, because both pieces go by themselves; and a message in front of which
// the line feed of the line before is left over, because it no longer starts its line.
TEST_F(Channel, ten_lines_cut_in_two_at_every_position) {
    const std::vector<Line> ten(kLines, kLines + 10);
    add_all();
    std::string all;
    for (const Line &line : ten)
        all += line.text + "\r\n";
    for (size_t cut = 0; cut <= all.size(); ++cut) {
        SCOPED_TRACE(cut);
        Texts kept;
        size_t start = 0;
        for (const Line &line : ten) {
            const size_t end = start + line.text.size() + 2;
            if ((cut <= start || cut >= end) && (cut != start - 1 || line.text != kMessage.text))
                kept.push_back(line.events[0]);
            start = end;
        }
        const bool piece_without_end = (cut && cut < kLines[0].text.size() + 2) || cut == all.size() - 1;
        expect({all.substr(0, cut), all.substr(cut)}, kept, piece_without_end);
    }
    Texts bytes;
    for (const char byte : all)
        bytes.emplace_back(1, byte);
    expect(bytes, {}, all.size());
}

// Reader, slow callbacks and sender on one core; bursts much longer than a read, which cuts them anywhere: every line
// arrives, in order.
TEST_F(Channel, bursts) {
    cpu_set_t before, one;
    ASSERT_EQ(sched_getaffinity(0, sizeof before, &before), 0);
    CPU_ZERO(&one);
    for (int cpu = 0; !CPU_COUNT(&one); ++cpu)
        if (CPU_ISSET(cpu, &before))
            CPU_SET(cpu, &one);
    sched_setaffinity(0, sizeof one, &one); // and with it for the reader that starts now
    add_all();
    g_inside = [calls = 0](const std::string &) mutable {
        if (++calls % 50 == 0)
            usleep(1000);
        else if (calls % 50 == 25)
            for (const clock_t end = clock() + CLOCKS_PER_SEC / 1000; clock() < end;)
                continue;
    };
    for (size_t filling = 0; filling <= kMessage.text.size() + 4; ++filling) {
        std::string burst = "+CEER: " + std::string(filling, 'x') + "\r\n";
        Texts expected;
        for (int i = 0; i < 60; ++i) {
            burst += "+CLCC: " + std::to_string(i) + ",0,0,0,0\r\n" + kMessage.text + "\r\n";
            expected.push_back("call1 " + std::to_string(i) + " 1 3 ");
            expected.push_back(kMessage.events[0]);
        }
        expect({burst}, expected, 0);
    }
    sched_setaffinity(0, sizeof before, &before);
}

// What is left of a full read waits for the next one, however short, and is never given up for good.
TEST_F(Channel, chunks) {
    const std::string pair = kMessage.text + "\r\n", sms = kMessage.events[0];
    const std::string full = std::string(501, 'x') + "\r\n+CREG: 1,", // 512 bytes
        endless(512, 'x'), rest = "\"1A2B\",\"2\"\r\n";
    const struct {
        Texts pieces, events;
        size_t errors = 0;
    } cases[] = {
        {{"\r\n+CREG: 1\r\n\r\n\r\n+CREG: 2\r\n"}, {"nw1 1f 0 0", "nw2 1f 0 0"}},
        {{"+CREG: 1\r\n+CREG: 2\r"}, {"nw1 1f 0 0"}},
        {{"+CREG: 1\r\n" + pair + "+CREG: 2\r\n"}, {"nw1 1f 0 0", sms, "nw2 1f 0 0"}},
        {{"x" + pair}, {}}, // it does not start the line, so its PDU goes alone
        {{"+CMT: ,24\r\n\r\n" + pair.substr(11)}, {}},
        {{std::string("+CREG: 3\0,,9\r\n", 14)}, {"nw3 1f 0 0"}},
        {{full, rest}, {"nw1 1f 1a2b 2"}},
        {{full, "\"1A", "2B\",\"2\"\r\n"}, {}, 1}, // the second cut is the sender's
        {{endless.substr(2) + "\r\n", "+CREG: 2\r\n"}, {"nw2 1f 0 0"}},
        {{endless, "+CREG: 2\r\n"}, {"nw2 1f 0 0"}, 1},
        {{endless + endless, "+CREG: 2\r\n"}, {"nw2 1f 0 0"}, 2},
        {{endless + "\r\n+CREG: 2\r\n"}, {"nw2 1f 0 0"}, 1},
        {{"+CMT: " + endless + "\r\n" + endless}, {}, 2},
        // a line of more than a read, behind the rest of another, is cut to 511 characters
        {{full + "\"" + std::string(500, '0') + "3\",\"4\"\r\n+CREG: 2\r\n"}, {"nw1 1f 3 0", "nw2 1f 0 0"}},
    };
    add_all();
    for (const auto &c : cases)
        expect(c.pieces, c.events, c.errors);
    EXPECT_EQ(sim::log_of([] {
                  at_indication_data_handler(nullptr, 1);
                  at_indication_data_handler("+CREG: 1\r\n", 0);
                  at_indication_data_handler("+CREG: 1\r\n", -1);
                  at_indication_data_handler("+CREG: 1\n", 9);
              }),
              "at_indication_data_handler: error format AT ind\n");
    EXPECT_EQ(names(), "");
}

TEST_F(Channel, closed_by_the_server) {
    add_all();
    timespec before, after;
    const std::string log = sim::log_of([&] {
        server.answer("+CREG: 1\r\n");
        server.hang_up();
        EXPECT_EQ(events("nw1"), Texts{"nw1 1f 0 0"});
        for (int ms = 0; ms < 20000 && Tavrik_Indication_State() == TAVRIK_INDICATION_CONNECTED; ++ms)
            usleep(1000);
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
        usleep(500000);
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
    });
    EXPECT_LT((after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000, 20);
    EXPECT_EQ(log, "read_burst: indication connection lost, errno 0\n");
    EXPECT_EQ(add(TAVRIK_IND_SIM), 0); // the thread runs
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_LOST);
    tavrik_indication_deregister();
    add_all();
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_CONNECTED);
    expect({"+CPIN: READY\r\n"}, {"sim1 6 64 1 -2147483648 READY"}, 0);
}

} // namespace
