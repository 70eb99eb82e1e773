// The codecs by themselves: what the tests of whole messages do not show.
#include "sms/sms_test.h"

namespace {

// Missing pointers, and nothing to do.
template <class In, class Out>
void check_refusals(int (*codec)(In *, int, Out *, int32_t *)) {
    std::remove_const_t<In> in[8] = {};
    Out out[8];
    int32_t length = 7;
    EXPECT_EQ(codec(in, 0, out, &length) + codec(in, -1, out, &length) + codec(nullptr, 1, out, &length), -3);
    EXPECT_EQ(codec(in, 1, nullptr, &length) + codec(in, 1, out, nullptr), -2);
    EXPECT_EQ(length, 7);
}

TEST(Codec, Refusals) {
    check_refusals(hex_to_ascii);
    check_refusals(hex_to_ascii_low);
    check_refusals(decode_8bit);
    check_refusals(convert_ucs2_to_utf8);
    check_refusals(code_convert_utf8_to_unicodeStr);
    check_refusals(+[](const uint8_t *in, int count, uint8_t *out, int32_t *length) {
        return decode_7bit(in, count, 0, out, length);
    });
    uint8_t octets[8] = {};
    char text[25];
    int32_t length = 9;
    gsm_to_ascii(nullptr, 1, text, &length);
    gsm_to_ascii(octets, 1, nullptr, &length);
    gsm_to_ascii(octets, 1, text, nullptr);
    EXPECT_EQ(length, 9);
    EXPECT_EQ(decode_number(octets, 0, text) + decode_number(nullptr, 1, text) + decode_number(octets, 1, nullptr), -3);
    EXPECT_EQ(decode_time_stamp(nullptr, 7, text) + decode_time_stamp(octets, 7, nullptr), -2);
    EXPECT_EQ(decode_time_stamp(octets, 6, text) + decode_time_stamp(octets, 8, text), -2);
    EXPECT_EQ(parse_udh(nullptr, 5), nullptr);
    EXPECT_EQ(parse_udh(octets, 0), nullptr);
    EXPECT_EQ(is_sms_pdu_format(nullptr), -1);
    // This one never refuses.
    EXPECT_EQ(ascii_to_hex("12", 2, octets, nullptr) + ascii_to_hex("12", 2, nullptr, &length), 0);
    EXPECT_EQ(length, 0);
    length = 9;
    EXPECT_EQ(ascii_to_hex(nullptr, 2, octets, &length) + ascii_to_hex("12", -1, octets, &length), 0);
    EXPECT_EQ(length, 0);
}

// Whatever needs no more than its last octet: the sanitizer sees what is read behind it.
TEST(Codec, Directly) {
    const uint8_t escape[] = {0x1B}, packed[] = {0xE8, 0x32, 0x9B, 0xFD, 0x06}, half[] = {0, 'A', 0};
    uint8_t septets[5];
    int32_t length = 0;
    char text[25] = "";
    gsm_to_ascii(escape, 1, text, &length);
    EXPECT_STREQ(text, "\x1B");
    EXPECT_EQ(decode_7bit(packed, 5, -1, septets, &length), 0);
    EXPECT_EQ(std::string(septets, septets + length), "hello");
    EXPECT_EQ(convert_ucs2_to_utf8(half, 3, text, &length), 0);
    EXPECT_STREQ(text, "A");
    const uint8_t stamp[] = {0x42, 0x90, 0x42, 0x41, 0x80, 0x03, 0x99}, all[] = {255, 255, 255, 255, 255, 255, 255};
    EXPECT_EQ(decode_time_stamp(stamp, 7, text), 0);
    EXPECT_STREQ(text, "2024-09-24 14:08:30");
    EXPECT_EQ(decode_time_stamp(all, 7, text), 0);
    EXPECT_STREQ(text, "2165-165-165 165:165:165");
    const uint8_t elements[] = {0x24, 0, 5, 2, 1, 2, 8, 4, 0xAB, 0x2A, 2, 1};
    uint8_t *found = nullptr;
    EXPECT_EQ(outcome([&] { return (found = parse_udh(elements, sizeof elements)) != nullptr; }),
              "1 parse_udh: sms_header parse_udh didn't process 0x24 iei.\n"
              "parse_udh: sms_header parse_udh didn't process 0x5 iei.\n");
    EXPECT_EQ(std::string(found, found + 324), "\1\x2A\1\2" + std::string(320, 0));
    free(found);
}

TEST(Codec, LooksLikeAPdu) {
    check([](const std::string &text) { return outcome([&] { return is_sms_pdu_format(text.c_str()); }); },
          {"=0 ", "00=0 ", "0G=0 ", "f!=0 ", "Az  =0 ", "G0=-1 ", " 0=-1 ", "\xFF\xFF=-1 ",
           "000=-1 is_sms_pdu_format: pdu format errpr\n"});
}

TEST(Codec, IsAscii) {
    int32_t count = 5;
    EXPECT_EQ(is_ascii("abc", 3, &count), 1);
    EXPECT_EQ(count, 8); // added
    EXPECT_EQ(is_ascii("a\xC3\xA4\x7F", 4, &count), 0);
    EXPECT_EQ(is_ascii("a\x80", 1, &count) + is_ascii("a", 0, &count) + is_ascii("a", -1, &count), 3);
    EXPECT_EQ(is_ascii(nullptr, 1, &count) + is_ascii("a", 1, nullptr), 0);
    EXPECT_EQ(count, 11);
}

TEST(Codec, Utf8ToHexOfUcs2) {
    const auto run = [](const std::string &utf8) {
        const std::vector<char> exact(utf8.begin(), utf8.end());
        std::vector<char> hex(4 * exact.size());
        int32_t length = 0;
        const std::string ended = outcome(
            [&] { return code_convert_utf8_to_unicodeStr(exact.data(), int(exact.size()), hex.data(), &length); });
        return std::string(hex.data(), size_t(length)) + " " + ended;
    };
    const std::string log = " -1 code_convert_utf8_to_unicodeStr: ", no_lead = log + "intput error!\n";
    const std::string cut = log + "return in case ";
    check(run, {"hello=00680065006C006C006F 0 ", "\x7Fäż\u07FF=007F00E4017C07FF 0 ", "€你\uFFFF=20AC4F60FFFF 0 ",
                "😀a=01F6000061 0 ", "\xF7\xBF\xBF\xBF=1FFFFF 0 ", "a\x80=0061 -1 ", "\xBF= -1 ", "a\xF8=0061" + no_lead,
                "\xFF=" + no_lead, "a\xC3(=0061" + cut + "2\n", "a\xC3=0061" + cut + "2\n", "\xE2\x82(=" + cut + "3\n",
                "\xE2(\x82=" + cut + "3\n", "\xE2\x82=" + cut + "3\n", "\xF0\x9F\x98(=" + cut + "4\n",
                "\xF0\xC3\x98\x80=" + cut + "4\n", "=" + log + "Paramter input error\n"});
    EXPECT_EQ(run("a\0b"s), "006100000062 0 ");
}

} // namespace
