#include "sms/sms_test.h"

#include <cstring>

namespace {

using Octets = std::vector<uint8_t>;
using namespace std::string_literals;

Octets bytes(const std::string &text) {
    return {text.begin(), text.end()};
}

TEST(Codec, HexToBytes) {
    struct {
        std::string text;
        Octets bytes;
    } const cases[] = {{"00ffA9", {0, 0xFF, 0xA9}},
                       {"ABC", {0xAB, 0xC0}},
                       {"ABCG", {0xAB, 0xC0}},
                       {"ABG0", {0xAB}},
                       {"A:", {0xA0}},
                       {"@1", {}},
                       {"1\xFF", {0x10}},
                       {"", {}}};
    for (const auto &expected : cases) {
        Octets made((expected.text.size() + 1) / 2);
        int32_t count = 99;
        const std::vector<char> exact(expected.text.begin(), expected.text.end());
        uint8_t none;
        EXPECT_EQ(ascii_to_hex(exact.empty() ? "" : exact.data(), int(exact.size()), made.empty() ? &none : made.data(),
                               &count),
                  0);
        made.resize(size_t(count));
        EXPECT_EQ(made, expected.bytes) << expected.text;
    }
    int32_t count = 99;
    uint8_t byte = 0;
    EXPECT_EQ(ascii_to_hex("12", -1, &byte, &count), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(ascii_to_hex(nullptr, 2, &byte, &count), 0);
    EXPECT_EQ(ascii_to_hex("12", 2, nullptr, &count), 0);
    EXPECT_EQ(ascii_to_hex("12", 2, &byte, nullptr), 0);
}

TEST(Codec, BytesToHex) {
    Octets octets = {0x01, 0xAF, 0x90};
    char text[7] = "......";
    int32_t length = 0;
    EXPECT_EQ(hex_to_ascii(octets.data(), 3, text, &length), 0);
    EXPECT_EQ(length, 6);
    EXPECT_STREQ(text, "01AF90");
    EXPECT_EQ(hex_to_ascii_low(octets.data(), 2, text, &length), 0);
    EXPECT_EQ(length, 4);
    EXPECT_STREQ(text, "10FA90"); // the rest is left alone
    EXPECT_EQ(octets, (Octets{0x10, 0xFA, 0x90}));
    for (int count : {0, -1}) {
        EXPECT_EQ(hex_to_ascii(octets.data(), count, text, &length), -1);
        EXPECT_EQ(hex_to_ascii_low(octets.data(), count, text, &length), -1);
    }
}

TEST(Codec, LooksLikeAPdu) {
    for (const char *text : {"", "00", "0G", "f!", "Az  "})
        EXPECT_EQ(logged([&] { EXPECT_EQ(is_sms_pdu_format(text), 0); }), "") << text;
    for (const char *text : {"G0", " 0", "\xFF\xFF"})
        EXPECT_EQ(logged([&] { EXPECT_EQ(is_sms_pdu_format(text), -1); }), "") << text;
    EXPECT_EQ(logged([] { EXPECT_EQ(is_sms_pdu_format("000"), -1); }), "is_sms_pdu_format: pdu format errpr\n");
    EXPECT_EQ(is_sms_pdu_format(nullptr), -1);
}

TEST(Codec, Number) {
    struct {
        Octets address;
        const char *number;
    } const cases[] = {
        {{0x91, 0x94, 0x71}, "+4917"},
        {{0x81, 0x21, 0xF3}, "123"},
        {{0xA1, 0x21}, "12"},
        {{0x91}, "+"},
        {{0x81}, ""},
        {{0x91, 0xFF}, "+F"},
        {{0x81, 0x0F}, "F0"},
        {{0x81, 0xBA}, "AB"},
        {{0x81, 0xF1, 0xF2}, "1F2"},
        {{0xD0, 0xC2, 0x30}, "2C03"},
    };
    for (const auto &expected : cases) {
        Octets address = expected.address;
        std::vector<char> number(2 * address.size(), '.');
        EXPECT_EQ(decode_number(address.data(), int(address.size()), number.data()), 0);
        EXPECT_STREQ(number.data(), expected.number);
    }
    Octets address = {0x91};
    char number[2];
    EXPECT_EQ(decode_number(address.data(), 0, number), -1);
    EXPECT_EQ(decode_number(nullptr, 1, number), -1);
    EXPECT_EQ(decode_number(address.data(), 1, nullptr), -1);
}

TEST(Codec, TimeStamp) {
    const Octets stamp = {0x42, 0x90, 0x42, 0x41, 0x80, 0x03, 0x99}, all = Octets(7, 0xFF);
    std::vector<char> text(25);
    EXPECT_EQ(decode_time_stamp(stamp.data(), 7, text.data()), 0);
    EXPECT_STREQ(text.data(), "2024-09-24 14:08:30");
    EXPECT_EQ(decode_time_stamp(all.data(), 7, text.data()), 0);
    EXPECT_STREQ(text.data(), "2165-165-165 165:165:165");
    EXPECT_EQ(decode_time_stamp(stamp.data(), 6, text.data()), -1);
    EXPECT_EQ(decode_time_stamp(stamp.data(), 8, text.data()), -1);
    EXPECT_EQ(decode_time_stamp(nullptr, 7, text.data()), -1);
    EXPECT_EQ(decode_time_stamp(stamp.data(), 7, nullptr), -1);
}

TEST(Codec, SeptetsToAscii) {
    struct {
        std::string septets, text;
    } const cases[] = {
        {"\x80\x02\x11", "@$_"},
        {"\x1B\x14\x1B(\x1B)\x1B/\x1B<\x1B=\x1B>\x1B@", "^{}\\[~]|"},
        {"\x1B", "\x1B"},
        {"a\x1B\x1B(", "a\x1B{"},
        {"\x1B\x65\x1B\x80", "\x1B\x65\x1B@"},
        {"\x01\x03\x0A\x1C\x24\x7F", "\x01\x03\x0A\x1C\x24\x7F"},
    };
    for (const auto &expected : cases) {
        const Octets septets = bytes(expected.septets);
        std::vector<char> text(septets.size());
        int32_t length = 0;
        gsm_to_ascii(septets.data(), int(septets.size()), text.data(), &length);
        EXPECT_EQ(std::string(text.data(), size_t(length)), expected.text);
    }
    for (int code = 1; code < 128; ++code) { // all others stay
        const uint8_t septet = uint8_t(code);
        char text = 0;
        int32_t length = 0;
        gsm_to_ascii(&septet, 1, &text, &length);
        EXPECT_EQ(text, code == 2 ? '$' : code == 0x11 ? '_' : char(code));
    }
    int32_t length = 9;
    gsm_to_ascii(nullptr, 1, nullptr, &length);
    EXPECT_EQ(length, 9);
    const uint8_t septet = 'a';
    char text;
    gsm_to_ascii(&septet, 0, &text, &length);
    EXPECT_EQ(length, 0);
}

TEST(Codec, SeptetsOfZeroBecome80) {
    const uint8_t packed[2] = {0x80, 0x00};
    uint8_t septets[2] = {};
    int32_t length = 0;
    EXPECT_EQ(decode_7bit(packed, 2, 0, septets, &length), 0);
    EXPECT_EQ(septets[0], 0x80);
    EXPECT_EQ(septets[1], 0x01);
    EXPECT_EQ(decode_7bit(packed, 2, -3, septets, &length), 0); // no header
    EXPECT_EQ(septets[1], 0x01);
    EXPECT_EQ(decode_7bit(packed, 0, 0, septets, &length), -1);
    EXPECT_EQ(decode_7bit(nullptr, 1, 0, septets, &length), -1);
    EXPECT_EQ(decode_7bit(packed, 1, 0, nullptr, &length), -1);
    EXPECT_EQ(decode_7bit(packed, 1, 0, septets, nullptr), -1);
}

TEST(Codec, Ucs2ToUtf8) {
    struct {
        Octets ucs2;
        std::string utf8;
    } const cases[] = {
        {{0x4F, 0x60, 0x59, 0x7D}, "你好"},
        {{0, 0x7F, 0, 0x80, 7, 0xFF, 8, 0, 0xFF, 0xFF}, "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF"},
        {{0xD8, 0x3D, 0xDE, 0}, "\xED\xA0\xBD\xED\xB8\x80"},
        {{0, 'a', 0, 0, 0, 'b'}, "a"},
        {{0, 'a', 0}, "a"},
        {{0x20}, ""},
    };
    for (const auto &expected : cases) {
        std::vector<char> utf8(expected.ucs2.size() / 2 * 3 + 1, '.');
        int32_t length = -1;
        EXPECT_EQ(convert_ucs2_to_utf8(expected.ucs2.data(), int(expected.ucs2.size()), utf8.data(), &length), 0);
        EXPECT_EQ(utf8.data(), expected.utf8);
        EXPECT_EQ(length, int(expected.utf8.size()));
    }
    char utf8[4];
    uint8_t octets[2] = {0, 'a'};
    int32_t length;
    EXPECT_EQ(convert_ucs2_to_utf8(octets, 0, utf8, &length), -1);
    EXPECT_EQ(convert_ucs2_to_utf8(nullptr, 2, utf8, &length), -1);
    EXPECT_EQ(decode_8bit(octets, 0, utf8, &length), -1);
    EXPECT_EQ(decode_8bit(octets, 2, utf8, &length), 0);
    EXPECT_EQ(std::string(utf8, 2), "\0a"s);
    EXPECT_EQ(length, 2);
}

TEST(Codec, IsAscii) {
    int32_t count = 5;
    EXPECT_EQ(is_ascii("abc", 3, &count), 1);
    EXPECT_EQ(count, 8); // added
    EXPECT_EQ(is_ascii("a\xC3\xA4\x7F", 4, &count), 0);
    EXPECT_EQ(count, 10);
    EXPECT_EQ(is_ascii("a\x80", 1, &count), 1);
    EXPECT_EQ(count, 11);
    EXPECT_EQ(is_ascii("a", 0, &count), 1);
    EXPECT_EQ(is_ascii("a", -1, &count), 1);
    EXPECT_EQ(is_ascii(nullptr, 1, &count), 0);
    EXPECT_EQ(is_ascii("a", 1, nullptr), 0);
    EXPECT_EQ(count, 11);
}

TEST(Codec, Utf8ToHexOfUcs2) {
    struct {
        std::string utf8, hex;
        int result;
        const char *log;
    } const cases[] = {
        {"hello", "00680065006C006C006F", 0, ""},
        {"\x7F"
         "äż\xDF\xBF",
         "007F00E4017C07FF", 0, ""},
        {"€你\xEF\xBF\xBF", "20AC4F60FFFF", 0, ""},
        {"😀a", "01F6000061", 0, ""},
        {"\xF7\xBF\xBF\xBF", "1FFFFF", 0, ""},
        {"a\0b"s, "006100000062", 0, ""},
        {"a\x80", "0061", -1, ""},
        {"\xBF", "", -1, ""},
        {"a\xF8", "0061", -1, ": intput error!\n"},
        {"\xFF", "", -1, ": intput error!\n"},
        {"a\xC3(", "0061", -1, ": return in case 2\n"},
        {"a\xC3", "0061", -1, ": return in case 2\n"},
        {"\xE2\x82(", "", -1, ": return in case 3\n"},
        {"\xE2(\x82", "", -1, ": return in case 3\n"},
        {"\xE2\x82", "", -1, ": return in case 3\n"},
        {"\xF0\x9F\x98(", "", -1, ": return in case 4\n"},
        {"\xF0\xC3\x98\x80", "", -1, ": return in case 4\n"},
    };
    const std::string function = "code_convert_utf8_to_unicodeStr";
    for (const auto &expected : cases) {
        const std::vector<char> exact(expected.utf8.begin(), expected.utf8.end());
        std::vector<char> hex(4 * exact.size());
        int32_t length = -1;
        const std::string lines = logged([&] {
            EXPECT_EQ(code_convert_utf8_to_unicodeStr(exact.data(), int(exact.size()), hex.data(), &length),
                      expected.result);
        });
        EXPECT_EQ(lines, *expected.log ? function + expected.log : "");
        EXPECT_EQ(std::string(hex.data(), size_t(length)), expected.hex) << expected.utf8;
    }
    char hex[8];
    int32_t length = 7;
    const std::string refused = function + ": Paramter input error\n";
    EXPECT_EQ(logged([&] { EXPECT_EQ(code_convert_utf8_to_unicodeStr("a", 0, hex, &length), -1); }), refused);
    EXPECT_EQ(logged([&] { EXPECT_EQ(code_convert_utf8_to_unicodeStr(nullptr, 1, hex, &length), -1); }), refused);
    EXPECT_EQ(logged([&] { EXPECT_EQ(code_convert_utf8_to_unicodeStr("a", 1, nullptr, &length), -1); }), refused);
    EXPECT_EQ(logged([&] { EXPECT_EQ(code_convert_utf8_to_unicodeStr("a", 1, hex, nullptr), -1); }), refused);
    EXPECT_EQ(length, 7);
}

} // namespace
