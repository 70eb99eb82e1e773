// Received PDUs into SmsMessage. Whatever a PDU announces, only octets that it has are read: those behind its end count
// as zero, and texts end where it ends.
#include "core/log.h"
#include "tavrik_sdk.h"

#include <algorithm>
#include <stdlib.h>
#include <string.h>

static_assert(sizeof(SmsMessage) == 324 && offsetof(SmsMessage, encoding) == 4 && offsetof(SmsMessage, number) == 8 &&
                  offsetof(SmsMessage, text) == 58 && offsetof(SmsMessage, length) == 316 &&
                  offsetof(SmsMessage, result) == 320,
              "the layout is shared with applications");

namespace {

constexpr size_t kLongestPdu = 512; // characters
constexpr int kMostOctets = kLongestPdu / 2;
constexpr size_t kHeaderSize = 324; // of what parse_udh returns

struct Octets {
    uint8_t *at;
    int count;

    uint8_t operator[](int i) const { return i < count ? at[i] : 0; }
    Octets from(int i) const {
        const int skipped = std::min(i, count);
        return {at + skipped, count - skipped};
    }
    int at_most(int wanted) const { return std::min(wanted, count); }
};

template <int size>
void copy_bounded(char (&field)[size], const char *text, int length) {
    memcpy(field, text, size_t(std::min(length, size)));
    if (length < size)
        field[length] = 0;
}

// `address` is the length in digits, the type, and the digits. The octets behind the length.
int address_octets(Octets address) {
    return (address[0] + 1) / 2 + 1;
}

void set_number(Octets address, SmsMessage *message) {
    char number[2 * (255 / 2 + 2)] = "";
    const Octets digits = address.from(1);
    decode_number(digits.at, digits.at_most(address_octets(address)), number);
    copy_bounded(message->number, number, int(strlen(number)));
}

// The octets of the header in front of the text, its length octet included.
int read_header(Octets data, SmsMessage *message) {
    const Octets elements = data.from(1);
    if (uint8_t *found = parse_udh(elements.at, elements.at_most(data[0]))) {
        if (found[0]) {
            message->concat = 1;
            message->concat_ref = found[1];
            message->concat_seq = found[2];
            message->concat_total = found[3];
        }
        free(found);
    }
    return data[0] + 1;
}

// Unpacks and maps 7-bit text; `stated` and the header are what the message says of `data`.
int32_t read_7bit(Octets data, int stated, int header, char *text) {
    // Behind a long header the rule for the count below gives too many. A septet that does not lie wholly inside is
    // none: it would be made of the padding, "@".
    const int bits = std::min(7 * stated, 8 * data.count);
    const int start = (8 * header + 6) / 7 * 7;
    const int count = std::min(stated - (header ? header + 1 : 0), (bits - start) / 7);
    uint8_t septets[kMostOctets];
    int32_t unpacked = 0, length = 0;
    if (!decode_7bit(data.from(header).at, count, header, septets, &unpacked))
        gsm_to_ascii(septets, unpacked, text, &length);
    return length;
}

int decode_deliver(Octets pdu, uint8_t first_octet, SmsMessage *message) {
    const int coding = address_octets(pdu) + 2; // behind the protocol identifier
    const Octets data = pdu.from(coding + 9);   // behind the time stamp and the length
    const int stated = pdu[coding + 8];
    const int header = first_octet & 0x40 ? read_header(data, message) : 0;
    const Octets body = data.from(header);
    char text[640];
    int32_t length = 0;
    if (pdu[coding] & 8) {
        message->encoding = TAVRIK_SMS_UCS2;
        convert_ucs2_to_utf8(body.at, body.at_most(stated - header), text, &length);
    } else if (pdu[coding] & 4) {
        message->encoding = TAVRIK_SMS_8BIT;
        decode_8bit(body.at, body.at_most(stated - header), text, &length);
    } else {
        message->encoding = TAVRIK_SMS_7BIT;
        length = read_7bit(data, stated, header, text);
    }
    message->length = length;
    set_number(pdu, message);
    copy_bounded(message->text, text, length);
    return 0;
}

int decode_report(Octets pdu, SmsMessage *message) {
    set_number(pdu.from(1), message);
    return 0;
}

} // namespace

uint8_t *parse_udh(const uint8_t *header, int length) {
    if (!header || length <= 0)
        return nullptr;
    auto *found = static_cast<uint8_t *>(calloc(kHeaderSize, 1));
    if (!found)
        return nullptr;
    for (int left = length; left > 0;) {
        int octets = left > 1 ? header[1] + 2 : left;
        if (header[0] == 0x00 || header[0] == 0x08) {
            octets = header[0] == 0x00 ? 5 : 6;
            if (octets <= left) {
                found[0] = 1;
                found[1] = header[octets - 3];
                found[2] = header[octets - 1];
                found[3] = header[octets - 2];
            }
        } else {
            TAVRIK_LOG_ERROR("sms_header parse_udh didn't process 0x%X iei.", unsigned(header[0]));
        }
        octets = std::min(octets, left);
        header += octets;
        left -= octets;
    }
    return found;
}

// The lengths in the octets bound both: they reach 255 octets at most, three times.
int decode_normal_pdu(uint8_t *pdu, uint8_t first_octet, SmsMessage *message) {
    return pdu && message ? decode_deliver({pdu, 4 * 256}, first_octet, message) : -1;
}

int decode_sms_receipt(uint8_t *pdu, SmsMessage *message) {
    return pdu && message ? decode_report({pdu, 4 * 256}, message) : -1;
}

void decode_pdu(const char *pdu, SmsMessage *message) {
    if (!pdu || !message)
        return;
    const size_t length = strnlen(pdu, kLongestPdu + 1);
    if (length > kLongestPdu)
        return;
    auto *bytes = static_cast<uint8_t *>(malloc(length / 2 + 1));
    if (!bytes) {
        TAVRIK_LOG_ERROR("malloc faild");
        return;
    }
    int32_t count;
    ascii_to_hex(pdu, int(length), bytes, &count);
    const Octets octets = {bytes, count};
    const Octets message_octets = octets.from(octets[0] ? octets[0] + 1 : 0);
    if (message_octets[0] & 2)
        decode_report(message_octets.from(1), message);
    else
        decode_deliver(message_octets.from(1), message_octets[0], message);
    free(bytes);
}

SmsMessage *creat_from_pdu(const char *pdu) {
    if (!pdu)
        return nullptr;
    auto *message = static_cast<SmsMessage *>(calloc(1, sizeof(SmsMessage)));
    if (message)
        decode_pdu(pdu, message);
    return message;
}
