// Cuts the byte stream of the indication socket into lines.
#include "indication/lines.h"

#include "core/log.h"
#include "tavrik_sdk.h"

#include <algorithm>
#include <string.h>

namespace {

constexpr char kMessage[] = "+CMT:"; // its PDU is on the next line
constexpr size_t kLineSize = 512;

const char *after_line_end(const char *from, const char *end) {
    auto *found = static_cast<const char *>(memmem(from, size_t(end - from), "\r\n", 2));
    return found ? found + 2 : nullptr;
}

} // namespace

size_t tavrik::line_length(const char *chunk, size_t length) {
    const char *const end = chunk + length;
    const char *next = after_line_end(chunk, end);
    if (next && length >= strlen(kMessage) && !memcmp(chunk, kMessage, strlen(kMessage)))
        next = after_line_end(next, end);
    return next ? size_t(next - chunk) : 0;
}

void at_indication_data_handler(const char *buffer, int length) {
    if (!buffer || length <= 0)
        return;
    const char *const end = buffer + length;
    if (!after_line_end(buffer, end)) {
        TAVRIK_LOG_ERROR("error format AT ind");
        return;
    }
    while (const size_t whole = tavrik::line_length(buffer, size_t(end - buffer))) {
        const size_t text = std::min(whole - 2, kLineSize - 1);
        if (text) {
            char line[kLineSize];
            memcpy(line, buffer, text);
            line[text] = 0;
            on_at_indication_report(line);
        }
        buffer += whole;
    }
}
