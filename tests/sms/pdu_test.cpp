#include "sms/sms_test.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

using namespace std::string_literals;
using Octets = std::vector<uint8_t>;
using Message = std::unique_ptr<SmsMessage, void (*)(void *)>;

Message decode(const std::string &pdu) {
    return {creat_from_pdu(pdu.c_str()), free};
}

template <int size>
std::string field(const char (&text)[size]) {
    return {text, strnlen(text, size)};
}

std::string text_of(const SmsMessage &message) {
    return {message.text, size_t(std::min<int>(message.length, sizeof message.text))};
}

struct PduCase {
    const char *what;
    std::string pdu;
    int encoding;
    std::string number, text;
    int concat = 0, ref = 0, seq = 0, total = 0;
};

TEST(Pdu, Table) {
    const std::string number = "+49172345678", hello = "E8329BFD4697D9EC37";
    const PduCase cases[] = {
        {"7-bit", deliver(0x00, "0A" + hello), 0, number, "hellohello"},
        {"lower case, line end", "07919471016705f004" + deliver(0, "0A" + hello).substr(18) + "\r\nFF", 0, number,
         "hellohello"},
        {"UCS-2", deliver(0x08, "044F60597D"), 2, number, "你好"},
        {"8-bit with zeros", deliver(0x04, "0541004200FF"), 1, number, "A\0B\0\xFF"s},
        {"8-bit reference", deliver(0x00, "120500032A0201D0" + hello, true), 0, number, "hhellohello", 1, 0x2A, 1, 2},
        {"16-bit reference",
         deliver(0x08,
                 "0B060804ABCD03020048"
                 "0049",
                 true),
         2, number, "HI", 1, 0xCD, 2, 3},
        {"header without reference", deliver(0x04, "0906050415B300004142", true), 1, number, "AB"},
        {"references behind ports",
         deliver(0x04,
                 "0E0B050415B300000003070403"
                 "4142",
                 true),
         1, number, "AB", 1, 7, 3, 4},
        {"two references, the last counts",
         deliver(0x04,
                 "0C0A000301020100030A0B0C"
                 "41",
                 true),
         1, number, "A", 1, 10, 12, 11},
        {"no header elements", deliver(0x04, "020041", true), 1, number, "A"},
        {"header only", deliver(0x00, "070500032A0201", true), 0, number, "", 1, 0x2A, 1, 2},
        {"header longer than the text",
         deliver(0x08,
                 "030500032A0201"
                 "0041",
                 true),
         2, number, "", 1, 0x2A, 1, 2},
        {"header longer than the PDU", deliver(0x00, "20FF00032A0201", true), 0, number, "", 1, 0x2A, 1, 2},
        {"reference cut off",
         deliver(0x04,
                 "0403"
                 "000301",
                 true),
         1, number, ""},
        {"half a unit", deliver(0x08, "0300410042"), 2, number, "A"},
        {"unit zero", deliver(0x08, "06004100000042"), 2, number, "A"},
        {"surrogates", deliver(0x08, "04D83DDE00"), 2, number, "\xED\xA0\xBD\xED\xB8\x80"},
        {"no text", deliver(0x00, "00"), 0, number, ""},
        {"length beyond the PDU", deliver(0x08, "FF00410042"), 2, number, "AB"},
        {"7-bit length beyond the PDU", deliver(0x00, "FF" + hello), 0, number, "hellohello"},
        {"national sender", deliver(0x04, "0141", false, "0681214365"), 1, "123456", "A"},
        {"alphanumeric sender", deliver(0x04, "0141", false, "0AD0D3F63B0D4A"), 1, "3D6FB3D0A4", "A"},
        {"filler within the sender", deliver(0x04, "0141", false, "0681F14365"), 1, "1F3456", "A"},
        {"no sender", deliver(0x04, "0141", false, "0091"), 1, "+", "A"},
        // By bits 3 and 2 alone, whatever the scheme.
        {"voice mail, discarded", deliver(0xC0, "0A" + hello), 0, number, "hellohello"},
        {"voice mail waits, 7-bit",
         deliver(0xC8, "040041"
                       "0042"),
         2, number, "AB"},
        {"voice mail waits, UCS-2",
         deliver(0xE8, "040041"
                       "0042"),
         2, number, "AB"},
        {"voice mail gone, UCS-2", deliver(0xE0, "0A" + hello), 0, number, "hellohello"},
        {"fax waits",
         deliver(0xDD, "0200"
                       "41"),
         2, number, "A"},
        {"e-mail gone", deliver(0xD6, "0141"), 1, number, "A"},
        {"class 1, 8-bit", deliver(0xF5, "0141"), 1, number, "A"},
        {"reserved bits 3 and 2",
         deliver(0x0C, "0200"
                       "41"),
         2, number, "A"},
        {"status report", kCentre + "062A" + kSender + kTime + kTime + "00", 0, number, ""},
        {"bit 0 does not count", kCentre + "05" + kSender + "0004" + kTime + "0141", 1, number, "A"},
        {"report by bit 1 alone", kCentre + "072A" + kSender, 0, number, ""},
        // The zero is taken for the first octet, the first octet for the length of the sender.
        {"no centre",
         "0004"
         "81"
         "2143"
         "04"
         "04" +
             kTime + "0141",
         1, "1234", "A"},
        {"centre longer than the PDU", "7F0404", 0, "", ""},
        {"no digit", "xyz", 0, "", ""},
        {"empty", "", 0, "", ""},
    };
    for (const PduCase &expected : cases) {
        SCOPED_TRACE(expected.what);
        const Message message = decode(expected.pdu);
        ASSERT_TRUE(message);
        EXPECT_EQ(message->encoding, expected.encoding);
        EXPECT_EQ(field(message->number), expected.number);
        EXPECT_EQ(text_of(*message), expected.text);
        EXPECT_EQ(message->length, int(expected.text.size()));
        EXPECT_EQ(message->concat, expected.concat);
        EXPECT_EQ(message->concat_ref, expected.ref);
        EXPECT_EQ(message->concat_seq, expected.seq);
        EXPECT_EQ(message->concat_total, expected.total);
        EXPECT_EQ(message->result, 0);
    }
}

TEST(Pdu, FieldsAreCutWithoutTerminator) {
    std::string digits = "3C81", units = "B4"; // 60 digits, 90 units
    for (int i = 0; i < 30; ++i)
        digits += "21";
    for (int i = 0; i < 90; ++i)
        units += "20AC";
    std::string pdu = deliver(0x08, units, false, digits);
    const Message message = decode(pdu);
    EXPECT_EQ(message->length, 270);
    EXPECT_EQ(std::string(message->number, 50).find_first_not_of("12"), std::string::npos);
    EXPECT_EQ(std::string(message->text, 256).substr(252), "\xE2\x82\xAC\xE2");
    EXPECT_EQ(message->result, 0);

    pdu.resize(512, '0');
    EXPECT_EQ(decode(pdu)->length, 270);
    const Message none = decode(pdu + "0"), zero(static_cast<SmsMessage *>(calloc(1, sizeof(SmsMessage))), free);
    EXPECT_EQ(memcmp(none.get(), zero.get(), sizeof(SmsMessage)), 0);
}

TEST(Pdu, TextBehindEveryHeaderLength) {
    for (int elements = 0; elements < 40; ++elements) {
        Octets header = {uint8_t(elements)};
        for (int i = 0; i < elements; ++i)
            header.push_back(i ? uint8_t(0x55) : uint8_t(0x70));
        for (int length = 1; length <= 20; ++length) {
            Octets septets;
            for (int i = 0; i < length; ++i)
                septets.push_back(uint8_t("hello, world"[i % 12]));
            const Octets packed = pack_septets(header, septets);
            const std::string text(septets.begin(), septets.end());
            const std::string data = hex(septet_length(header, septets)) + to_hex(packed);
            EXPECT_EQ(text_of(*decode(deliver(0, data, true))), text) << elements;

            // By itself, on the octets alone that it needs.
            const Octets exact(packed.begin() + long(header.size()), packed.end());
            Octets unpacked(septets.size());
            int32_t count = 0;
            EXPECT_EQ(decode_7bit(exact.data(), length, elements + 1, unpacked.data(), &count), 0);
            EXPECT_EQ(unpacked, septets);
            EXPECT_EQ(count, length);
        }
    }
}

TEST(Pdu, CutAtEveryCharacter) {
    const std::string hello = "E8329BFD4697D9EC37";
    struct {
        std::string pdu, text;
        size_t data; // where the text starts
        size_t bits; // of a character
    } const cases[] = {
        {deliver(0, "0A" + hello), "hellohello", 54, 7},
        {deliver(0, "120500032A0201D0" + hello, true), "hhellohello", 54, 7},
        {deliver(8, "0A00680065006C006C006F"), "hello", 54, 16},
        {deliver(4, "0568656C6C6F"), "hello", 54, 8},
        {deliver(4,
                 "0A0406000000"
                 "68656C6C6F",
                 true),
         "hello", 64, 8},
    };
    for (const auto &whole : cases) {
        EXPECT_EQ(text_of(*decode(whole.pdu)), whole.text);
        for (size_t length = 0; length < whole.pdu.size(); ++length) {
            const Message message = decode(whole.pdu.substr(0, length));
            const std::string text = text_of(*message), number = field(message->number);
            if (length % 2) // half an octet counts as one
                continue;
            EXPECT_EQ(text, whole.text.substr(0, text.size())) << length;
            EXPECT_EQ(number, "+49172345678"s.substr(0, number.size())) << length;
            if (length >= whole.data && whole.text == "hello") {
                EXPECT_EQ(text.size(), (length - whole.data) * 4 / whole.bits) << length;
            }
        }
    }
}

TEST(Pdu, Generated) {
    const char *wanted = getenv("TAVRIK_PDU_COUNT"), *seed = getenv("TAVRIK_PDU_SEED");
    PduGenerator generator(seed ? strtoull(seed, nullptr, 0) : 20);
    for (int i = wanted ? atoi(wanted) : 2000; i > 0 && !HasFailure(); --i) {
        const GeneratedPdu made = generator.next();
        SCOPED_TRACE(made.pdu);
        Message message = decode(made.pdu);
        EXPECT_EQ(message->concat, made.concat);
        EXPECT_EQ(message->concat_ref, made.concat_ref);
        EXPECT_EQ(message->concat_seq, made.concat_seq);
        EXPECT_EQ(message->concat_total, made.concat_total);
        EXPECT_EQ(message->encoding, made.encoding);
        EXPECT_EQ(field(message->number), made.number);
        EXPECT_EQ(message->length, int(made.text.size()));
        EXPECT_EQ(text_of(*message), made.text);
    }
}

TEST(Pdu, PartsByThemselves) {
    Octets octets = {0x0B, 0x91, 0x94, 0x71, 0x32, 0x54, 0x76, 0xF8, 0, 4, 0x42, 0x90, 0x42, 0x41, 0x80, 3, 8, 1, 'A'};
    SmsMessage message = {};
    EXPECT_EQ(decode_normal_pdu(octets.data(), 0x04, &message), 0);
    EXPECT_STREQ(message.number, "+49172345678");
    EXPECT_STREQ(message.text, "A");
    EXPECT_EQ(octets[2], 0x49); // swapped in place

    octets = {0x2A, 0x04, 0x81, 0x21, 0x43};
    octets.resize(20);
    EXPECT_EQ(decode_sms_receipt(octets.data(), &message), 0);
    EXPECT_STREQ(message.number, "1234");
    EXPECT_STREQ(message.text, "A"); // not touched

    EXPECT_EQ(decode_normal_pdu(nullptr, 0, &message), -1);
    EXPECT_EQ(decode_normal_pdu(octets.data(), 0, nullptr), -1);
    EXPECT_EQ(decode_sms_receipt(nullptr, &message), -1);
    EXPECT_EQ(decode_sms_receipt(octets.data(), nullptr), -1);
    EXPECT_EQ(creat_from_pdu(nullptr), nullptr);
    decode_pdu(nullptr, &message);
    decode_pdu("00", nullptr);
}

TEST(Pdu, Header) {
    struct {
        Octets elements;
        Octets first; // bytes of the result
        const char *log;
    } const cases[] = {
        {{0, 3, 0x2A, 2, 1}, {1, 0x2A, 1, 2}, ""},
        {{8, 4, 0xAB, 0x2A, 2, 1}, {1, 0x2A, 1, 2}, ""},
        {{0, 3, 0x2A, 2}, {0, 0, 0, 0}, ""},
        {{8, 4, 0xAB, 0x2A, 2}, {0, 0, 0, 0}, ""},
        {{0}, {0, 0, 0, 0}, ""},
        {{0x24}, {0, 0, 0, 0}, "parse_udh: sms_header parse_udh didn't process 0x24 iei.\n"},
        {{5, 4, 1, 2, 3, 4, 0, 3, 7, 9, 8}, {1, 7, 8, 9}, "parse_udh: sms_header parse_udh didn't process 0x5 iei.\n"},
        {{0xFF, 0xFF, 0}, {0, 0, 0, 0}, "parse_udh: sms_header parse_udh didn't process 0xFF iei.\n"},
        // Their own length does not count.
        {{0, 9, 1, 2, 3, 0, 0, 4, 5, 6}, {1, 4, 6, 5}, ""},
    };
    for (const auto &header : cases) {
        uint8_t *found = nullptr;
        const Octets exact = header.elements;
        EXPECT_EQ(logged([&] { found = parse_udh(exact.data(), int(exact.size())); }), header.log);
        ASSERT_TRUE(found);
        EXPECT_EQ(Octets(found, found + 4), header.first) << to_hex(header.elements);
        EXPECT_EQ(std::count(found + 4, found + 324, 0), 320);
        free(found);
    }
    EXPECT_EQ(parse_udh(nullptr, 5), nullptr);
    EXPECT_EQ(parse_udh(cases[0].elements.data(), 0), nullptr);
}

} // namespace
