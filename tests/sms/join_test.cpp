// Tavrik_SMS_Join: parts in any order, between others, lost and twice.
#include "sms/sms_test.h"

#include <algorithm>
#include <atomic>
#include <ctime>
#include <sys/syscall.h>
#include <thread>

static std::atomic<int64_t> g_seconds_ahead{0};

// The library's clock, so that an hour passes in no time.
extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept {
    const int result = int(syscall(SYS_clock_gettime, clock, now));
    if (clock == CLOCK_BOOTTIME)
        now->tv_sec += g_seconds_ahead;
    return result;
}

namespace {

// The joined text, "..." while parts are missing, "refused".
std::string join(const Tavrik_SmsDetail &detail) {
    char *text;
    int32_t length = -1;
    const int result = Tavrik_SMS_Join(&detail, &text, &length);
    EXPECT_EQ(result == 1, text != nullptr);
    const std::string whole = text ? std::string(text, size_t(length)) : result ? "refused" : "...";
    free(text);
    return whole;
}

// "SENDER REFERENCE SEQUENCE/TOTAL TEXT"; or "+SECONDS" that pass. "<" and ">" stand for halves of a pair.
std::string step(const std::string &line) {
    if (line[0] == '+') {
        g_seconds_ahead += std::stoi(line);
        return "";
    }
    Tavrik_SmsDetail part = nothing();
    int end = 0;
    sscanf(line.c_str(), "%63s %d %d/%d%n", part.number, &part.reference, &part.sequence, &part.total, &end);
    std::string text = line.substr(size_t(end) + 1);
    for (const auto &[mark, half, value] : {std::tuple("<", &part.first_half, 0xDE00), {">", &part.last_half, 0xD83D}})
        if (const size_t at = text.find(mark); at != text.npos) {
            text.erase(at, 1);
            *half = uint16_t(value);
        }
    part.length = int32_t(text.copy(part.text, sizeof part.text));
    return join(part);
}

TEST(Join, Steps) {
    check(step,
          {"A -1 0/0 alone=alone", "A 7 1/1 one=one", "A 7 0/2 zero=zero", "A 7 3/2 beyond=beyond", "A 7 0/0 =",
           // Twice counts once, and then it is another message.
           "A 7 1/2 old =...", "A 7 1/2 new =...", "A 7 2/2 end=new end", "A 7 2/2 end=...", "A 7 1/2 again =again end",
           // They wait for an hour since the last one.
           "A 7 1/3 old =...", "+3590=", "A 7 2/3 middle =...", "+3590=", "A 7 3/3 end=old middle end",
           "A 7 1/2 old =...", "+3610=", "A 7 2/2 end=...", "A 7 1/2 new =new end",
           // Pairs across the cut, halves of none, and such as the text does not have room for.
           "A 7 2/3 <\uFFFD\uFFFD>=...", "A 7 3/3 <\uFFFD!=...", "A 7 1/3 ä€\uFFFD>=ä€😀😀!", "A 7 1/3 \uFFFD>=...",
           "A 7 2/3 A=...", "A 7 3/3 <\uFFFD=\uFFFDA\uFFFD", "A 7 1/2 >=...", "A 7 2/2 <x=x", "A 7 1/2 \uFFFD>=...",
           "A 7 2/2 <x=\uFFFDx"});
    EXPECT_EQ(step("A 7 0/0 \0\1"s), "\0\1"s);
}

TEST(Join, AnyOrderBetweenOthers) {
    std::string order = "1234";
    do {
        for (int i = 0; i < 4; ++i) {
            const std::string part = {order[size_t(i)], '/', '4', ' ', order[size_t(i)]};
            for (const std::string set : {"A 7 ", "A 8 ", "B 7 "}) // another reference, another sender
                EXPECT_EQ(step(set + part), i == 3 ? "1234" : "...");
            EXPECT_EQ(step("A 7 "s + part[0] + "/5 another total"), "...");
        }
        step("+7210");
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(Join, LongestWaitingGivesWay) {
    for (int i = 0; i < 32; ++i)
        check(step, {"A " + std::to_string(i) + " 1/3 a=...", "+1="});
    check(step, {"A 0 2/3 b=...", "+1=",
                 // 1 has waited longest now.
                 "A 99 1/2 a=...", "A 99 2/2 b=ab", "A 0 3/3 c=abc", "A 2 2/3 b=...", "A 2 3/3 c=abc", "A 1 2/3 b=...",
                 "A 1 3/3 c=...", "+7210="});
}

TEST(Join, Refused) {
    check(step, {"A 7 1/256 x=refused", "A 7 1/1 " + std::string(512, 'x') + "=refused"});
    Tavrik_SmsDetail small = nothing(), negative = small, unterminated = small;
    --small.size;
    negative.length = -1;
    memset(unterminated.number, '1', sizeof unterminated.number);
    for (const Tavrik_SmsDetail &bad : {small, negative, unterminated})
        EXPECT_EQ(join(bad), "refused");
    char *text = nullptr;
    EXPECT_EQ(outcome([&] { return Tavrik_SMS_Join(nullptr, &text, nullptr); }),
              "-1 Tavrik_SMS_Join: Parameter input error\n");
    const Tavrik_SmsDetail good = nothing();
    EXPECT_EQ(Tavrik_SMS_Join(&good, nullptr, nullptr), -1);
    EXPECT_EQ(Tavrik_SMS_Join(&good, &text, nullptr), 1); // the length is not asked for
    free(text);
}

TEST(Join, FromThreads) {
    std::vector<std::thread> threads;
    for (const std::string name : {"A", "B", "C", "D"})
        threads.emplace_back([name] {
            for (int round = 0; round < 500; ++round)
                check(step, {name + " 7 1/2 a=...", name + " 7 2/2 b=ab"});
        });
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace
