// The byte stream of the socket: cuts of the sender, cuts of the library, the end of the connection.
#include "indication/events.h"

#include <ctime>
#include <sched.h>

using namespace ind;

namespace {

class Channel : public Indication {
  protected:
    // Sends the pieces, each for a read of its own, and returns what became of them.
    Texts outcome(const Texts &pieces) {
        for (const std::string &piece : pieces)
            if (!piece.empty())
                server.answer(piece);
        server.answer("+CREG: 99\r\n");
        Texts seen = events("nw 99 1f 0 0");
        seen.pop_back();
        return seen;
    }
};

// What a cut takes away: a line that it goes through, because both pieces go by themselves; and a message in front of
// which a line feed is left over, because it no longer starts its line.
struct Line {
    std::string text, event;
    bool takes_next = false; // a cut inside its line end
};

const Line kLines[] = {
    {"+CREG: 1,\"1A2B\",\"01C4D5E6\",7", "nw 1 17 1a2b 1c4d5e6"},
    {"+CPIN: SIM PIN", "sim 6 64: 2 1 -2147483648 SIM PIN"},
    {"+CLCC: 2,1,4,0,0,\"+4930123\",145", "call 1: 2 2 2 +4930123"},
    {"+ZCONSTAT: 1,1", "data 2: 1 0 1 -2147483648 -2147483648 ccinet0", true},
    {"+CMT: ,24\r\n07911326040000F0040B911346610089F60000208062917314080CC8F71D14969741F977FD07",
     "sms 0 +31641600986 How are you?"},
    {"*ECALLDATA: 5,x", "ecall 5 x"},
    {"+EEMLTESVC: 262,01,1A,2B", "cell 7 64: 4 262.1/2 1a 2b 4294967295 b65535 w255 p65535 -32768 -32768 -32768"},
    {"+CESQ: 63,99,255,255,34,97", "signal 32: 63 99 255 255 34 97"},
    {"+CEREG: 5", "nw 5 3f 0 0"},
    {"+SIMCARD: 1", "sim 6 64: 6 2 1 1"},
};

TEST_F(Channel, ten_lines_cut_in_two_at_every_position) {
    add_all();
    std::string all;
    for (const Line &line : kLines)
        all += line.text + "\r\n";
    const size_t first_end = kLines[0].text.size() + 2;
    ASSERT_LT(all.size(), 512u);
    for (size_t cut = 0; cut <= all.size(); ++cut) {
        Texts kept;
        size_t start = 0;
        bool taken = false;
        for (const Line &line : kLines) {
            const size_t end = start + line.text.size() + 2;
            const bool through = start < cut && cut < end;
            if (!through && !taken)
                kept.push_back(line.event);
            taken = cut == end - 1 && line.takes_next;
            start = end;
        }
        Texts seen;
        const std::string log = logged([&] { seen = outcome({all.substr(0, cut), all.substr(cut)}); });
        EXPECT_EQ(seen, kept) << "cut at " << cut;
        const bool piece_without_end = (cut > 0 && cut < first_end) || cut == all.size() - 1;
        EXPECT_EQ(count(log, "error format AT ind"), piece_without_end ? 1u : 0u) << "cut at " << cut << log;
    }

    Texts bytes;
    for (const char byte : all)
        bytes.emplace_back(1, byte);
    Texts seen;
    const std::string log = logged([&] { seen = outcome(bytes); });
    EXPECT_EQ(seen, Texts());
    EXPECT_EQ(count(log, "error format AT ind"), all.size());
}

// A burst in one write, longer than a read: every line arrives, wherever the reads of 512 bytes cut it.
TEST_F(Channel, burst_in_one_write) {
    add_all();
    const std::string message = kLines[4].text + "\r\n";
    for (size_t filling = 0; filling <= message.size() + 2; ++filling) {
        std::string burst = "+CEER: " + std::string(filling, 'x') + "\r\n";
        Texts expected;
        for (int i = 0; i < 60; ++i) {
            burst += "+CLCC: " + std::to_string(i) + ",0,0,0,0\r\n" + message;
            expected.push_back("call 1: " + std::to_string(i) + " 1 3 ");
            expected.push_back(kLines[4].event);
        }
        std::string log;
        Texts seen;
        log = logged([&] { seen = outcome({burst}); });
        ASSERT_EQ(seen, expected) << "behind " << filling;
        ASSERT_EQ(log.find("error format"), std::string::npos) << log;
    }
}

// Reader, slow callbacks and sender on one core, bursts of many reads: all arrives, in order.
TEST_F(Channel, slow_callback_on_one_core) {
    cpu_set_t before, one;
    ASSERT_EQ(sched_getaffinity(0, sizeof before, &before), 0);
    CPU_ZERO(&one);
    for (int cpu = 0; !CPU_COUNT(&one); ++cpu)
        if (CPU_ISSET(cpu, &before))
            CPU_SET(cpu, &one);
    sched_setaffinity(0, sizeof one, &one); // and with it for the reader that starts now
    add_all();
    g_inside = [calls = 0](const std::string &) mutable {
        if (++calls % 2)
            usleep(1000);
        else
            for (const clock_t end = clock() + CLOCKS_PER_SEC / 2000; clock() < end;)
                continue;
    };
    Texts bursts, expected;
    for (int i = 0; i < 600; ++i) {
        if (i % 200 == 0)
            bursts.emplace_back();
        bursts.back() += "\r\n+CLCC: " + std::to_string(i) + ",0,0,0,0\r\n";
        expected.push_back("call 1: " + std::to_string(i) + " 1 3 ");
    }
    for (const std::string &burst : bursts)
        EXPECT_EQ(send(server.client(), burst.data(), burst.size(), MSG_NOSIGNAL), ssize_t(burst.size()));
    EXPECT_GT(bursts[0].size(), 4096u);
    EXPECT_EQ(events(expected.back()), expected);
    sched_setaffinity(0, sizeof before, &before);
}

// What is left of a full read waits for the next one, however short, and is never given up for good.
TEST_F(Channel, rest_of_a_full_read) {
    add_all();
    const std::string full = std::string(501, 'x') + "\r\n+CREG: 1,", // 512 bytes and the start of a line
        line_end = std::string(510, 'x') + "\r\n", endless(512, 'x'), rest = "\"1A2B\",\"2\"\r\n";
    const struct {
        Texts pieces, events;
        size_t errors;
    } cases[] = {
        {{full.substr(0, 512), rest}, {"nw 1 1f 1a2b 2"}, 0},
        {{full.substr(0, 512), "\"1A", "2B\",\"2\"\r\n"}, {}, 1}, // the second cut is the sender's
        {{line_end, "+CREG: 2\r\n"}, {"nw 2 1f 0 0"}, 0},
        {{endless, "+CREG: 2\r\n"}, {"nw 2 1f 0 0"}, 1},
        {{endless + endless, "+CREG: 2\r\n"}, {"nw 2 1f 0 0"}, 2},
        {{endless + "\r\n+CREG: 2\r\n"}, {"nw 2 1f 0 0"}, 1},
        {{"+CMT: " + endless + "\r\n" + endless}, {}, 2},
        // a line of more than a read, behind the rest of another
        {{full.substr(0, 512) + "\"" + std::string(500, '0') + "3\",\"4\"\r\n+CREG: 2\r\n"},
         {"nw 1 1f 3 0", "nw 2 1f 0 0"},
         0},
    };
    for (const auto &c : cases) {
        Texts seen;
        const std::string log = logged([&] { seen = outcome(c.pieces); });
        EXPECT_EQ(seen, c.events) << c.pieces[0];
        EXPECT_EQ(count(log, "error format AT ind"), c.errors) << c.pieces[0];
    }
}

TEST_F(Channel, closed_by_the_server) {
    add_all();
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_CONNECTED);
    timespec before, after;
    const std::string log = logged([&] {
        server.answer("+CREG: 1\r\n");
        server.hang_up();
        EXPECT_EQ(events("nw 1 1f 0 0"), Texts{"nw 1 1f 0 0"});
        for (int ms = 0; ms < 20000 && Tavrik_Indication_State() == TAVRIK_INDICATION_CONNECTED; ++ms)
            usleep(1000);
        EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_LOST);
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
        usleep(500000);
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
    });
    EXPECT_LT((after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000, 20);
    EXPECT_EQ(count(log, "[sdklog err:read_burst:"), 1u) << log;
    EXPECT_EQ(count(log, "indication connection lost, errno 0\n"), 1u) << log;

    EXPECT_EQ(add(TAVRIK_IND_SIM), 0); // the thread runs
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_LOST);
    tavrik_indication_deregister();
    add_all();
    EXPECT_EQ(outcome({"+CPIN: READY\r\n"}), Texts{"sim 6 64: 1 1 -2147483648 READY"});
}

} // namespace
