#include "sms/sms_test.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {
std::atomic<int64_t> g_seconds_ahead{0};
}

// The library's clock, so that an hour passes in no time.
extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept {
    const int result = int(syscall(SYS_clock_gettime, clock, now));
    if (clock == CLOCK_BOOTTIME)
        now->tv_sec += g_seconds_ahead;
    return result;
}

namespace {

using Octets = std::vector<uint8_t>;
using namespace std::string_literals;

// 7-bit text behind the given header elements.
std::string packed(const Octets &elements, const Octets &septets) {
    Octets header = {uint8_t(elements.size())};
    for (const uint8_t octet : elements)
        header.push_back(octet);
    return hex(septet_length(header, septets)) + to_hex(pack_septets(header, septets));
}

Tavrik_SmsDetail decoded(const std::string &pdu) {
    Tavrik_SmsDetail detail;
    memset(&detail, 0x55, sizeof detail);
    detail.size = sizeof detail;
    EXPECT_EQ(Tavrik_SMS_Decode(pdu.c_str(), &detail), 0) << pdu;
    return detail;
}

std::string text_of(const Tavrik_SmsDetail &detail) {
    EXPECT_EQ(detail.text[detail.length], 0);
    return {detail.text, size_t(detail.length)};
}

TEST(Decode, Generated) {
    const char *wanted = getenv("TAVRIK_PDU_COUNT"), *seed = getenv("TAVRIK_PDU_SEED");
    PduGenerator generator(seed ? strtoull(seed, nullptr, 0) : 21);
    for (int i = wanted ? atoi(wanted) : 2000; i > 0 && !HasFailure(); --i) {
        const GeneratedPdu made = generator.next();
        SCOPED_TRACE(made.pdu);
        const Tavrik_SmsDetail detail = decoded(made.pdu);
        EXPECT_EQ(detail.type, made.report ? TAVRIK_SMS_REPORT : TAVRIK_SMS_DELIVER);
        EXPECT_EQ(detail.number, made.full_number);
        EXPECT_EQ(text_of(detail), made.full_text);
        EXPECT_EQ(detail.time, made.time);
        EXPECT_EQ(detail.zone, made.zone);
        EXPECT_EQ(detail.encoding, made.encoding);
        EXPECT_EQ(detail.message_class, made.message_class);
        EXPECT_EQ(detail.protocol, made.report ? -1 : made.protocol);
        EXPECT_EQ(detail.source_port, made.source_port);
        EXPECT_EQ(detail.destination_port, made.destination_port);
        EXPECT_EQ(detail.reference, made.reference);
        EXPECT_EQ(detail.sequence, made.concat_seq);
        EXPECT_EQ(detail.total, made.concat_total);
        EXPECT_EQ(detail.message_reference, made.message_reference);
        EXPECT_EQ(detail.status, made.status);
        EXPECT_EQ(detail.discharge_time, made.report ? made.discharge_time : TAVRIK_SMS_NO_TIME);
        EXPECT_EQ(detail.discharge_zone, made.discharge_zone);

        // No shorter one is whole, and a refused one changes nothing.
        if (i % 20)
            continue;
        Tavrik_SmsDetail untouched = detail;
        const std::string cut = made.pdu.substr(0, size_t(i) % made.pdu.size());
        EXPECT_EQ(Tavrik_SMS_Decode(cut.c_str(), &untouched), -1) << cut;
        EXPECT_EQ(memcmp(&untouched, &detail, sizeof detail), 0);
    }
}

TEST(Decode, Refused) {
    Tavrik_SmsDetail detail = {};
    const std::string good = deliver(0, "0141"), log = "Tavrik_SMS_Decode: ";
    const std::string broken = log + "not a whole SMS-DELIVER or SMS-STATUS-REPORT\n";
    EXPECT_EQ(logged([&] { EXPECT_EQ(Tavrik_SMS_Decode(good.c_str(), &detail), -1); }),
              log + "Parameter input error\n");
    detail.size = sizeof detail - 1;
    EXPECT_EQ(Tavrik_SMS_Decode(good.c_str(), &detail), -1);
    detail.size = sizeof detail;
    EXPECT_EQ(Tavrik_SMS_Decode(nullptr, &detail), -1);
    EXPECT_EQ(Tavrik_SMS_Decode(good.c_str(), nullptr), -1);
    const std::string cases[] = {
        "",
        good + "4",
        good + "\r\n",
        "x" + good.substr(1),
        kCentre + "11" + good.substr(18),                        // SMS-SUBMIT
        deliver(0, "0141", false, "159121436587092143658709F1"), // 21 digits
        deliver(0, "A1" + std::string(282, '0')),                // 161 septets
        deliver(8, "8D" + std::string(282, '0')),                // 141 octets
        deliver(8, "0102", true),                                // a header beyond the text
        deliver(8, "00", true),
        deliver(0, "0141") + std::string(512, '0'),
    };
    for (const std::string &pdu : cases)
        EXPECT_EQ(logged([&] { EXPECT_EQ(Tavrik_SMS_Decode(pdu.c_str(), &detail), -1) << pdu; }), broken);
    EXPECT_EQ(detail.type, 0);
    detail.size = sizeof detail + 100; // of a later version
    EXPECT_EQ(Tavrik_SMS_Decode(good.c_str(), &detail), 0);
    EXPECT_EQ(detail.size, sizeof detail + 100);
    EXPECT_EQ(decoded("00" + good.substr(16)).length, 1); // no centre
    EXPECT_EQ(decoded(good + "00FF").length, 1);          // more behind it
}

TEST(Decode, Coding) {
    const struct {
        int coding, encoding, message_class;
    } cases[] = {{0x00, 0, -1}, {0x04, 1, -1}, {0x08, 2, -1}, {0x0C, 0, -1}, {0x13, 0, 3},
                 {0x03, 0, -1}, {0x20, 1, -1}, {0x38, 1, 0},  {0x40, 0, -1}, {0x48, 2, -1},
                 {0x80, 0, -1}, {0xB8, 0, -1}, {0xC8, 0, -1}, {0xDC, 0, -1}, {0xE0, 2, -1},
                 {0xE9, 2, -1}, {0xF0, 0, 0},  {0xFB, 0, 3},  {0xF6, 1, 2}};
    for (const auto &expected : cases) {
        const Tavrik_SmsDetail detail = decoded(deliver(expected.coding, "020041"));
        EXPECT_EQ(detail.encoding, expected.encoding) << std::hex << expected.coding;
        EXPECT_EQ(detail.message_class, expected.message_class) << std::hex << expected.coding;
        EXPECT_EQ(text_of(detail), expected.encoding == 2 ? "A"s : expected.encoding == 1 ? "\0A"s : "@$");
    }
}

TEST(Decode, Senders) {
    const struct {
        const char *address, *number;
    } cases[] = {{"04912143", "+1234"}, {"05812143F5", "12345"}, {"06A1BADCFE", "*#abc"},
                 {"00D0", ""},          {"0091", "+"},           {"0291F1", "+1"}};
    for (const auto &expected : cases)
        EXPECT_STREQ(decoded(deliver(0, "0141", false, expected.address)).number, expected.number);
    for (const std::string name : {"A", "Netz", "SEVEN77", "EIGHT888", "ELEVEN CHAR"}) {
        const int digits = int(name.size() * 7 + 3) / 4;
        const std::string address = hex(digits) + "D0" + to_hex(pack_septets({}, {name.begin(), name.end()}));
        EXPECT_EQ(decoded(deliver(0, "0141", false, address)).number, name);
    }
}

TEST(Decode, Times) {
    const struct {
        const char *stamp;
        int64_t time;
        int zone;
    } cases[] = {
        {"00101000000000", 946684800, 0},     // 2000-01-01
        {"00209221436580", 951820496, 120},   // 2000-02-29 12:34:56 +2:00
        {"99211332959500", 4102444799, 0},    // 2099-12-31 23:59:59
        {"4290424180034A", 1727208510, -360}, // 2024-09-24 14:08:30 -6:00
        {"42004241800300", TAVRIK_SMS_NO_TIME, 0}, {"42314241800300", TAVRIK_SMS_NO_TIME, 0},
        {"42900041800300", TAVRIK_SMS_NO_TIME, 0}, {"42902341800300", TAVRIK_SMS_NO_TIME, 0},
        {"42904242800300", TAVRIK_SMS_NO_TIME, 0}, {"42904241060300", TAVRIK_SMS_NO_TIME, 0},
        {"42904241800600", TAVRIK_SMS_NO_TIME, 0}, {"429042418003F0", TAVRIK_SMS_NO_TIME, 0},
        {"4A904241800300", TAVRIK_SMS_NO_TIME, 0}, {"FFFFFFFFFFFFFF", TAVRIK_SMS_NO_TIME, 0},
    };
    for (const auto &expected : cases) {
        const Tavrik_SmsDetail detail = decoded(kCentre + "04" + kSender + "0000" + expected.stamp + "00");
        EXPECT_EQ(detail.time, expected.time) << expected.stamp;
        EXPECT_EQ(detail.zone, expected.zone) << expected.stamp;
    }
}

TEST(Decode, Headers) {
    const struct {
        const char *elements;
        int reference, sequence, total, destination, source;
    } cases[] = {
        {"00032A0201", 42, 1, 2, -1, -1},
        {"0804ABCD0303", 0xABCD, 3, 3, -1, -1},
        {"000301020200032A0201", 42, 1, 2, -1, -1},
        {"00032A0200", -1, 0, 0, -1, -1},
        {"00032A0203", -1, 0, 0, -1, -1},
        {"00032A0000", -1, 0, 0, -1, -1},
        {"00022A02", -1, 0, 0, -1, -1},
        {"08032A0201", -1, 0, 0, -1, -1},
        {"050415B3C351", -1, 0, 0, 0x15B3, 0xC351},
        {"0402F0F1", -1, 0, 0, 0xF0, 0xF1},
        {"7F0000032A02010402F0F1", 42, 1, 2, 0xF0, 0xF1},
        {"00032A02010402F0", -1, 0, 0, -1, -1}, // does not fill it: none of it counts
        {"00032A020104", -1, 0, 0, -1, -1},
        {"", -1, 0, 0, -1, -1},
    };
    for (const auto &expected : cases) {
        const int length = int(strlen(expected.elements) / 2);
        const std::string data = hex(length + 3) + hex(length) + expected.elements + "0041";
        const Tavrik_SmsDetail detail = decoded(deliver(8, data, true));
        EXPECT_EQ(text_of(detail), "A") << expected.elements;
        EXPECT_EQ(detail.reference, expected.reference) << expected.elements;
        EXPECT_EQ(detail.sequence, expected.sequence);
        EXPECT_EQ(detail.total, expected.total);
        EXPECT_EQ(detail.destination_port, expected.destination);
        EXPECT_EQ(detail.source_port, expected.source);
    }
}

TEST(Decode, NationalLanguages) {
    const struct {
        uint8_t locking, single;
        Octets septets;
        const char *text;
    } cases[] = {
        {0, 0, {0x1B, 0x65, 0x1B, 0x1B, 0x1B, 0x0D, 0x1B, 'a', 0x1B, 0x0A, 0x09, 0x1B}, "€ \ra\fÇ"},
        {1, 1, {0x04, 0x07, 0x0B, 0x40, 0x60, 0x1B, 'S', 0x1B, 'i', 0x1B, '('}, "€ıĞİçŞı{"},
        {2, 2, {0x40, 0x1B, 0x09, 0x1B, 'A', 0x1B, 'u', 0x1B, 'e'}, "¡çÁú€"},
        {3, 3, {0x12, 0x15, 0x18, 0x5B, 0x1B, 0x05, 0x1B, 0x1F, 0x1B, 0x7F, 0x1B, '/'}, "ª∞€ÃêÊâ\\"},
        {4, 4, {0x00, 0x7F, 0x1B, 0x19, 0x1B, 0x34, 0x1B, 0x00, 0x1B, 'Z'}, "ঁৱ০৺@Z"},
        {5, 5, {0x0C, 0x7F, 0x1B, 0x19, 0x1B, 0x1C, 0x1B, 0x26}, "ઍ૱।૦ણ"},
        {6, 6, {0x00, 0x3C, 0x1B, 0x26, 0x1B, 0x3A, 0x1B, '<'}, "ँऩ॑ॱ["},
        {7, 7, {0x24, 0x3D, 0x1B, 0x1C, 0x1B, 0x2A, 0x1B, '<'}, "ಡಪ೦ೲ["},
        {8, 8, {0x2E, 0x7F, 0x1B, 0x2E, 0x1B, 0x34}, ".൹ൺൿ"},
        {9, 9, {0x60, 0x7F, 0x1B, 0x26, 0x1B, 0x2C}, "\u0B56\u0B63\u0B5C\u0B71"},
        {10, 10, {0x60, 0x7F, 0x1B, 0x1C, 0x1B, 0x2D}, "ੑੴ੦ੵ"},
        {11, 11, {0x60, 0x7F, 0x1B, 0x26, 0x1B, 0x2E}, "ௐ௹௳௺"},
        {12, 12, {0x60, 0x7F, 0x1B, 0x1C, 0x1B, 0x32, 0x1B, 0x19, 0x1B, 'e'}, "ౕౣ౦౿ఙ€"},
        {13, 13, {0x00, 0x7F, 0x1B, 0x1C, 0x1B, 0x3F, 0x1B, 0x0D}, "اٰ۰۔\r"},
        {13, 1, {0x00, 0x1B, 'S'}, "اŞ"},
        {14, 255, {0x00, 0x1B, 'S', 0x1B, 'e'}, "@S€"},
    };
    for (const auto &expected : cases)
        EXPECT_EQ(text_of(decoded(deliver(
                      0, packed({0x25, 1, expected.locking, 0x24, 1, expected.single}, expected.septets), true))),
                  expected.text)
            << int(expected.locking);
}

TEST(Decode, SurrogatePairs) {
    const struct {
        const char *data, *text;
        int first, last;
    } cases[] = {
        {"04D83DDE00", "😀", 0, 0},
        {"08DE000041D83DDE00", "\uFFFDA😀", 0xDE00, 0},
        {"040041D83D", "A\uFFFD", 0, 0xD83D},
        {"02DE00", "\uFFFD", 0xDE00, 0},
        {"06D83D0041DE00", "\uFFFDA\uFFFD", 0, 0},
        {"04D83DD83D", "\uFFFD\uFFFD", 0, 0xD83D},
        {"05D83DDE0000", "😀", 0, 0},
    };
    for (const auto &expected : cases) {
        const Tavrik_SmsDetail detail = decoded(deliver(8, expected.data));
        EXPECT_EQ(text_of(detail), expected.text) << expected.data;
        EXPECT_EQ(detail.first_half, expected.first) << expected.data;
        EXPECT_EQ(detail.last_half, expected.last) << expected.data;
    }
    EXPECT_EQ(text_of(decoded(deliver(8, "06004100000042"))), "A\0B"s);
}

Tavrik_SmsDetail part(const std::string &text, int sequence, int total, int reference = 7,
                      const std::string &number = "+4917") {
    Tavrik_SmsDetail detail = {};
    detail.size = sizeof detail;
    detail.reference = reference;
    detail.sequence = sequence;
    detail.total = total;
    detail.length = int32_t(text.size());
    memcpy(detail.text, text.data(), text.size());
    strcpy(detail.number, number.c_str());
    return detail;
}

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

TEST(Join, AnyOrder) {
    std::vector<int> order = {1, 2, 3, 4};
    do {
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(join(part(std::string(1, char('a' + order[size_t(i)])), order[size_t(i)], 4)), "...");
            EXPECT_EQ(join(part("other", order[size_t(i)], 4, 8)), "...");           // another reference
            EXPECT_EQ(join(part("sender", order[size_t(i)], 4, 7, "+4918")), "..."); // another sender
            EXPECT_EQ(join(part("total", order[size_t(i)], 5)), "...");
        }
        EXPECT_EQ(join(part(std::string(1, char('a' + order[3])), order[3], 4)), "bcde");
        EXPECT_EQ(join(part("!", order[3], 4, 8)).size(), 16u);
        g_seconds_ahead += 2 * TAVRIK_SMS_JOIN_SECONDS;
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(Join, WholeByItself) {
    EXPECT_EQ(join(part("alone", 0, 0, -1)), "alone");
    EXPECT_EQ(join(part("one of one", 1, 1)), "one of one");
    EXPECT_EQ(join(part("zero", 0, 2)), "zero");
    EXPECT_EQ(join(part("beyond", 3, 2)), "beyond");
    EXPECT_EQ(join(part("\0\1"s, 0, 0)), "\0\1"s);
    EXPECT_EQ(join(part("", 0, 0)), "");
}

TEST(Join, TwiceCountsOnce) {
    EXPECT_EQ(join(part("old ", 1, 2)), "...");
    EXPECT_EQ(join(part("new ", 1, 2)), "...");
    EXPECT_EQ(join(part("end", 2, 2)), "new end");
    EXPECT_EQ(join(part("end", 2, 2)), "..."); // a message of its own
    EXPECT_EQ(join(part("again ", 1, 2)), "again end");
}

TEST(Join, PartsExpire) {
    EXPECT_EQ(join(part("old ", 1, 3)), "...");
    g_seconds_ahead += TAVRIK_SMS_JOIN_SECONDS - 10;
    EXPECT_EQ(join(part("middle ", 2, 3)), "...");
    g_seconds_ahead += TAVRIK_SMS_JOIN_SECONDS - 10;
    EXPECT_EQ(join(part("end", 3, 3)), "old middle end");
    EXPECT_EQ(join(part("old ", 1, 2)), "...");
    g_seconds_ahead += TAVRIK_SMS_JOIN_SECONDS + 10;
    EXPECT_EQ(join(part("end", 2, 2)), "...");
    EXPECT_EQ(join(part("new ", 1, 2)), "new end");
}

TEST(Join, LongestWaitingGivesWay) {
    for (int i = 0; i < 32; ++i) {
        EXPECT_EQ(join(part("a", 1, 3, i)), "...");
        ++g_seconds_ahead;
    }
    EXPECT_EQ(join(part("b", 2, 3, 0)), "..."); // 1 has waited longest now
    ++g_seconds_ahead;
    EXPECT_EQ(join(part("a", 1, 2, 99)), "...");
    EXPECT_EQ(join(part("b", 2, 2, 99)), "ab");
    EXPECT_EQ(join(part("c", 3, 3, 0)), "abc");
    EXPECT_EQ(join(part("b", 2, 3, 2)), "...");
    EXPECT_EQ(join(part("c", 3, 3, 2)), "abc");
    EXPECT_EQ(join(part("b", 2, 3, 1)), "...");
    EXPECT_EQ(join(part("c", 3, 3, 1)), "...");
    g_seconds_ahead += 2 * TAVRIK_SMS_JOIN_SECONDS;
}

TEST(Join, PairAcrossTheCut) {
    const auto piece = [](int sequence, const std::string &units) {
        return decoded(deliver(8,
                               hex(int(units.size() / 2 + 6)) +
                                   "0500030703"
                                   "0" +
                                   std::to_string(sequence) + units,
                               true));
    };
    EXPECT_EQ(join(piece(2, "DE00D83D")), "...");
    EXPECT_EQ(join(piece(3, "DE01")), "...");
    EXPECT_EQ(join(piece(1, "00E420ACD83D")), "ä€😀😁");
    EXPECT_EQ(join(piece(1, "D83D")), "...");
    EXPECT_EQ(join(piece(2, "0041")), "...");
    EXPECT_EQ(join(piece(3, "DE01")), "\uFFFDA\uFFFD");
    // Halves that the text does not have room for.
    Tavrik_SmsDetail first = part("", 1, 2), second = part("x", 2, 2);
    first.last_half = 0xD83D;
    second.first_half = 0xDE00;
    EXPECT_EQ(join(first), "...");
    EXPECT_EQ(join(second), "x");
}

TEST(Join, Refused) {
    const Tavrik_SmsDetail good = part("a", 1, 2);
    char *text = nullptr;
    const std::string log = "Tavrik_SMS_Join: Parameter input error\n";
    EXPECT_EQ(logged([&] { EXPECT_EQ(Tavrik_SMS_Join(nullptr, &text, nullptr), -1); }), log);
    EXPECT_EQ(logged([&] { EXPECT_EQ(Tavrik_SMS_Join(&good, nullptr, nullptr), -1); }), log);
    Tavrik_SmsDetail bad = good;
    bad.size = 8;
    EXPECT_EQ(join(bad), "refused");
    for (int length : {-1, 512}) {
        bad = good;
        bad.length = length;
        EXPECT_EQ(join(bad), "refused");
    }
    bad = good;
    bad.total = 256;
    EXPECT_EQ(join(bad), "refused");
    bad = good;
    memset(bad.number, '1', sizeof bad.number);
    EXPECT_EQ(join(bad), "refused");
    EXPECT_EQ(Tavrik_SMS_Join(&good, &text, nullptr), 0);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(join(part("b", 2, 2)), "ab");
}

TEST(Join, FromThreads) {
    std::vector<std::thread> threads;
    std::atomic<int> whole{0};
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            for (int round = 0; round < 500; ++round) {
                whole += join(part("a", 1, 2, i)) == "ab";
                whole += join(part("b", 2, 2, i)) == "ab";
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(whole, 2000);
}

} // namespace
