// The indication channel against a bare poll and read loop.
#include "bench.h"

#include "tavrik_sdk.h"

#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sched.h>
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

// A connection whose lines a thread of its own takes, until its other end is closed.
int bare_connection() {
    int ends[2];
    sem_init(&g_arrived, 0, 0);
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends))
        return -1;
    std::thread([input = ends[1]] {
        char chunk[513];
        ssize_t got = -1;
        for (pollfd wait = {input, POLLIN, 0}; got && poll(&wait, 1, -1) == 1;)
            while ((got = read(input, chunk, 512)) > 0) {
                chunk[got] = 0;
                g_sink = bare_cell(chunk);
                sem_post(&g_arrived);
            }
        close(input);
    }).detach();
    return ends[0];
}

// Sender and receiver on one core, and so the threads that are started meanwhile: where the scheduler happens to put
// two threads counts for several times what either loop does.
class OnOneCore {
  public:
    OnOneCore() {
        sched_getaffinity(0, sizeof before_, &before_);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(sched_getcpu(), &one);
        sched_setaffinity(0, sizeof one, &one);
    }
    ~OnOneCore() { sched_setaffinity(0, sizeof before_, &before_); }
    OnOneCore(const OnOneCore &) = delete;
    OnOneCore &operator=(const OnOneCore &) = delete;

  private:
    cpu_set_t before_;
};

bool send_lines(int fd, int operations) {
    while (operations--)
        if (write(fd, kLine, kLength) != ssize_t(kLength) || sem_wait(&g_arrived))
            return false;
    return true;
}

bool latency(int operations) {
    const OnOneCore pinned;
    const int fd = connection(on_network);
    const bool good = fd >= 0 && send_lines(fd, operations);
    close(fd);
    return good;
}

bool bare_latency(int operations) {
    const OnOneCore pinned;
    const int fd = bare_connection();
    const bool good = fd >= 0 && send_lines(fd, operations);
    close(fd);
    return good;
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
