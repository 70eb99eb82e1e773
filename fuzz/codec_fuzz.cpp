// Each codec on memory of exactly the documented sizes. The first byte chooses the codec, the second is its parameter.
#include "fuzz.h"

#include "tavrik_sdk.h"

#include <memory>
#include <stdlib.h>
#include <string.h>
#include <string>

namespace {

using fuzz::check;

template <typename Item>
std::unique_ptr<Item[]> room(size_t count) {
    return std::make_unique<Item[]>(count);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2)
        return 0;
    const int codec = data[0] % 13, parameter = data[1];
    const int count = int(size - 2);
    const size_t items = size_t(count);
    const auto in = room<uint8_t>(items);
    memcpy(in.get(), data + 2, items);
    const char *text = reinterpret_cast<char *>(in.get());
    int32_t length = 0;

    switch (codec) {
    case 0: {
        const auto bytes = room<uint8_t>((items + 1) / 2);
        check(ascii_to_hex(text, count, bytes.get(), &length) == 0 && length <= (count + 1) / 2);
        break;
    }
    case 1: {
        const auto hex = room<char>(2 * items);
        const auto back = room<uint8_t>(items);
        if (hex_to_ascii(in.get(), count, hex.get(), &length) == 0) {
            int32_t bytes;
            ascii_to_hex(hex.get(), length, back.get(), &bytes);
            check(bytes == count && !memcmp(in.get(), back.get(), items));
        }
        break;
    }
    case 2: {
        const auto hex = room<char>(2 * items);
        check((hex_to_ascii_low(in.get(), count, hex.get(), &length) == 0) == (count > 0));
        break;
    }
    case 3: {
        const auto number = room<char>(2 * items);
        if (decode_number(in.get(), count, number.get()) == 0)
            check(strlen(number.get()) < 2 * items);
        break;
    }
    case 4: {
        char stamp[25];
        if (decode_time_stamp(in.get(), count, stamp) == 0)
            check(strlen(stamp) >= 19);
        break;
    }
    case 5: {
        uint8_t *found = parse_udh(in.get(), count);
        check(!found || found[0] || (!found[1] && !found[2] && !found[3]));
        free(found);
        break;
    }
    case 6: {
        const int fill = parameter ? (7 - parameter % 7) % 7 : 0;
        const int septets = (count * 8 - fill) / 7;
        const auto out = room<uint8_t>(septets > 0 ? size_t(septets) : 0);
        if (decode_7bit(in.get(), septets, parameter, out.get(), &length) == 0)
            check(length == septets && !memchr(out.get(), 0, size_t(length)));
        break;
    }
    case 7: {
        const auto out = room<char>(items);
        gsm_to_ascii(in.get(), count, out.get(), &length);
        check(length <= count);
        break;
    }
    case 8: {
        const auto out = room<char>(items);
        if (decode_8bit(in.get(), count, out.get(), &length) == 0)
            check(length == count && !memcmp(out.get(), in.get(), items));
        break;
    }
    case 9: {
        const auto out = room<char>(items / 2 * 3 + 1);
        if (convert_ucs2_to_utf8(in.get(), count, out.get(), &length) == 0)
            check(strlen(out.get()) == size_t(length));
        break;
    }
    case 10: {
        length = parameter;
        check(is_ascii(text, count, &length) == (length == parameter + count));
        break;
    }
    case 11: {
        const std::string line(text, items);
        const int format = is_sms_pdu_format(line.c_str());
        check(format == 0 || format == -1);
        break;
    }
    default: {
        const auto out = room<char>(4 * items);
        if (code_convert_utf8_to_unicodeStr(text, count, out.get(), &length) == 0)
            check(length <= 4 * count);
    }
    }
    return 0;
}
