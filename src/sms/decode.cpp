// Tavrik_SMS_Decode: strict where creat_from_pdu is lenient, and complete.
#include "core/log.h"
#include "sms/alphabet.h"
#include "sms/utf8.h"
#include "tavrik_sdk.h"

#include <string.h>

static_assert(sizeof(Tavrik_SmsDetail) == 656 && offsetof(Tavrik_SmsDetail, time) == 8 &&
                  offsetof(Tavrik_SmsDetail, zone) == 24 && offsetof(Tavrik_SmsDetail, length) == 72 &&
                  offsetof(Tavrik_SmsDetail, last_half) == 76 && offsetof(Tavrik_SmsDetail, number) == 80 &&
                  offsetof(Tavrik_SmsDetail, text) == 144,
              "the layout is shared with applications");

namespace {

constexpr size_t kLongestPdu = 512; // characters
constexpr int kMostOctets = 140;    // of user data, 160 septets
constexpr int kMostSeptets = 160;

// Takes octets from the front. Once one was missing, all is zero and `ok` is false.
class Reader {
  public:
    Reader(const uint8_t *at, int left) : at_(at), left_(left) {}
    uint8_t octet() {
        const uint8_t *one = octets(1);
        return one ? *one : uint8_t(0);
    }
    const uint8_t *octets(int count) {
        if (count > left_)
            ok = false;
        if (!ok)
            return nullptr;
        const uint8_t *taken = at_;
        at_ += count;
        left_ -= count;
        return taken;
    }

    bool ok = true;

  private:
    const uint8_t *at_;
    int left_;
};

bool read_address(Reader &pdu, Tavrik_SmsDetail &detail) {
    const int digits = pdu.octet();
    const int kind = pdu.octet() >> 4 & 7;
    const uint8_t *octets = pdu.octets((digits + 1) / 2);
    if (!octets || digits > 20)
        return false;
    char *out = detail.number;
    if (kind == 5) {
        uint8_t septets[20 * 4 / 7];
        int32_t count = 0;
        decode_7bit(octets, digits * 4 / 7, 0, septets, &count);
        out += tavrik::gsm_to_utf8(septets, count, 0, 0, out);
    } else {
        if (kind == 1)
            *out++ = '+';
        for (int i = 0; i < digits; ++i) {
            const int digit = octets[i / 2] >> (i % 2 * 4) & 15;
            if (digit == 15)
                break;
            *out++ = "0123456789*#abc"[digit];
        }
    }
    *out = 0;
    return true;
}

// Days from 1970-01-01 on, for the years 2000 to 2099.
int64_t days_to(int year, int month, int day) {
    constexpr int kBefore[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    const int leap_days = (year - 1969) / 4 + (year % 4 == 0 && month > 2);
    return (year - 1970) * 365 + leap_days + kBefore[month - 1] + day - 1;
}

// Two decimal digits, the tens in the low half.
int decimal(uint8_t octet) {
    const int tens = octet & 15, ones = octet >> 4;
    return tens > 9 || ones > 9 ? 100 : 10 * tens + ones;
}

void read_time(Reader &pdu, int64_t &time, int32_t &zone) {
    const uint8_t *octets = pdu.octets(7);
    time = TAVRIK_SMS_NO_TIME;
    if (!octets)
        return;
    const int year = decimal(octets[0]), month = decimal(octets[1]), day = decimal(octets[2]);
    const int hour = decimal(octets[3]), minute = decimal(octets[4]), second = decimal(octets[5]);
    const int quarters = decimal(octets[6] & ~8);
    if (year > 99 || month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 59 ||
        quarters > 79)
        return;
    zone = (octets[6] & 8 ? -15 : 15) * quarters;
    time = ((days_to(2000 + year, month, day) * 24 + hour) * 60 + minute - zone) * 60 + second;
}

// `compressed` text is for nobody here to read.
void read_coding(uint8_t coding, Tavrik_SmsDetail &detail) {
    const int group = coding >> 4;
    if (group < 8) {
        const bool compressed = coding & 0x20;
        const int alphabet = coding >> 2 & 3;
        detail.encoding = compressed ? TAVRIK_SMS_8BIT : alphabet == 3 ? TAVRIK_SMS_7BIT : alphabet;
        if (coding & 0x10)
            detail.message_class = coding & 3;
    } else if (group == 14) {
        detail.encoding = TAVRIK_SMS_UCS2;
    } else if (group == 15) {
        detail.encoding = coding & 4 ? TAVRIK_SMS_8BIT : TAVRIK_SMS_7BIT;
        detail.message_class = coding & 3;
    }
}

struct Shifts {
    int locking = 0, single = 0;
};

// An element of a wrong length, or with wrong numbers in it, counts as absent.
void read_element(int id, const uint8_t *data, int length, Tavrik_SmsDetail &detail, Shifts &shifts) {
    const int wide = length - 3; // 1 when a reference has 16 bits
    if ((id == 0x00 && length == 3) || (id == 0x08 && length == 4)) {
        const int total = data[wide + 1], sequence = data[wide + 2];
        if (sequence >= 1 && sequence <= total) {
            detail.reference = wide ? data[0] << 8 | data[1] : data[0];
            detail.total = total;
            detail.sequence = sequence;
        }
    } else if (id == 0x04 && length == 2) {
        detail.destination_port = data[0];
        detail.source_port = data[1];
    } else if (id == 0x05 && length == 4) {
        detail.destination_port = data[0] << 8 | data[1];
        detail.source_port = data[2] << 8 | data[3];
    } else if (id == 0x24 && length == 1) {
        shifts.single = data[0];
    } else if (id == 0x25 && length == 1) {
        shifts.locking = data[0];
    }
}

// A header whose elements do not fill it exactly counts as empty.
void read_header(const uint8_t *header, int length, Tavrik_SmsDetail &detail, Shifts &shifts) {
    int at = 0;
    while (at + 2 <= length)
        at += header[at + 1] + 2;
    if (at != length)
        return;
    for (at = 0; at < length; at += header[at + 1] + 2)
        read_element(header[at], header + at + 2, header[at + 1], detail, shifts);
}

char *utf16_to_utf8(const uint8_t *data, int octets, Tavrik_SmsDetail &detail) {
    char *out = detail.text;
    const auto unit_at = [&](int i) { return i + 1 < octets ? uint32_t(data[i]) << 8 | data[i + 1] : 0; };
    for (int i = 0; i + 1 < octets; i += 2) {
        uint32_t point = unit_at(i);
        if (tavrik::is_first_half(point) && tavrik::is_second_half(unit_at(i + 2))) {
            point = tavrik::joined_halves(point, unit_at(i + 2));
            i += 2;
        } else if (tavrik::is_first_half(point)) {
            if (i + 3 >= octets)
                detail.last_half = uint16_t(point);
            point = tavrik::kReplacement;
        } else if (tavrik::is_second_half(point)) {
            if (i == 0)
                detail.first_half = uint16_t(point);
            point = tavrik::kReplacement;
        }
        out = tavrik::put_utf8(out, point);
    }
    return out;
}

bool read_user_data(Reader &pdu, bool with_header, Tavrik_SmsDetail &detail) {
    const int length = pdu.octet();
    const bool packed = detail.encoding == TAVRIK_SMS_7BIT;
    const int octets = packed ? (length * 7 + 7) / 8 : length;
    const uint8_t *data = pdu.octets(octets);
    if (!data || octets > kMostOctets)
        return false;

    Shifts shifts;
    int header = 0;
    if (with_header) {
        header = octets ? data[0] + 1 : 1;
        if (header > octets)
            return false;
        read_header(data + 1, header - 1, detail, shifts);
    }
    char *end = detail.text;
    if (packed) {
        uint8_t septets[kMostSeptets];
        int32_t count = 0;
        decode_7bit(data + header, length - (header * 8 + 6) / 7, header, septets, &count);
        end += tavrik::gsm_to_utf8(septets, count, shifts.locking, shifts.single, end);
    } else if (detail.encoding == TAVRIK_SMS_UCS2) {
        end = utf16_to_utf8(data + header, octets - header, detail);
    } else {
        memcpy(end, data + header, size_t(octets - header));
        end += octets - header;
    }
    *end = 0;
    detail.length = int32_t(end - detail.text);
    return true;
}

bool read_pdu(Reader &pdu, Tavrik_SmsDetail &detail) {
    pdu.octets(pdu.octet()); // the service centre's address
    const uint8_t first = pdu.octet();
    switch (first & 3) {
    case 2:
        detail.type = TAVRIK_SMS_REPORT;
        detail.message_reference = pdu.octet();
        if (!read_address(pdu, detail))
            return false;
        read_time(pdu, detail.time, detail.zone);
        read_time(pdu, detail.discharge_time, detail.discharge_zone);
        detail.status = pdu.octet();
        return pdu.ok;
    case 1: // sent from a mobile, never received by one
        return false;
    }
    detail.type = TAVRIK_SMS_DELIVER; // 3 is reserved and counts as one
    if (!read_address(pdu, detail))
        return false;
    detail.protocol = pdu.octet();
    read_coding(pdu.octet(), detail);
    read_time(pdu, detail.time, detail.zone);
    return read_user_data(pdu, first & 0x40, detail);
}

} // namespace

int Tavrik_SMS_Decode(const char *pdu, Tavrik_SmsDetail *detail) {
    if (!pdu || !detail || detail->size < sizeof *detail) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    Tavrik_SmsDetail made = {};
    made.size = detail->size;
    made.time = made.discharge_time = TAVRIK_SMS_NO_TIME;
    made.message_class = made.protocol = made.source_port = made.destination_port = made.reference = -1;
    made.message_reference = made.status = -1;

    uint8_t octets[kLongestPdu / 2];
    int32_t count = 0;
    const size_t length = strnlen(pdu, kLongestPdu + 1);
    if (length <= kLongestPdu)
        ascii_to_hex(pdu, int(length), octets, &count);
    Reader reader(octets, count);
    if (length % 2 || size_t(count) != length / 2 || !read_pdu(reader, made)) {
        TAVRIK_LOG_ERROR("not a whole SMS-DELIVER or SMS-STATUS-REPORT");
        return -1;
    }
    *detail = made;
    return 0;
}
