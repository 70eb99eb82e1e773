#include "core/text.h"

#include "core/log.h"
#include "core/shell.h"
#include "tavrik_sdk.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

namespace tavrik {
namespace {

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

// Where the number starts that `keyword` announces; NULL, logged for the caller, when there is none.
const char *behind(const char *keyword, const char *text, Site site = Site::here()) {
    if (!text) {
        log(Level::error, site, "error pointer");
        return nullptr;
    }
    if (!keyword)
        return text;
    const char *found = strstr(text, keyword);
    if (!found) {
        log(Level::error, site, "find %s faild", LogText(keyword).c_str());
        return nullptr;
    }
    return found + strlen(keyword);
}

} // namespace

char *trim(char *text) {
    while (is_blank(*text))
        ++text;
    char *end = text + strlen(text);
    while (end > text && is_blank(end[-1]))
        --end;
    *end = 0;
    return text;
}

int32_t decimal(const char *text, char **end) {
    const long number = strtol(text, end, 10);
    return number > INT32_MAX ? INT32_MAX : number < INT32_MIN ? INT32_MIN : int32_t(number);
}

} // namespace tavrik

int handle_response_data(const char *response, const char *keyword, char *output) {
    if (!response || !keyword || !output)
        return -1;
    const char *from = strstr(response, keyword);
    if (!from) {
        TAVRIK_LOG_ERROR("failed to match the keyword");
        return -1;
    }
    for (from += strlen(keyword); from[0] && from[1]; *output++ = *from++)
        if (from[0] == '\r' && from[1] == '\n')
            return 0;
    TAVRIK_LOG_ERROR("failed to match the \\r\\n");
    return -1;
}

char *string_split_parameter(char *text, const char *delimiters, int index) {
    if (!text || !delimiters || index < 0)
        return nullptr;
    // The fields of strtok, without the process-wide place that strtok keeps: two threads would cut each other's text.
    char *rest;
    char *field = strtok_r(text, delimiters, &rest);
    while (field && index--)
        field = strtok_r(nullptr, delimiters, &rest);
    return field;
}

int system_handle(const char *command, char *buffer, int size) {
    if (!command || !buffer || size <= 0)
        return -1;
    return tavrik::run_shell_for_line(command, buffer, size);
}

int is_insert_special(const char *text) {
    return !text || !*text || strpbrk(text, " \t\n\r") ? -1 : 0;
}

void strlwr(char *text) {
    for (; text && *text; ++text)
        if (*text >= 'A' && *text <= 'Z')
            *text = char(*text - 'A' + 'a');
}

void tavrik_ucs2_to_utf8(const char *ucs2, char *utf8) {
    if (!ucs2 || !utf8)
        return;
    char *out = utf8;
    // Neither byte of a unit is zero here, so each takes two bytes of UTF-8 at least.
    for (size_t left = strlen(ucs2); left >= 2; left -= 2, ucs2 += 2) {
        const unsigned unit = unsigned(uint8_t(ucs2[0])) << 8 | uint8_t(ucs2[1]);
        if (unit <= 0x7FF) {
            *out++ = char(0xC0 | unit >> 6);
        } else {
            *out++ = char(0xE0 | unit >> 12);
            *out++ = char(0x80 | (unit >> 6 & 0x3F));
        }
        *out++ = char(0x80 | (unit & 0x3F));
    }
    *out = 0;
    TAVRIK_LOG_INFO("ucs2_to_utf8: utf8 str[%d] %s", int(out - utf8), tavrik::LogText(utf8).c_str());
}

unsigned long ulongfromstr(const char *keyword, const char *text) {
    const char *number = tavrik::behind(keyword, text);
    if (!number)
        return 0;
    // As strtoul of the module's 32-bit `long`: too large a magnitude gives the greatest value, whatever its sign.
    const int saved_errno = errno;
    const bool negative = number[strspn(number, " \t\n\v\f\r")] == '-';
    errno = 0;
    const unsigned long long value = strtoull(number, nullptr, 10);
    const unsigned long long magnitude = negative ? 0 - value : value;
    const bool beyond = errno == ERANGE || magnitude > UINT32_MAX;
    errno = saved_errno;
    return beyond ? UINT32_MAX : uint32_t(value);
}

int ufromstr(const char *keyword, const char *text) {
    const char *number = tavrik::behind(keyword, text);
    return number ? tavrik::decimal(number) : 0;
}
