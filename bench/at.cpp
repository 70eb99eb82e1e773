// The AT channel against a bare exchange on the same socket.
#include "bench.h"

#include "tavrik_sdk.h"

#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// The library's own connection to the AT server.
int channel() {
    for (int fd = 3; fd < 1024; fd++) {
        sockaddr_un peer = {};
        socklen_t length = sizeof peer;
        if (!getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &length) && !strcmp(peer.sun_path, "/tmp/atcmdsdk"))
            return fd;
    }
    return -1;
}

bool ours(int operations) {
    char response[512];
    while (operations--)
        if (Tavrik_AT_Send("AT+CFUN?", "OK", response, sizeof response, 2000))
            return false;
    return true;
}

bool base(int operations) {
    static const int fd = channel();
    while (operations--) {
        char response[513];
        pollfd input = {fd, POLLIN, 0};
        if (write(fd, "AT+CFUN?\r\n", 10) != 10 || poll(&input, 1, 2000) != 1)
            return false;
        const ssize_t got = read(fd, response, 512);
        if (got <= 0)
            return false;
        response[got] = 0;
        if (!strstr(response, "OK"))
            return false;
    }
    return true;
}

} // namespace

std::vector<bench::Row> bench::at_rows() {
    Tavrik_AT_Init();
    return {{"Tavrik_AT_Send", "ns", 400, ours, base}};
}
