// The input as the text of a PDU, and as the octets of both kinds of message.
#include "fuzz.h"

#include "tavrik_sdk.h"

#include <stdlib.h>
#include <string.h>
#include <string>

namespace {

using fuzz::check;

void check(const SmsMessage &message) {
    check(message.encoding >= 0 && message.encoding <= 2 && !message.result);
    check(message.concat == 1 || !(message.concat || message.concat_ref || message.concat_seq || message.concat_total));
    check(message.length >= 0 && message.length <= 640);
    const size_t length = size_t(message.length);
    check(length >= sizeof message.text || !message.text[length]);
    if (message.encoding != TAVRIK_SMS_8BIT && length <= sizeof message.text)
        check(strnlen(message.text, sizeof message.text) == length);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string pdu(reinterpret_cast<const char *>(data), size);
    SmsMessage *message = creat_from_pdu(pdu.c_str());
    check(*message);
    free(message);

    if (!size)
        return 0;
    uint8_t octets[512] = {}; // all that lengths of one octet can announce
    memcpy(octets, data + 1, size - 1 < sizeof octets ? size - 1 : sizeof octets);
    SmsMessage parts = {};
    check(decode_normal_pdu(octets, data[0], &parts) == 0);
    check(decode_sms_receipt(octets, &parts) == 0);
    check(parts);
    static const bool refused = !creat_from_pdu(nullptr) && decode_normal_pdu(nullptr, 0, &parts) == -1;
    check(refused);
    return 0;
}
