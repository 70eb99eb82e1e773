// The bus daemon: tavrik-ubusd [-s SOCKET] [-A RULEDIR]
#include "bus.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace tavrik;

namespace {

Bus *bus;
int reserve = -1; // given up for a moment when descriptors run out, so that a waiting client can be turned away

void accept_clients(uloop_fd *listener, unsigned) {
    for (int n = 0; n < 16; n++) {
        int fd = accept4(listener->fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            bus->add_client(fd);
        } else if ((errno == EMFILE || errno == ENFILE) && reserve >= 0) {
            close(reserve);
            close(accept(listener->fd, nullptr, nullptr));
            reserve = open("/dev/null", O_RDONLY | O_CLOEXEC);
        } else if (errno != EINTR && errno != ECONNABORTED) {
            return;
        }
    }
}

void on_signal(uloop_fd *signals, unsigned) {
    signalfd_siginfo info;
    while (read(signals->fd, &info, sizeof info) == sizeof info)
        if (info.ssi_signo == SIGHUP)
            bus->reload_rules();
        else
            uloop_end();
}

int listen_at(const char *path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    strcpy(address.sun_path, path);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    unlink(path);
    mode_t old = umask(0111);
    bool good =
        fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 && listen(fd, SOMAXCONN) == 0;
    umask(old);
    return good ? fd : -1;
}

} // namespace

int main(int argc, char **argv) {
    const char *path = "/var/run/ubus/ubus.sock", *rules = "/usr/share/acl.d";
    int option;
    while ((option = getopt(argc, argv, "s:A:")) != -1)
        if (option == 's') {
            path = optarg;
        } else if (option == 'A') {
            rules = optarg;
        } else {
            fprintf(stderr, "Usage: %s [-s SOCKET] [-A RULEDIR]\n", argv[0]);
            return 1;
        }

    // All wait for the loop, which forgets what uloop's own handlers saw before it ran: from the moment that there is a
    // socket its end is orderly.
    sigset_t taken;
    sigemptyset(&taken);
    for (int signal : {SIGHUP, SIGINT, SIGTERM})
        sigaddset(&taken, signal);
    sigprocmask(SIG_BLOCK, &taken, nullptr);
    uloop_fd signals{}, listener{};
    signals.cb = on_signal;
    signals.fd = signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK);
    listener.cb = accept_clients;
    listener.fd = listen_at(path);
    if (listener.fd < 0 || uloop_init() < 0) {
        fprintf(stderr, "%s: cannot listen at %s: %s\n", argv[0], path, strerror(errno));
        return 255;
    }
    reserve = open("/dev/null", O_RDONLY | O_CLOEXEC);
    {
        Bus the_bus(rules);
        bus = &the_bus;
        uloop_fd_add(&signals, ULOOP_READ);
        uloop_fd_add(&listener, ULOOP_READ);
        uloop_run();
        unlink(path);
        bus = nullptr;
    }
    uloop_fd_delete(&listener);
    uloop_done();
    return 0;
}
