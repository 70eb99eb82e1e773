// Call shapes of the module's own log library.
#pragma once

extern "C" {
// 1: log to buffer 1; 2: log to buffer 4, each line with one more line feed; anything else: log nothing.
int __android_log_option(void);
int __android_log_printf(int buffer, int priority, const char *format, ...) __attribute__((format(printf, 3, 4)));
// Names the calling thread in the service log.
void set_service_log_tag(const char *tag);
}
