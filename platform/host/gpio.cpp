// Stand-in for the module's GPIO helpers: the kernel's files themselves.
#include "gpio.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

namespace {

constexpr int kAppearMs = 1000; // a line's files, once it is exported: who watches for them may set their rights first

struct Path {
    Path(int line, const char *file) { snprintf(text, sizeof text, "/sys/class/gpio/gpio%d/%s", line, file); }
    char text[64];
};

int put(const char *path, const char *text) {
    const int fd = open(path, O_WRONLY | O_TRUNC | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return -1;
    const ssize_t length = ssize_t(strlen(text));
    const bool written = write(fd, text, size_t(length)) == length;
    return close(fd) || !written ? -1 : 0;
}

int export_line(int line) {
    const Path direction(line, "direction");
    if (!access(direction.text, W_OK))
        return 0;
    char number[16];
    snprintf(number, sizeof number, "%d", line);
    if (put("/sys/class/gpio/export", number))
        return -1;
    for (int waited = 0; access(direction.text, W_OK); ++waited) {
        if (waited == kAppearMs)
            return -1;
        usleep(1000);
    }
    return 0;
}

} // namespace

int GpioInit(int line, int direction, int active_low, int fresh) {
    static const char *const directions[] = {"in", "low", "high"};
    if (direction < 0 || direction > 2 || (fresh && export_line(line)))
        return -1;
    if (put(Path(line, "active_low").text, active_low ? "1" : "0") && active_low) // some drivers have no such file
        return -1;
    return put(Path(line, "direction").text, directions[direction]);
}

int gpio_set_value(int line, int value) {
    return put(Path(line, "value").text, value ? "1" : "0");
}
