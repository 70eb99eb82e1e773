// UCS-2 text, from and to UTF-8, and plain octets.
#include "core/log.h"
#include "sms/utf8.h"
#include "tavrik_sdk.h"

#include <string.h>

int decode_8bit(const uint8_t *bytes, int count, char *text, int32_t *length) {
    if (!bytes || !text || !length || count <= 0)
        return -1;
    memcpy(text, bytes, size_t(count));
    *length = count;
    return 0;
}

int convert_ucs2_to_utf8(const uint8_t *ucs2, int count, char *utf8, int32_t *length) {
    if (!ucs2 || !utf8 || !length || count <= 0)
        return -1;
    char *out = utf8;
    for (int i = 0; i + 1 < count; i += 2) {
        const unsigned unit = unsigned(ucs2[i]) << 8 | ucs2[i + 1];
        if (!unit)
            break;
        out = tavrik::put_utf8(out, unit);
    }
    *out = 0;
    *length = int32_t(out - utf8);
    return 0;
}

int is_ascii(const char *text, int count, int32_t *ascii_count) {
    if (!text || !ascii_count)
        return 0;
    int others = 0;
    for (int i = 0; i < count; ++i)
        others += uint8_t(text[i]) >> 7;
    *ascii_count += count > 0 ? count - others : 0;
    return !others;
}

namespace {

// Decodes the sequence of `length` bytes at `utf8`; what does not lie inside `left` bytes counts as wrong.
bool code_point(const uint8_t *utf8, int length, int left, unsigned &point) {
    if (length > left)
        return false;
    point = length == 1 ? utf8[0] : utf8[0] & (0x7Fu >> length);
    for (int i = 1; i < length; ++i) {
        if (utf8[i] >> 6 != 2)
            return false;
        point = point << 6 | (utf8[i] & 0x3F);
    }
    return true;
}

} // namespace

int code_convert_utf8_to_unicodeStr(const char *utf8, int count, char *hex, int32_t *length) {
    if (!utf8 || !hex || !length || count < 1) {
        TAVRIK_LOG_ERROR("Paramter input error");
        return -1;
    }
    char *out = hex;
    int done = 0, result = 0;
    while (done < count && !result) {
        const auto *at = reinterpret_cast<const uint8_t *>(utf8) + done;
        const int bytes = *at < 0x80 ? 1 : *at < 0xC0 ? 0 : *at < 0xE0 ? 2 : *at < 0xF0 ? 3 : *at < 0xF8 ? 4 : 5;
        unsigned point;
        if (bytes == 0) {
            result = -1;
        } else if (bytes == 5) {
            TAVRIK_LOG_ERROR("intput error!");
            result = -1;
        } else if (!code_point(at, bytes, count - done, point)) {
            TAVRIK_LOG_ERROR("return in case %d", bytes);
            result = -1;
        } else {
            for (int shift = bytes == 4 ? 20 : 12; shift >= 0; shift -= 4)
                *out++ = "0123456789ABCDEF"[point >> shift & 15];
            done += bytes;
        }
    }
    *length = int32_t(out - hex);
    return result;
}
