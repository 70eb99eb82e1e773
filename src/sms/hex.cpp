// Hexadecimal text, and what PDUs write in semi-octets: telephone numbers and times.
#include "core/log.h"
#include "tavrik_sdk.h"

#include <stdio.h>
#include <string.h>

namespace {

constexpr uint8_t kNoDigit = 0xFF, X = kNoDigit;
// From "0" to "f".
constexpr uint8_t kDigits[] = {0,  1,  2,  3,  4, 5, 6, 7, 8, 9, X, X,  X,  X,  X,  X,  X, 10, 11,
                               12, 13, 14, 15, X, X, X, X, X, X, X, X,  X,  X,  X,  X,  X, X,  X,
                               X,  X,  X,  X,  X, X, X, X, X, X, X, 10, 11, 12, 13, 14, 15};
static_assert(sizeof kDigits == 'f' - '0' + 1 && kDigits['a' - '0'] == 10 && kDigits['F' - '0'] == 15);

uint8_t digit(char c) {
    const unsigned place = unsigned(uint8_t(c)) - '0';
    return place < sizeof kDigits ? kDigits[place] : kNoDigit;
}

} // namespace

int is_sms_pdu_format(const char *text) {
    if (!text)
        return -1;
    if (strlen(text) % 2) {
        TAVRIK_LOG_ERROR("pdu format errpr");
        return -1;
    }
    return *text && digit(*text) == kNoDigit ? -1 : 0;
}

int ascii_to_hex(const char *text, int length, uint8_t *bytes, int32_t *count) {
    if (!count)
        return 0;
    *count = 0;
    if (!text || !bytes)
        return 0;
    int done = 0;
    for (; done + 1 < length; done += 2) {
        const uint8_t high = digit(text[done]), low = digit(text[done + 1]);
        if ((high | low) == kNoDigit)
            break;
        bytes[done / 2] = uint8_t(high << 4 | low);
    }
    // Half a byte in front of the end, or of what is no digit, counts as one.
    if (done < length && digit(text[done]) != kNoDigit) {
        bytes[done / 2] = uint8_t(digit(text[done]) << 4);
        ++done;
    }
    *count = (done + 1) / 2;
    return 0;
}

int hex_to_ascii(const uint8_t *bytes, int count, char *text, int32_t *length) {
    if (!bytes || !text || !length || count <= 0)
        return -1;
    for (int i = 0; i < count; ++i) {
        *text++ = "0123456789ABCDEF"[bytes[i] >> 4];
        *text++ = "0123456789ABCDEF"[bytes[i] & 15];
    }
    *length = 2 * count;
    return 0;
}

int hex_to_ascii_low(uint8_t *bytes, int count, char *text, int32_t *length) {
    if (!bytes || !text || !length || count <= 0)
        return -1;
    for (int i = 0; i < count; ++i)
        bytes[i] = uint8_t(bytes[i] << 4 | bytes[i] >> 4);
    return hex_to_ascii(bytes, count, text, length);
}

int decode_number(uint8_t *address, int count, char *number) {
    if (!address || !number || count <= 0)
        return -1;
    char *end = number;
    if (address[0] == 0x91)
        *end++ = '+';
    int32_t digits = 0;
    hex_to_ascii_low(address + 1, count - 1, end, &digits);
    end += digits;
    if (end > number && end[-1] == 'F')
        --end;
    *end = 0;
    return 0;
}

int decode_time_stamp(const uint8_t *octets, int count, char *text) {
    if (!octets || !text || count != 7)
        return -1;
    int field[6];
    for (int i = 0; i < 6; ++i)
        field[i] = (octets[i] & 15) * 10 + (octets[i] >> 4);
    sprintf(text, "%04d-%02d-%02d %02d:%02d:%02d", field[0] + 2000, field[1], field[2], field[3], field[4], field[5]);
    return 0;
}
