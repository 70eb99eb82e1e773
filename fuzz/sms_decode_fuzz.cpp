// One PDU a line: each decoded, and what can be decoded joined.
#include "fuzz.h"

#include "tavrik_sdk.h"

#include <sstream>
#include <stdlib.h>
#include <string.h>

namespace {

using fuzz::check;

bool is_utf8(const char *text, int32_t length) {
    for (int32_t i = 0; i < length; ++i) {
        const uint8_t lead = uint8_t(text[i]);
        for (int more = lead < 0xC0 ? 0 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3; more; --more)
            if (++i >= length || uint8_t(text[i]) >> 6 != 2)
                return false;
        if (lead >= 0x80 && lead < 0xC2)
            return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool nothing =
        Tavrik_SMS_Decode(nullptr, nullptr) == -1 && Tavrik_SMS_Join(nullptr, nullptr, nullptr) == -1;
    check(nothing);
    std::istringstream lines(std::string(reinterpret_cast<const char *>(data), size));
    for (std::string pdu; std::getline(lines, pdu);) {
        Tavrik_SmsDetail detail = {};
        detail.size = sizeof detail;
        if (Tavrik_SMS_Decode(pdu.c_str(), &detail))
            continue;
        check(detail.length >= 0 && detail.length < int32_t(sizeof detail.text) && !detail.text[detail.length]);
        check(is_utf8(detail.number, int32_t(strnlen(detail.number, sizeof detail.number))));
        check(detail.encoding == TAVRIK_SMS_8BIT || is_utf8(detail.text, detail.length));
        check(detail.sequence >= 0 && detail.sequence <= detail.total);
        char *text = nullptr;
        int32_t length = 0;
        const int result = Tavrik_SMS_Join(&detail, &text, &length);
        check(result == (text != nullptr));
        check(!text || (length <= 255 * 512 && !text[length]));
        free(text);
    }
    return 0;
}
