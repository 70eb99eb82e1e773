#include "fuzz.h"

#include "tavrik_sdk.h"

#include <stdlib.h>
#include <string.h>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string pdu(reinterpret_cast<const char *>(data), size);
    is_sms_pdu_format(pdu.c_str());
    SmsMessage *message = creat_from_pdu(pdu.c_str());
    if (message->concat > 1 || message->encoding < 0 || message->encoding > 2 || message->result ||
        message->length < 0 || message->length > 640)
        abort();
    if (!message->concat && (message->concat_ref || message->concat_seq || message->concat_total))
        abort();
    const size_t length = size_t(message->length);
    if (length < sizeof message->text && message->text[length])
        abort();
    if (message->encoding != TAVRIK_SMS_8BIT && strnlen(message->text, sizeof message->text) < length &&
        length <= sizeof message->text)
        abort(); // a zero within a text
    free(message);
    return 0;
}
