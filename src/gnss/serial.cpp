#include "gnss/serial.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>

int tavrik::open_serial(const char *path, int flags) {
    Fd port(open(path, flags | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    termios line;
    if (!port || tcgetattr(port.get(), &line))
        return -1;
    cfmakeraw(&line);
    line.c_cflag &= ~tcflag_t(CSTOPB | CRTSCTS);
    line.c_cflag |= CLOCAL | CREAD;
    line.c_cc[VMIN] = 1; // a read without input is EAGAIN, and 0 the end
    line.c_cc[VTIME] = 0;
    if (cfsetispeed(&line, B115200) || cfsetospeed(&line, B115200) || tcsetattr(port.get(), TCSANOW, &line))
        return -1;
    return port.release();
}

ssize_t tavrik::write_serial(int port, const void *bytes, size_t length, Deadline deadline) {
    size_t done = 0;
    while (done < length) {
        const ssize_t written = write(port, static_cast<const char *>(bytes) + done, length - done);
        if (written > 0) {
            done += size_t(written);
            continue;
        }
        pollfd room = {port, POLLOUT, 0};
        if (errno != EINTR && (errno != EAGAIN || poll(&room, 1, deadline.poll_ms()) <= 0))
            break;
    }
    return done ? ssize_t(done) : -1;
}
