#include "core/at_command.h"

#include "core/log.h"
#include "core/text.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

namespace tavrik {

int AtCommand::send(const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(command_, sizeof command_, format, args);
    va_end(args);
    if (length < 0 || size_t(length) >= sizeof command_) {
        TAVRIK_LOG_ERROR("the command is too long: %d", length);
        return -1;
    }
    return Tavrik_AT_Send(command_, expected_, answer_, answer_size_, timeout_ms_);
}

int AtCommand::field_behind(const char *prefix, char *field, size_t size) const {
    char rest[sizeof answer_] = {};
    const int failed = handle_response_data(answer_, prefix, rest);
    const char *text = failed ? "" : trim(rest);
    const size_t length = strnlen(text, size - 1);
    memcpy(field, text, length);
    memset(field + length, 0, size - length);
    return failed;
}

int AtCommand::text_behind(const char *prefix, char *buffer, size_t size) const {
    char text[sizeof answer_];
    *buffer = 0;
    if (field_behind(prefix, text, sizeof text) || strlen(text) >= size)
        return -1;
    strcpy(buffer, text);
    return 0;
}

} // namespace tavrik
