#include "sms/pdu_generator.h"

#include <ctime>
#include <map>

namespace {

const std::u16string kAlphabet = u"@£$¥èéùìòÇ\nØø\rÅåΔ_ΦΓΛΩΠΨΣΘΞ\x1bÆæßÉ !\"#¤%&'()*+,-./0123456789:;<=>?"
                                 u"¡ABCDEFGHIJKLMNOPQRSTUVWXYZÄÖÑÜ§¿abcdefghijklmnopqrstuvwxyzäöñüà";
const std::map<int, char32_t> kEscaped = {{0x0A, '\f'}, {0x14, '^'}, {0x28, '{'}, {0x29, '}'}, {0x2F, '\\'},
                                          {0x3C, '['},  {0x3D, '~'}, {0x3E, ']'}, {0x40, '|'}, {0x65, U'€'}};

void append(std::vector<uint8_t> &to, const std::vector<uint8_t> &more) {
    to.insert(to.end(), more.begin(), more.end());
}

uint8_t swapped(int value) {
    return uint8_t(value % 10 << 4 | value / 10);
}

std::string unit_to_utf8(uint16_t unit) { // halves of surrogate pairs too
    std::string text;
    if (unit < 0x80)
        return {char(unit)};
    if (unit < 0x800)
        return {char(0xC0 | unit >> 6), char(0x80 | (unit & 63))};
    return {char(0xE0 | unit >> 12), char(0x80 | (unit >> 6 & 63)), char(0x80 | (unit & 63))};
}

} // namespace

std::string to_utf8(uint32_t point) {
    if (point <= 0xFFFF)
        return unit_to_utf8(uint16_t(point));
    return {char(0xF0 | point >> 18), char(0x80 | (point >> 12 & 63)), char(0x80 | (point >> 6 & 63)),
            char(0x80 | (point & 63))};
}

std::string to_hex(const std::vector<uint8_t> &octets) {
    std::string hex;
    for (const uint8_t octet : octets) {
        hex += "0123456789ABCDEF"[octet / 16];
        hex += "0123456789ABCDEF"[octet % 16];
    }
    return hex;
}

int septet_length(const std::vector<uint8_t> &header, const std::vector<uint8_t> &septets) {
    return int((header.size() * 8 + 6) / 7 + septets.size());
}

std::vector<uint8_t> pack_septets(const std::vector<uint8_t> &header, const std::vector<uint8_t> &septets) {
    std::vector<bool> bits;
    for (const uint8_t octet : header)
        for (int i = 0; i < 8; ++i)
            bits.push_back(octet >> i & 1);
    while (bits.size() % 7)
        bits.push_back(false);
    for (const uint8_t septet : septets)
        for (int i = 0; i < 7; ++i)
            bits.push_back(septet >> i & 1);
    std::vector<uint8_t> octets((bits.size() + 7) / 8);
    for (size_t i = 0; i < bits.size(); ++i)
        octets[i / 8] |= uint8_t(bits[i] << i % 8);
    return octets;
}

PduGenerator::Octets PduGenerator::address(GeneratedPdu &made) {
    Octets octets;
    int digits;
    if (one_in(4)) {
        Octets name;
        const int length = 1 + below(11);
        for (int i = 0; i < length; ++i) {
            const int code = 0x20 + below(0x60);
            name.push_back(uint8_t(code));
            made.full_number += to_utf8(kAlphabet[size_t(code)]);
        }
        octets = pack_septets({}, name);
        digits = (length * 7 + 3) / 4;
        for (const uint8_t octet : octets)
            made.number += {"0123456789ABCDEF"[octet & 15], "0123456789ABCDEF"[octet >> 4]};
        if (made.number.back() == 'F')
            made.number.pop_back();
        octets.insert(octets.begin(), 0xD0);
    } else {
        const bool international = below(2);
        made.number = international ? "+" : "";
        octets.push_back(international ? 0x91 : 0x81);
        digits = 1 + below(20);
        for (int i = 0; i < digits; ++i) {
            const int digit = below(10);
            made.number += char('0' + digit);
            if (i % 2)
                octets.back() = uint8_t((octets.back() & 15) | digit << 4);
            else
                octets.push_back(uint8_t(0xF0 | digit));
        }
        made.full_number = made.number;
    }
    octets.insert(octets.begin(), uint8_t(digits));
    return octets;
}

PduGenerator::Octets PduGenerator::time_stamp(int64_t &time, int &zone) {
    std::tm local = {};
    local.tm_year = 100 + below(38); // as far as a time_t of 32 bits goes
    local.tm_mon = below(12);
    local.tm_mday = 1 + below(28);
    local.tm_hour = below(24);
    local.tm_min = below(60);
    local.tm_sec = below(60);
    const int quarters = below(113) - 56;
    zone = quarters * 15;
    time = int64_t(timegm(&local)) - zone * 60;
    const int size = quarters < 0 ? -quarters : quarters;
    return {swapped(local.tm_year - 100),
            swapped(local.tm_mon + 1),
            swapped(local.tm_mday),
            swapped(local.tm_hour),
            swapped(local.tm_min),
            swapped(local.tm_sec),
            uint8_t(swapped(size) | (quarters < 0 ? 8 : 0))};
}

// Each element at most once, in any order, and such as nobody knows.
PduGenerator::Octets PduGenerator::header(GeneratedPdu &made) {
    Octets octets;
    const int rotation = below(3);
    for (int i = 0; i < 3; ++i) {
        switch ((i + rotation) % 3) {
        case 0:
            if (one_in(4))
                break;
            made.concat = true;
            made.reference = below(one_in(2) ? 256 : 65536);
            made.concat_ref = made.reference & 255;
            made.concat_total = 1 + below(255);
            made.concat_seq = 1 + below(made.concat_total);
            append(octets, made.reference < 256 ? Octets{0, 3} : Octets{8, 4, uint8_t(made.reference >> 8)});
            append(octets, {uint8_t(made.concat_ref), uint8_t(made.concat_total), uint8_t(made.concat_seq)});
            break;
        case 1:
            if (one_in(4)) {
                made.destination_port = below(65536);
                made.source_port = below(65536);
                append(octets, {5, 4, uint8_t(made.destination_port >> 8), uint8_t(made.destination_port),
                                uint8_t(made.source_port >> 8), uint8_t(made.source_port)});
            } else if (one_in(6)) {
                made.destination_port = below(256);
                made.source_port = below(256);
                append(octets, {4, 2, uint8_t(made.destination_port), uint8_t(made.source_port)});
            }
            break;
        case 2:
            if (one_in(4)) {
                const int length = below(20);
                append(octets, {uint8_t(0x70 + below(16)), uint8_t(length)});
                for (int j = 0; j < length; ++j)
                    octets.push_back(uint8_t(below(256)));
            }
        }
    }
    octets.insert(octets.begin(), uint8_t(octets.size()));
    return octets;
}

PduGenerator::Octets PduGenerator::septets(size_t room, GeneratedPdu &made) {
    static const std::string kReduced = "^{}\\[~]|";
    const size_t length = one_in(4) ? room : one_in(4) ? size_t(12) : size_t(below(int(room) + 1));
    Octets codes;
    while (codes.size() < length) {
        const auto escaped = std::next(kEscaped.begin(), below(int(kEscaped.size())));
        if (length - codes.size() >= 2 && one_in(8)) {
            append(codes, {0x1B, uint8_t(escaped->first)});
            made.full_text += to_utf8(escaped->second);
            if (kReduced.find(char(escaped->second)) != std::string::npos && escaped->second < 0x80)
                made.text += char(escaped->second);
            else
                made.text += {0x1B, char(escaped->first)};
            continue;
        }
        const int code = below(128);
        if (code == 0x1B)
            continue;
        codes.push_back(uint8_t(code));
        made.full_text += to_utf8(kAlphabet[size_t(code)]);
        made.text += code == 0 ? '@' : code == 2 ? '$' : code == 0x11 ? '_' : char(code);
    }
    return codes;
}

PduGenerator::Octets PduGenerator::units(size_t room, GeneratedPdu &made) {
    const size_t length = one_in(3) ? room : size_t(below(int(room) + 1));
    Octets octets;
    const auto put = [&](uint32_t unit) {
        append(octets, {uint8_t(unit >> 8), uint8_t(unit)});
        made.text += unit_to_utf8(uint16_t(unit));
    };
    while (octets.size() + 1 < length) {
        if (one_in(6) && octets.size() + 3 < length) {
            const uint32_t point = 0x10000 + uint32_t(below(0x100000));
            put(0xD800 + (point - 0x10000) / 0x400);
            put(0xDC00 + (point - 0x10000) % 0x400);
            made.full_text += to_utf8(point);
            continue;
        }
        const uint32_t unit = 1 + uint32_t(below(one_in(2) ? 0x7F : one_in(2) ? 0x7FF : 0xFFFF));
        if (unit >= 0xD800 && unit < 0xE000)
            continue;
        put(unit);
        made.full_text += to_utf8(unit);
    }
    return octets;
}

GeneratedPdu PduGenerator::next() {
    GeneratedPdu made;
    Octets octets = {0x07, 0x91, 0x94, 0x71, 0x01, 0x67, 0x05, 0xF0}; // the service centre
    if (one_in(8)) {
        made.report = true;
        octets.push_back(uint8_t(0x02 | below(2) << 2));
        made.message_reference = below(256);
        octets.push_back(uint8_t(made.message_reference));
        append(octets, address(made));
        append(octets, time_stamp(made.time, made.zone));
        append(octets, time_stamp(made.discharge_time, made.discharge_zone));
        made.status = below(128);
        octets.push_back(uint8_t(made.status));
        made.pdu = to_hex(octets);
        return made;
    }
    const bool with_header = one_in(2);
    octets.push_back(uint8_t((with_header ? 0x40 : 0) | below(2) << 2 | below(2) << 5 | below(2) << 7));
    append(octets, address(made));
    made.protocol = below(128);
    octets.push_back(uint8_t(made.protocol));
    made.encoding = below(3);
    int coding = made.encoding << 2;
    if (one_in(3)) {
        made.message_class = below(4);
        coding |= (made.encoding < 2 && one_in(2) ? 0xF0 : 0x10) | made.message_class;
    }
    octets.push_back(uint8_t(coding));
    append(octets, time_stamp(made.time, made.zone));

    const Octets head = with_header ? header(made) : Octets();
    if (made.encoding == 0) {
        const Octets codes = septets(size_t(160 - septet_length(head, {})), made);
        octets.push_back(uint8_t(septet_length(head, codes)));
        append(octets, pack_septets(head, codes));
    } else {
        Octets data;
        const size_t room = 140 - head.size();
        if (made.encoding == 2) {
            data = units(room, made);
        } else {
            for (int left = below(int(room) + 1); left; --left)
                data.push_back(uint8_t(below(256)));
            made.text = made.full_text = std::string(data.begin(), data.end());
        }
        octets.push_back(uint8_t(head.size() + data.size()));
        append(octets, head);
        append(octets, data);
    }
    made.pdu = to_hex(octets);
    return made;
}
