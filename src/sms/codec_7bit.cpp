// GSM 7-bit text: unpacking, and the reduced alphabet of SmsMessage.
#include "tavrik_sdk.h"

int decode_7bit(const uint8_t *packed, int count, int header_octets, uint8_t *septets, int32_t *length) {
    if (!packed || !septets || !length || count <= 0)
        return -1;
    // The text goes on at the next multiple of 7 bits, seen from the start of the header.
    const int fill = header_octets > 0 ? (7 - header_octets % 7) % 7 : 0;
    unsigned held = *packed++ >> fill;
    int bits = 8 - fill;
    for (int i = 0; i < count; ++i) {
        if (bits < 7) {
            held |= unsigned(*packed++) << bits;
            bits += 8;
        }
        const unsigned septet = held & 0x7F;
        septets[i] = uint8_t(septet ? septet : 0x80);
        held >>= 7;
        bits -= 7;
    }
    *length = count;
    return 0;
}

namespace {

// What stands behind an escape; 0 for all that the reduced alphabet does not know.
char escaped(uint8_t code) {
    switch (code) {
    case 0x14:
        return '^';
    case 0x28:
        return '{';
    case 0x29:
        return '}';
    case 0x2F:
        return '\\';
    case 0x3C:
        return '[';
    case 0x3D:
        return '~';
    case 0x3E:
        return ']';
    case 0x40:
        return '|';
    }
    return 0;
}

} // namespace

void gsm_to_ascii(const uint8_t *septets, int count, char *text, int32_t *length) {
    if (!septets || !text || !length)
        return;
    char *out = text;
    for (int i = 0; i < count; ++i) {
        char c = char(septets[i]);
        switch (septets[i]) {
        case 0x80:
            c = '@';
            break;
        case 0x02:
            c = '$';
            break;
        case 0x11:
            c = '_';
            break;
        case 0x1B: {
            const char known = i + 1 < count ? escaped(septets[i + 1]) : char(0);
            if (known) {
                c = known;
                ++i;
            }
        }
        }
        *out++ = c;
    }
    *length = int32_t(out - text);
}
