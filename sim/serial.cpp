#include "serial.h"

#include <cstdio>
#include <cstring>
#include <regex>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "places.h"

namespace tavrik::sim {

int serial_atcmd(const std::string &command) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, at_server_path);
    const std::string line = command + "\r\n";
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address) < 0 ||
        send(fd, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
        perror("serial_atcmd");
        return 1;
    }
    static const std::regex final_line("(^|\n)(OK|ERROR|\\+CM[ES] ERROR:[^\n]*)\r*\n");
    std::string reply;
    char chunk[4096];
    for (ssize_t n; !std::regex_search(reply, final_line) && (n = read(fd, chunk, sizeof chunk)) > 0;)
        reply.append(chunk, static_cast<size_t>(n));
    close(fd);
    return fwrite(reply.data(), 1, reply.size(), stdout) == reply.size() && fflush(stdout) == 0 ? 0 : 1;
}

} // namespace tavrik::sim
