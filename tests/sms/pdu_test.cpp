// Received PDUs by either decoder: creat_from_pdu(), which is lenient and has quirks, and Tavrik_SMS_Decode().
#include "sms/pdu_generator.h"

namespace {

std::string lenient(const std::string &pdu) {
    SmsMessage *const message = creat_from_pdu(pdu_of(pdu).c_str());
    const std::string text = describe(*message);
    free(message);
    return text;
}

std::string strict(const std::string &pdu) {
    Tavrik_SmsDetail detail;
    memset(&detail, 0x55, sizeof detail);
    detail.size = sizeof detail;
    return Tavrik_SMS_Decode(pdu_of(pdu).c_str(), &detail) ? "refused" : describe(detail);
}

TEST(Pdu, Generated) {
    const char *wanted = getenv("TAVRIK_PDU_COUNT"), *seed = getenv("TAVRIK_PDU_SEED");
    PduGenerator made(seed ? strtoull(seed, nullptr, 0) : 20);
    for (int i = wanted ? atoi(wanted) : 2000; i > 0 && !HasFailure(); --i) {
        made.next();
        EXPECT_EQ(lenient(made.pdu), describe(made.message)) << made.pdu;
        EXPECT_EQ(strict(made.pdu), describe(made.detail)) << made.pdu;
        EXPECT_EQ(strict(made.pdu.substr(0, size_t(i) % made.pdu.size())), "refused") << made.pdu; // no shorter one
    }
}

TEST(Pdu, Lenient) {
    check(lenient,
          {"07919471016705f0040b919471325476f80000FFFFFFFFFFFFFF0AE8329BFD4697D9EC37\r\nFF=hellohello", "00 011B=\x1B",
           "00 04E1CD0605=a\x1B{", "00h 120500032A0201D0E8329BFD4697D9EC37=concat1 ref42 seq1 total2 hhellohello",
           "08 0A007F008007FF0800FFFF=encoding2 \x7F\u0080\u07FF\u0800\uFFFF",
           "08 04D83DDE00=encoding2 \xED\xA0\xBD\xED\xB8\x80", "08 0300410042=encoding2 A",
           "08 06004100000042=encoding2 A", "04 0541004200FF=encoding1 A<0>B<0>\xFF",
           // Headers.
           "04h 020041=encoding1 A", "04h 030124=encoding1 ", "04h 0403FFFF00=encoding1 ",
           "04h 0C0A000301020100030A0B0C41=encoding1 concat1 ref10 seq12 total11 A", // the last counts
           "04h 0C0A0009010203000004050641=encoding1 concat1 ref4 seq6 total5 A",    // their own length does not count
           "04h 050400032A02=encoding1 ", "04h 06050804AB2A02=encoding1 ",
           // Lengths beyond what is there.
           "00h 070500032A0201=concat1 ref42 seq1 total2 ",
           "08h 030500032A02010041=encoding2 concat1 ref42 seq1 total2 ",
           "00h 20FF00032A0201=concat1 ref42 seq1 total2 ", "04h 0403000301=encoding1 ",
           "00 00=", "08 FF00410042=encoding2 AB", "08 FF004100=encoding2 A", "00 FFE8329BFD4697D9EC37=hellohello",
           "00 0AE8329BFD4697D9=hellohel", "00 0AE8329BFD4697=helloh", "00 0AE8=h", "04 02414=encoding1 A@",
           "04 024G=encoding1 @", "00h 120500032A0201D0E8=concat1 ref42 seq1 total2 hh",
           // Senders.
           "04 0141 0681214365=encoding1 from 123456 A", "04 0141 0681F14365=encoding1 from 1F3456 A",
           "04 0141 02810F=encoding1 from F0 A", "04 0141 0291FF=encoding1 from +F A",
           "04 0141 02A1BA=encoding1 from AB A", "04 0141 0AD0D3F63B0D4A=encoding1 from 3D6FB3D0A4 A",
           "04 0141 0091=encoding1 from + A",
           // The coding by bits 3 and 2 alone, whatever the scheme.
           "C8 0400410042=encoding2 AB", "E0 0AE8329BFD4697D9EC37=hellohello", "D6 0141=encoding1 A",
           "0C 020041=encoding2 A",
           // A report by bit 1 of the first octet alone, and bit 0 does not count.
           "07919471016705F0072A0B919471325476F8=",
           "07919471016705F0050B919471325476F80004FFFFFFFFFFFFFF0141=encoding1 A",
           // Without a centre the zero is taken for the first octet, that for the length of the sender.
           "00048121430404FFFFFFFFFFFFFF0141=encoding1 from 1234 A", "7F0404=from  ", "xyz=from  ", "=from  "});
    EXPECT_EQ(creat_from_pdu(nullptr), nullptr);
}

TEST(Pdu, LenientFieldsAreCutWithoutTerminator) {
    std::string pdu = pdu_of("08 B4" + std::string(360, '4') + " 3C81" + std::string(60, '5')), text;
    while (text.size() < 256)
        text += "\u4444";
    const std::string cut = "encoding2 cut14 from " + std::string(50, '5') + " " + text.substr(0, 256);
    EXPECT_EQ(lenient(pdu), cut);
    pdu.resize(512, '0');
    EXPECT_EQ(lenient(pdu), cut);
    EXPECT_EQ(lenient(pdu + "0"), "from  ");
}

TEST(Pdu, LenientPartsByThemselves) {
    uint8_t octets[] = {11, 0x91, 0x94, 0x71, 0x32, 0x54, 0x76, 0xF8, 0, 4, 0, 0, 0, 0, 0, 0, 0, 1, 'A'};
    SmsMessage message = {};
    EXPECT_EQ(decode_normal_pdu(octets, 0x04, &message), 0);
    EXPECT_EQ(describe(message), "encoding1 A");
    EXPECT_EQ(octets[2], 0x49); // swapped in place
    uint8_t report[20] = {0x2A, 0x04, 0x81, 0x21, 0x43};
    EXPECT_EQ(decode_sms_receipt(report, &message), 0);
    EXPECT_EQ(describe(message), "encoding1 from 1234 A"); // the number alone
    EXPECT_EQ(decode_normal_pdu(nullptr, 0, &message) + decode_normal_pdu(octets, 0, nullptr), -2);
    EXPECT_EQ(decode_sms_receipt(nullptr, &message) + decode_sms_receipt(report, nullptr), -2);
    decode_pdu(nullptr, &message);
    decode_pdu("00", nullptr);
}

TEST(Pdu, Strict) {
    check(strict,
          {"0C 020041=@$", "13 020041=class3 @$", "03 020041=@$", "20 020041=encoding1 <0>A",
           "38 020041=encoding1 class0 <0>A", "40 020041=@$", "48 020041=encoding2 A", "80 020041=@$", "B8 020041=@$",
           "C8 020041=@$", "DC 020041=@$", "E0 020041=encoding2 A", "E9 020041=encoding2 A", "F0 020041=class0 @$",
           "FB 020041=class3 @$", "F6 020041=encoding1 class2 <0>A",
           // Senders.
           "00 0141 04912143=from +1234 A", "00 0141 06A1BADCFE=from *#abc A", "00 0141 00D0=from  A",
           "00 0141 0091=from + A", "00 0141 0291F1=from +1 A", "00 0141 02D041=from A A",
           "00 0141 0DD0D3A2B5E8BCDD00=from SEVEN77 A", "00 0141 0ED0C5E41149C5E170=from EIGHT888 A",
           "00 0141 14D04566D15A748286C8A014=from ELEVEN CHAR A",
           // Times: a new century, a leap day, the last second of all, and one west of Greenwich; then what is none.
           "00 0141 0291F1 00101000000000=time946684800 from +1 A",
           "00 0141 0291F1 00209221436580=time951820496 zone120 from +1 A",
           "00 0141 0291F1 99211332959500=time4102444799 from +1 A",
           "00 0141 0291F1 4290424180034A=time1727208510 zone-360 from +1 A", "00 0141 0291F1 42004241800300=from +1 A",
           "00 0141 0291F1 42314241800300=from +1 A", "00 0141 0291F1 42900041800300=from +1 A",
           "00 0141 0291F1 42902341800300=from +1 A", "00 0141 0291F1 42904242800300=from +1 A",
           "00 0141 0291F1 42904241060300=from +1 A", "00 0141 0291F1 42904241800600=from +1 A",
           "00 0141 0291F1 429042418003F0=from +1 A", "00 0141 0291F1 4A904241800300=from +1 A",
           // Headers. Elements that cannot be, and all of those that do not fill the header, count as absent.
           "04h 0C0A000301020200032A020141=encoding1 ref42 seq1 total2 A",
           "04h 0D0B7F0000032A02010402F0F141=encoding1 source241 destination240 ref42 seq1 total2 A",
           "04h 070500032A020041=encoding1 A", "04h 070500032A020341=encoding1 A", "04h 070500032A000041=encoding1 A",
           "04h 060400022A0241=encoding1 A", "04h 070508032A020141=encoding1 A",
           "04h 0A0800032A02010402F041=encoding1 A", "04h 080600032A02010441=encoding1 A", "04h 020041=encoding1 A",
           // Surrogate pairs, whole, halved and cut.
           "08 08DE000041D83DDE00=encoding2 first56832 \uFFFDA😀", "08 040041D83D=encoding2 last55357 A\uFFFD",
           "08 06D83D0041DE00=encoding2 \uFFFDA\uFFFD", "08 04D83DD83D=encoding2 last55357 \uFFFD\uFFFD",
           "08 05D83DDE0000=encoding2 😀", "08 06004100000042=encoding2 A<0>B",
           // A report; no centre; and whatever stands behind the end.
           "07919471016705F0062A0B919471325476F8429042418003004290424180034A21=type2 time1727186910 "
           "discharged1727208510 at-360 protocol-1 message42 status33 ",
           "00040B919471325476F80000FFFFFFFFFFFFFF0141=A",
           "07919471016705F0040B919471325476F80000FFFFFFFFFFFFFF014100FF=A"});
}

TEST(Pdu, StrictRefuses) {
    const std::string good = pdu_of("00 0141"), start = good.substr(0, 50), zeros(282, '0');
    Tavrik_SmsDetail detail = nothing();
    const auto decode = [&](const std::string &pdu) {
        return outcome([&] { return Tavrik_SMS_Decode(pdu.c_str(), &detail); });
    };
    for (const std::string &pdu : {""s, good + "4", good + "\r\n", "x" + good.substr(1), start + "0/", start + ":0",
                                   start + "0@", start + "G0", start + "0`", start + "g0",
                                   kCentre + "11" + good.substr(18),                 // SMS-SUBMIT
                                   pdu_of("00 0141 159121436587092143658709F1"),     // 21 digits
                                   pdu_of("00 A1" + zeros), pdu_of("08 8D" + zeros), // 161 septets, 141 octets
                                   pdu_of("08h 0102"), pdu_of("08h 00"),             // a header beyond the text
                                   good + zeros + zeros})
        EXPECT_EQ(decode(pdu), "-1 Tavrik_SMS_Decode: not a whole SMS-DELIVER or SMS-STATUS-REPORT\n") << pdu;
    EXPECT_EQ(describe(detail), describe(nothing()));
    detail.size = sizeof detail + 100; // of a later version
    EXPECT_EQ(decode(good), "0 ");
    EXPECT_EQ(detail.size, sizeof detail + 100);
    detail.size = sizeof detail - 1;
    EXPECT_EQ(decode(good), "-1 Tavrik_SMS_Decode: Parameter input error\n");
    EXPECT_EQ(Tavrik_SMS_Decode(good.c_str(), nullptr) + Tavrik_SMS_Decode(nullptr, &detail), -2);
}

// "LOCKING-SHIFT SINGLE-SHIFT SEPTETS", in digits.
TEST(Pdu, NationalLanguages) {
    const auto decoded = [](const std::string &text) {
        std::string septets;
        for (size_t i = 0; i < text.size(); i += 2)
            septets += char(std::stoi(text.substr(i, 2), nullptr, 16));
        const std::string header = {6, 0x25, 1, septets[0], 0x24, 1, septets[1]};
        return strict("00h " + sim::hex(pack(header, septets.substr(2))));
    };
    check(decoded, {"00001B651B1B1B0D1B611B0A091B=€ \ra\fÇ", "010104070B40601B531B691B28=€ıĞİçŞı{",
                    "0202401B091B411B751B65=¡çÁú€", "03031215185B1B051B1F1B7F1B2F=ª∞€ÃêÊâ\\",
                    "0404007F1B191B341B001B5A=ঁৱ০৺@Z", "05050C7F1B191B1C1B26=ઍ૱।૦ણ", "0606003C1B261B3A1B3C=ँऩ॑ॱ[",
                    "0707243D1B1C1B2A1B3C=ಡಪ೦ೲ[", "08082E7F1B2E1B34=.൹ൺൿ", "0909607F1B261B2C=\u0B56\u0B63\u0B5C\u0B71",
                    "0A0A607F1B1C1B2D=ੑੴ੦ੵ", "0B0B607F1B261B2E=ௐ௹௳௺", "0C0C607F1B1C1B321B191B65=ౕౣ౦౿ఙ€",
                    "0D0D007F1B1C1B3F1B0D=اٰ۰۔\r", "0D01001B53=اŞ", "0EFF001B531B65=@S€"});
}

} // namespace
