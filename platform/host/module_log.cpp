// Stand-in for the module's log library on a PC: lines go to standard error.
//   TAVRIK_LOG_OPTION  what __android_log_option answers (1)
//   TAVRIK_LOG_LEVEL   the least severe priority that is shown: err, warn, info, debug, or its number (warn)
#include "module_log.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

int least_severe() {
    const char *level = getenv("TAVRIK_LOG_LEVEL");
    if (!level || !*level)
        return 4;
    if (!strcmp(level, "err"))
        return 3;
    if (!strcmp(level, "info"))
        return 6;
    if (!strcmp(level, "debug"))
        return 7;
    return strcmp(level, "warn") ? atoi(level) : 4;
}

} // namespace

int __android_log_option(void) {
    const char *option = getenv("TAVRIK_LOG_OPTION");
    return option && *option ? atoi(option) : 1;
}

int __android_log_printf(int buffer, int priority, const char *format, ...) {
    (void)buffer;
    if (priority > least_severe())
        return 0;
    va_list args;
    va_start(args, format);
    // One write a line, so that lines of several threads do not mix.
    char line[2048];
    int length = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    if (length < 0)
        return -1;
    if (length >= (int)sizeof line) {
        length = (int)sizeof line - 1;
        line[length - 1] = '\n';
    }
    return (int)write(STDERR_FILENO, line, (size_t)length);
}

void set_service_log_tag(const char *tag) {
    (void)tag;
}
