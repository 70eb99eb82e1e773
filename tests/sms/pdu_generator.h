// Valid PDUs with what they must decode to, made the slow and plain way: bit by bit, from the fields of 3GPP TS 23.040.
#pragma once

#include "sms/sms_test.h"

#include <algorithm>
#include <ctime>
#include <random>

inline std::string to_utf8(int point) { // halves of surrogate pairs too
    const auto more = [&](int shift) { return char(0x80 | (point >> shift & 63)); };
    if (point < 0x80)
        return {char(point)};
    if (point < 0x800)
        return {char(0xC0 | point >> 6), more(0)};
    if (point < 0x10000)
        return {char(0xE0 | point >> 12), more(6), more(0)};
    return {char(0xF0 | point >> 18), more(12), more(6), more(0)};
}

// Septets behind `header` (which begins with its length octet, or is empty) and fill bits, with their number in front.
inline std::string pack(const std::string &header, const std::string &septets) {
    std::vector<bool> bits;
    const auto put = [&](const std::string &codes, int width) {
        for (const char code : codes)
            for (int i = 0; i < width; ++i)
                bits.push_back(code >> i & 1);
    };
    put(header, 8);
    bits.resize((bits.size() + 6) / 7 * 7);
    put(septets, 7);
    std::string octets(1 + (bits.size() + 7) / 8, char(0));
    octets[0] = char(bits.size() / 7);
    for (size_t i = 0; i < bits.size(); ++i)
        octets[1 + i / 8] = char(octets[1 + i / 8] | bits[i] << i % 8);
    return octets;
}

class PduGenerator {
  public:
    explicit PduGenerator(uint64_t seed) : random_(seed) {}

    std::string pdu;
    SmsMessage message;
    Tavrik_SmsDetail detail;

    void next() {
        message = {};
        detail = nothing();
        const bool with_header = below(2);
        const int first_octet = with_header << 6 | below(2) << 2 | below(2) << 5 | below(2) << 7;
        detail.protocol = below(128);
        const int encoding = message.encoding = detail.encoding = below(3);
        int coding = encoding << 2;
        if (one_in(3)) {
            detail.message_class = below(4);
            coding |= (encoding < 2 && one_in(2) ? 0xF0 : 0x10) | detail.message_class;
        }
        pdu = kCentre + hex(first_octet) + address() + hex(detail.protocol) + hex(coding) + time_stamp();

        const std::string head = with_header ? header() : "";
        const int room = encoding ? 140 - int(head.size()) : 160 - uint8_t(pack(head, "")[0]);
        const int length = one_in(4) ? room : below(room + 1);
        std::string text, reduced; // as either decoder tells it
        if (encoding == TAVRIK_SMS_7BIT) {
            pdu += sim::hex(pack(head, septets(length, text, reduced)));
        } else {
            const bool data = encoding == TAVRIK_SMS_8BIT;
            const std::string body = head + (data ? text = reduced = octets(length) : units(length, text, reduced));
            pdu += hex(int(body.size())) + sim::hex(body);
        }
        message.length = int32_t(reduced.copy(message.text, sizeof message.text));
        detail.length = int32_t(text.copy(detail.text, sizeof detail.text));
    }

  private:
    static std::string hex(int octet) { return sim::hex({char(octet)}); }

    static std::string swapped(std::string digits) {
        for (size_t i = 1; i < digits.size(); i += 2)
            std::swap(digits[i - 1], digits[i]);
        return digits;
    }

    std::string address() {
        std::string digits(size_t(1 + below(20)), '0');
        for (char &digit : digits)
            digit = char('0' + below(10));
        const bool international = below(2);
        const std::string number = (international ? "+" : "") + digits;
        number.copy(message.number, sizeof message.number);
        number.copy(detail.number, sizeof detail.number);
        return hex(int(digits.size())) + (international ? "91" : "81") +
               swapped(digits + (digits.size() % 2 ? "F" : ""));
    }

    std::string time_stamp() {
        const time_t local = 946684800 + below(0x7FFFFFFF - 946684800); // 2000 to 2038
        const int quarters = below(113) - 56;
        detail.zone = quarters * 15;
        detail.time = int64_t(local) - detail.zone * 60;
        std::tm at;
        char digits[24];
        strftime(digits, sizeof digits, "%Y%m%d%H%M%S", gmtime_r(&local, &at));
        return swapped(digits + 2) + hex(abs(quarters) % 10 << 4 | abs(quarters) / 10 | (quarters < 0 ? 8 : 0));
    }

    // Each element at most once, in any order, and such as nobody knows.
    std::string header() {
        std::string elements[3];
        if (!one_in(4)) {
            const int reference = detail.reference = below(one_in(2) ? 256 : 65536);
            message.concat = 1;
            message.concat_ref = uint8_t(reference);
            message.concat_total = uint8_t(detail.total = 1 + below(255));
            message.concat_seq = uint8_t(detail.sequence = 1 + below(detail.total));
            elements[0] = reference < 256 ? std::string{0, 3} : std::string{8, 4, char(reference >> 8)};
            elements[0] += {char(reference), char(detail.total), char(detail.sequence)};
        }
        if (one_in(3)) {
            const int to = detail.destination_port = below(65536), from = detail.source_port = below(65536);
            elements[1] = {5, 4, char(to >> 8), char(to), char(from >> 8), char(from)};
        }
        if (const std::string data = octets(below(20)); one_in(4))
            elements[2] = std::string{char(0x70 + below(16)), char(data.size())} + data;
        std::shuffle(elements, elements + 3, random_);
        const std::string all = elements[0] + elements[1] + elements[2];
        return char(all.size()) + all;
    }

    std::string septets(int length, std::string &text, std::string &reduced) {
        std::string codes;
        while (int(codes.size()) < length) {
            if (length - int(codes.size()) >= 2 && one_in(8)) {
                const size_t which = size_t(below(10));
                codes += {0x1B, kEscaped[which]};
                text += to_utf8(kMeant[which]);
                reduced += which < 8 ? std::string(1, char(kMeant[which])) : codes.substr(codes.size() - 2);
            } else if (const char code = char(below(128)); code != 0x1B) {
                codes += code;
                text += to_utf8(kAlphabet[size_t(code)]);
                reduced += code == 0 ? '@' : code == 2 ? '$' : code == 0x11 ? '_' : code;
            }
        }
        return codes;
    }

    std::string units(int octets, std::string &text, std::string &reduced) {
        std::string made;
        for (int left; (left = octets - int(made.size())) >= 2;) {
            const int planes = left >= 4 && one_in(6) ? 0x110000 : one_in(2) ? 0x80 : one_in(2) ? 0x800 : 0x10000;
            const int point = 1 + below(planes - 1);
            if (point >= 0xD800 && point < 0xE000)
                continue;
            const std::vector<int> halves = {0xD7C0 + (point >> 10), 0xDC00 + point % 0x400};
            for (const int unit : point > 0xFFFF ? halves : std::vector<int>{point}) {
                made += {char(unit >> 8), char(unit)};
                reduced += to_utf8(unit);
            }
            text += to_utf8(point);
        }
        return made;
    }

    std::string octets(int count) {
        std::string made;
        while (int(made.size()) < count)
            made += char(below(256));
        return made;
    }

    int below(int limit) { return int(random_() % uint64_t(limit)); }
    bool one_in(int n) { return !below(n); }

    static constexpr char16_t kAlphabet[] = u"@£$¥èéùìòÇ\nØø\rÅåΔ_ΦΓΛΩΠΨΣΘΞ\x1bÆæßÉ !\"#¤%&'()*+,-./0123456789:;<=>?"
                                            u"¡ABCDEFGHIJKLMNOPQRSTUVWXYZÄÖÑÜ§¿abcdefghijklmnopqrstuvwxyzäöñüà";
    // Codes behind an escape, and what they mean; the last two to Tavrik_SMS_Decode() alone.
    static constexpr char kEscaped[] = "\x14()/<=>@\ne";
    static constexpr char16_t kMeant[] = u"^{}\\[~]|\f€";

    std::mt19937_64 random_;
};
