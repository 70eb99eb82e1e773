#include "ubus/context_pool.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "core/socket.h"
#include "core/thread.h"
#include "ubus/hold.h"
#include "ubus/host_signals.h"

namespace tavrik {
namespace {

constexpr int kKeptContexts = 8; // 64 KiB of receive buffer each
// Where daemons listen. libubus has one of these compiled in, and does not tell which.
constexpr const char *kUsualPaths[] = {"/var/run/ubus/ubus.sock", "/var/run/ubus.sock"};

struct {
    Mutex mutex;
    PooledContext *idle;
    int idle_count;
    PooledContext *dead;                      // to be freed by whoever has the bus lock next
    char path[sizeof(sockaddr_un::sun_path)]; // where the daemon of the first context listens, empty until then
} g_pool;

void ignore_lost_connection(ubus_context *) {
    // The default would end a loop that is not ours to end.
}

// What one ubus_connect needs, shared by the thread that runs it and the caller that may give up waiting.
struct Setup {
    Mutex mutex;
    Condition ended;
    Deadline deadline;
    bool inside; // ubus_connect, with the bus lock held
    bool done;
    bool abandoned;
    ubus_context *context;
};

// Connects to where the daemon was found before and takes the greeting, all within `deadline`.
int connect_greeted(const char *path, Deadline deadline) {
    Fd fd(connect_unix(path, deadline));
    if (!fd)
        return -1;
    // Twelve bytes: our id at the daemon, which libubus sends nowhere, with nothing behind it.
    unsigned char greeting[12];
    size_t got = 0;
    while (got < sizeof greeting) {
        pollfd wait = {fd.get(), POLLIN, 0};
        const int ready = poll(&wait, 1, deadline.poll_ms());
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return -1;
        const ssize_t n = recv(fd.get(), greeting + got, sizeof greeting - got, 0);
        if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN))
            return -1;
        if (n > 0)
            got += size_t(n);
    }
    return greeting[0] || greeting[1] ? -1 : fd.release(); // version 0, a greeting
}

// Does the daemon greet who connects, as far as anybody knows where it listens? ubus_connect is not left to a stopped
// one: it would wait for as long as that lasts, with the bus lock held and uloop's handlers in place of the host's.
// Asked with the lock held, because much may happen while one waits for it.
bool daemon_greets(Deadline deadline) {
    char path[sizeof g_pool.path];
    {
        Lock lock(g_pool.mutex);
        memcpy(path, g_pool.path, sizeof path);
    }
    if (path[0]) {
        Fd(connect_greeted(path, deadline));
    } else {
        for (const char *usual : kUsualPaths)
            if (Fd(connect_greeted(usual, deadline)))
                break;
    }
    return !deadline.passed(); // a daemon that is elsewhere or nowhere holds up nobody
}

void *run_setup(void *argument) {
    auto *setup = static_cast<Setup *>(argument);
    ubus_context *context = nullptr;
    bool abandoned;
    {
        BusHold hold(setup->deadline);
        const bool ready = hold && daemon_greets(setup->deadline);
        setup->mutex.lock();
        setup->inside = ready && !setup->abandoned;
        setup->mutex.unlock();
        if (setup->inside) { // which this thread alone changes
            HostSignals keep;
            context = ubus_connect(nullptr);
        }
        if (context) {
            context->connection_lost = ignore_lost_connection;
            fcntl(context->sock.fd, F_SETFD, FD_CLOEXEC); // older releases leave it open across exec
        }
        setup->mutex.lock();
        abandoned = setup->abandoned;
        setup->inside = false;
        setup->done = true;
        setup->context = context;
        setup->ended.wake_one();
        setup->mutex.unlock();
        if (abandoned && context)
            ubus_free(context);
    }
    if (abandoned)
        free(setup);
    return nullptr;
}

// Frees what could not be freed when it fell due. The bus lock is held.
void bury() {
    PooledContext *dead;
    {
        Lock lock(g_pool.mutex);
        dead = g_pool.dead;
        g_pool.dead = nullptr;
    }
    while (dead) {
        PooledContext *next = dead->next;
        ubus_free(dead->context);
        free(dead);
        dead = next;
    }
}

void learn_path(int socket) {
    sockaddr_un address = {};
    socklen_t length = sizeof address;
    if (getpeername(socket, reinterpret_cast<sockaddr *>(&address), &length) || address.sun_path[0] != '/')
        return;
    Lock lock(g_pool.mutex);
    memcpy(g_pool.path, address.sun_path, sizeof g_pool.path - 1);
}

// A context from the pool on a new connection: the connection takes over the context's descriptor number, so libubus
// goes on as if its stream had never been cut. ubus_reconnect would do the same, but waits for the greeting without
// limit.
PooledContext *reuse_context(Deadline deadline) {
    char path[sizeof g_pool.path];
    PooledContext *pooled;
    {
        Lock lock(g_pool.mutex);
        pooled = g_pool.idle;
        if (!pooled)
            return nullptr;
        g_pool.idle = pooled->next;
        g_pool.idle_count--;
        memcpy(path, g_pool.path, sizeof path);
    }
    Fd fd(connect_greeted(path, deadline));
    if (fd && dup3(fd.get(), pooled->context->sock.fd, O_CLOEXEC) >= 0)
        return pooled;
    give_context(pooled, true);
    return nullptr;
}

} // namespace

ubus_context *connect_context(Deadline deadline) {
    auto *setup = static_cast<Setup *>(calloc(1, sizeof(Setup)));
    if (!setup)
        return nullptr;
    setup->mutex = Mutex();
    setup->ended.make();
    setup->deadline = deadline;
    if (start_thread("tavrikbussetup", run_setup, setup)) {
        free(setup);
        return nullptr;
    }
    setup->mutex.lock();
    while (!setup->done && setup->ended.wait(setup->mutex, deadline)) {
    }
    ubus_context *context = setup->context;
    const bool done = setup->done;
    setup->abandoned = !done;
    if (setup->inside)
        mend_host_signals(); // a daemon that was stopped just now keeps the thread there until it goes on
    setup->mutex.unlock();
    if (done)
        free(setup);
    return context;
}

PooledContext *take_context(Deadline deadline) {
    mend_host_signals(); // once in a request: system() in another thread may have brought uloop's back
    if (PooledContext *pooled = reuse_context(deadline))
        return pooled;
    if (deadline.passed())
        return nullptr;
    auto *pooled = static_cast<PooledContext *>(calloc(1, sizeof(PooledContext)));
    if (!pooled)
        return nullptr;
    pooled->context = connect_context(deadline);
    if (!pooled->context) {
        free(pooled);
        return nullptr;
    }
    learn_path(pooled->context->sock.fd);
    return pooled;
}

void give_context(PooledContext *pooled, bool clean) {
    shutdown(pooled->context->sock.fd, SHUT_RDWR); // the daemon sees the end of the connection now
    {
        Lock lock(g_pool.mutex);
        if (clean && g_pool.path[0] && g_pool.idle_count < kKeptContexts) {
            pooled->next = g_pool.idle;
            g_pool.idle = pooled;
            g_pool.idle_count++;
            return;
        }
        pooled->next = g_pool.dead;
        g_pool.dead = pooled;
    }
    // The caller's time may be over: when the lock is not free at once, the next one to have it does this.
    BusHold hold(Deadline::in(0));
    if (hold)
        bury();
}

void drain_pool() {
    {
        Lock lock(g_pool.mutex);
        while (PooledContext *pooled = g_pool.idle) {
            g_pool.idle = pooled->next;
            pooled->next = g_pool.dead;
            g_pool.dead = pooled;
        }
        g_pool.idle_count = 0;
    }
    BusHold hold(Deadline::in(kBusSetupMs));
    if (hold)
        bury();
}

} // namespace tavrik
