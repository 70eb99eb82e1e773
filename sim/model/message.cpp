#include "model/message.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>

namespace tavrik::sim {

namespace {

using Octets = std::vector<uint8_t>;
using Codes = std::vector<uint8_t>;

constexpr size_t max_parts = 255;
constexpr uint8_t escape = 0x1B;
// 2024-09-24 14:08:30, UTC + 2 h
const Octets time_stamp = {0x42, 0x90, 0x42, 0x41, 0x80, 0x03, 0x80};
const Octets centre = {0x07, 0x91, 0x94, 0x71, 0x01, 0x67, 0x05, 0xF0};

// The default alphabet, and what stands behind an escape (3GPP TS 23.038 clause 6.2.1).
const std::u32string alphabet = U"@£$¥èéùìòÇ\nØø\rÅåΔ_ΦΓΛΩΠΨΣΘΞ\x1b\u00c6æßÉ !\"#¤%&'()*+,-./0123456789:;<=>?"
                                U"¡ABCDEFGHIJKLMNOPQRSTUVWXYZÄÖÑÜ§¿abcdefghijklmnopqrstuvwxyzäöñüà";
const std::u32string extended = U"\f^{}\\[~]|€";
const Codes extended_codes = {0x0A, 0x14, 0x28, 0x29, 0x2F, 0x3C, 0x3D, 0x3E, 0x40, 0x65};

void append(Octets &to, const Octets &more) {
    to.insert(to.end(), more.begin(), more.end());
}

std::string hex(const Octets &octets) {
    std::string text;
    for (uint8_t octet : octets) {
        text += "0123456789ABCDEF"[octet >> 4];
        text += "0123456789ABCDEF"[octet & 15];
    }
    return text;
}

std::u32string points_of(const std::string &utf8) {
    std::u32string points;
    for (size_t i = 0; i < utf8.size();) {
        auto lead = static_cast<unsigned char>(utf8[i++]);
        int more = lead < 0x80 ? 0 : lead >= 0xC2 && lead < 0xE0 ? 1 : lead >= 0xE0 && lead < 0xF0 ? 2 : 3;
        if ((lead >= 0x80 && lead < 0xC2) || lead >= 0xF5)
            throw std::invalid_argument("\"text\" is not UTF-8");
        char32_t point = more ? lead & (0x3F >> more) : lead;
        for (; more; more--, i++) {
            if (i >= utf8.size() || (static_cast<unsigned char>(utf8[i]) & 0xC0) != 0x80)
                throw std::invalid_argument("\"text\" is not UTF-8");
            point = point << 6 | (static_cast<unsigned char>(utf8[i]) & 0x3F);
        }
        points += point;
    }
    return points;
}

// Units that belong together: an escape and its code, the two halves of a pair. Empty when the alphabet has no such
// character.
Codes septets_of(char32_t point) {
    if (size_t at = extended.find(point); at != std::u32string::npos)
        return {escape, extended_codes[at]};
    size_t at = alphabet.find(point);
    return at == std::u32string::npos || at == escape ? Codes() : Codes{static_cast<uint8_t>(at)};
}

Octets units_of(char32_t point) {
    if (point < 0x10000)
        return {static_cast<uint8_t>(point >> 8), static_cast<uint8_t>(point)};
    char32_t high = 0xD800 + (point - 0x10000) / 0x400, low = 0xDC00 + (point - 0x10000) % 0x400;
    return {static_cast<uint8_t>(high >> 8), static_cast<uint8_t>(high), static_cast<uint8_t>(low >> 8),
            static_cast<uint8_t>(low)};
}

// Septets behind a header of so many octets, lowest bits first.
Octets pack(const Octets &header, const Codes &septets) {
    Octets octets = header;
    size_t bit = (header.size() * 8 + 6) / 7 * 7;
    for (uint8_t septet : septets) {
        octets.resize((bit + 7 + 7) / 8);
        for (int i = 0; i < 7; i++, bit++)
            octets[bit / 8] |= static_cast<uint8_t>((septet >> i & 1) << bit % 8);
    }
    return octets;
}

Octets address(const std::string &text) {
    Octets octets;
    bool plus = text.rfind('+', 0) == 0;
    std::string digits = text.substr(plus);
    if (!digits.empty() && digits.size() <= 20 && digits.find_first_not_of("0123456789") == std::string::npos) {
        octets = {static_cast<uint8_t>(digits.size()), static_cast<uint8_t>(plus ? 0x91 : 0x81)};
        for (size_t i = 0; i < digits.size(); i += 2) {
            int high = i + 1 < digits.size() ? digits[i + 1] - '0' : 15;
            octets.push_back(static_cast<uint8_t>(high << 4 | (digits[i] - '0')));
        }
        return octets;
    }
    Codes name;
    for (char32_t point : points_of(text)) {
        Codes codes = septets_of(point);
        if (codes.empty())
            name.resize(12);
        append(name, codes);
    }
    if (name.empty() || name.size() > 11)
        throw std::invalid_argument(
            "a sender is a number of 20 digits at most, or a name of 11 GSM characters at most");
    octets = {static_cast<uint8_t>((name.size() * 7 + 3) / 4), 0xD0};
    append(octets, pack({}, name));
    return octets;
}

} // namespace

std::vector<std::string> deliver_pdus(const std::string &from, const std::string &text, int reference) {
    const std::u32string points = points_of(text);
    const bool packed =
        std::all_of(points.begin(), points.end(), [](char32_t point) { return !septets_of(point).empty(); });
    const auto coded = packed ? septets_of : units_of;
    const size_t whole = packed ? 160 : 140, part = packed ? 153 : 134;

    std::vector<Octets> parts(1);
    size_t length = 0;
    for (char32_t point : points)
        length += coded(point).size();
    for (char32_t point : points) {
        if (length > whole && parts.back().size() + coded(point).size() > part)
            parts.emplace_back();
        append(parts.back(), coded(point));
    }
    if (parts.size() > max_parts)
        throw std::invalid_argument("\"text\" is too long");

    std::vector<std::string> pdus;
    for (size_t i = 0; i < parts.size(); i++) {
        Octets header;
        if (parts.size() > 1)
            header = {5,
                      0,
                      3,
                      static_cast<uint8_t>(reference),
                      static_cast<uint8_t>(parts.size()),
                      static_cast<uint8_t>(i + 1)};
        Octets pdu = centre;
        pdu.push_back(header.empty() ? 0x04 : 0x44);
        append(pdu, address(from));
        append(pdu, {0x00, static_cast<uint8_t>(packed ? 0x00 : 0x08)});
        append(pdu, time_stamp);
        if (packed) {
            pdu.push_back(static_cast<uint8_t>((header.size() * 8 + 6) / 7 + parts[i].size()));
            append(pdu, pack(header, parts[i]));
        } else {
            pdu.push_back(static_cast<uint8_t>(header.size() + parts[i].size()));
            append(pdu, header);
            append(pdu, parts[i]);
        }
        pdus.push_back(hex(pdu));
    }
    return pdus;
}

std::string report_pdu(const std::string &to, int reference, int status) {
    Octets pdu = centre;
    append(pdu, {0x06, static_cast<uint8_t>(reference)});
    append(pdu, address(to));
    append(pdu, time_stamp);
    append(pdu, time_stamp);
    pdu.push_back(static_cast<uint8_t>(status));
    return hex(pdu);
}

std::string message_line(const std::string &pdu) {
    size_t octets = pdu.size() / 2;
    if (pdu.size() < 2 || pdu.size() % 2 || pdu.find_first_not_of("0123456789ABCDEFabcdef") != std::string::npos)
        throw std::invalid_argument("\"pdu\" is an even number of hex digits");
    size_t in_front = 1 + std::stoul(pdu.substr(0, 2), nullptr, 16);
    return "+CMT: ," + std::to_string(octets - std::min(octets, in_front)) + "\r\n" + pdu;
}

} // namespace tavrik::sim
