#include "core/socket.h"

#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace tavrik {

int connect_unix(const char *path, Deadline deadline) {
    Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd)
        return -1;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path, strnlen(path, sizeof address.sun_path)); // a full one needs no terminator
    const auto connected = [&] { return !connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address); };
    if (connected())
        return fd.release();
    if (errno != EAGAIN)
        return -1;
    // A stopped server accepts until its backlog is full; from then on only a connect that blocks waits for it. The
    // send time-out of the socket bounds that wait (zero would mean none, so a passed deadline gets one microsecond).
    const int flags = fcntl(fd.get(), F_GETFL);
    if (flags < 0 || fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) < 0)
        return -1;
    for (;;) {
        const int left = deadline.poll_ms();
        timeval limit = {left < 0 ? 0 : left / 1000, left < 0 ? 0 : left % 1000 * 1000};
        if (left == 0)
            limit.tv_usec = 1;
        setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        if (connected())
            break;
        if (errno != EINTR || deadline.passed())
            return -1;
    }
    return fcntl(fd.get(), F_SETFL, flags) < 0 ? -1 : fd.release();
}

} // namespace tavrik
