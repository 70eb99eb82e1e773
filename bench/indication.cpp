// The indication channel against a bare poll and read loop.
#include "bench.h"

#include "tavrik_sdk.h"

#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr char kLine[] = "+CREG: 1,\"1A2B\",\"01C3D405\",7\r\n";
constexpr size_t kLength = sizeof kLine - 1;

sem_t g_arrived;
volatile unsigned g_sink;

void on_network(const Tavrik_NwEvent *event) {
    g_sink = event->cell;
    sem_post(&g_arrived);
}

void on_network_silently(const Tavrik_NwEvent *event) {
    g_sink = event->cell;
}

unsigned bare_cell(char *line) {
    char *cursor = strchr(line, ':') + 1;
    const long state = strtol(strsep(&cursor, ","), nullptr, 10);
    const char *area = strsep(&cursor, ",") + 1, *cell = strsep(&cursor, ",") + 1;
    return unsigned(state + strtol(area, nullptr, 16) + strtol(cell, nullptr, 16) + strtol(cursor, nullptr, 10));
}

// A server in the simulator's place, with the library as its client.
int connection(Tavrik_NwCb callback) {
    tavrik_indication_deregister();
    sem_init(&g_arrived, 0, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/tmp/atcmdsdkind");
    unlink(address.sun_path);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) || listen(listener, 1) ||
        tavrik_indication_register(TAVRIK_IND_NETWORK, reinterpret_cast<Tavrik_IndicationCb>(callback)))
        return -1;
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    close(listener);
    return fd;
}

int bare_connection() {
    static int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends))
        return -1;
    std::thread([] {
        char chunk[513];
        for (pollfd input = {ends[1], POLLIN, 0}; poll(&input, 1, -1) == 1;)
            for (ssize_t got; (got = read(ends[1], chunk, 512)) > 0;) {
                chunk[got] = 0;
                g_sink = bare_cell(chunk);
                sem_post(&g_arrived);
            }
    }).detach();
    return ends[0];
}

bool send_lines(int fd, int operations) {
    while (operations--)
        if (write(fd, kLine, kLength) != ssize_t(kLength) || sem_wait(&g_arrived))
            return false;
    return true;
}

bool latency(int operations) {
    const int fd = connection(on_network);
    const bool good = fd >= 0 && send_lines(fd, operations);
    close(fd);
    return good;
}

bool bare_latency(int operations) {
    static const int fd = bare_connection();
    return send_lines(fd, operations);
}

bool dispatch(int operations) {
    const int fd = connection(on_network_silently);
    while (operations--)
        at_indication_data_handler(kLine, int(kLength));
    close(fd);
    return fd >= 0;
}

bool bare_dispatch(int operations) {
    while (operations--) {
        char line[sizeof kLine];
        memcpy(line, kLine, sizeof kLine);
        g_sink = bare_cell(line);
    }
    return true;
}

} // namespace

std::vector<bench::Row> bench::indication_rows() {
    return {{"indication latency", "ns", 2000, latency, bare_latency},
            {"dispatch", "per second", 20000, dispatch, bare_dispatch}};
}
