#include "faults.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#define EXPORT extern "C" __attribute__((visibility("default")))

extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);

namespace {

std::atomic<int> g_kind{faults::none};
std::atomic<int> g_left{0};

bool counts(void *caller) {
    Dl_info info;
    if (!dladdr(caller, &info) || !info.dli_fname)
        return false;
    // libubox only where the host bus calls it: another libubus may not mind its failures.
    return strstr(info.dli_fname, "libtavrik") || (TAVRIK_HOST_BUS && strstr(info.dli_fname, "libubox"));
}

bool hit(unsigned kinds, void *caller) {
    const int kind = g_kind.load(std::memory_order_relaxed);
    return kind && (kinds >> kind & 1) && counts(caller) && --g_left == 0;
}

constexpr unsigned bit(faults::Kind kind) {
    return 1u << kind;
}
constexpr unsigned kRead = bit(faults::short_read) | bit(faults::eintr) | bit(faults::eagain);
constexpr unsigned kWrite = bit(faults::short_write) | bit(faults::eintr) | bit(faults::eagain);

// True when the call fails; else it is to be a short one.
bool fails() {
    const int kind = g_kind;
    errno = kind == faults::eintr ? EINTR : kind == faults::eagain ? EAGAIN : EMFILE;
    return kind == faults::eintr || kind == faults::eagain || kind == faults::emfile;
}

template <class Function>
Function next(const char *name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

__attribute__((visibility("default"))) void faults::arm(Kind kind, int n) {
    g_left = n;
    g_kind = kind;
}

__attribute__((visibility("default"))) bool faults::disarm() {
    g_kind = none;
    return g_left <= 0;
}

#define CALLER __builtin_return_address(0)

EXPORT void *malloc(size_t size) {
    return hit(bit(faults::no_memory), CALLER) ? nullptr : __libc_malloc(size);
}

EXPORT void *calloc(size_t count, size_t size) {
    return hit(bit(faults::no_memory), CALLER) ? nullptr : __libc_calloc(count, size);
}

EXPORT void *realloc(void *old, size_t size) {
    return hit(bit(faults::no_memory), CALLER) ? nullptr : __libc_realloc(old, size);
}

EXPORT ssize_t read(int fd, void *buffer, size_t size) {
    static const auto real = next<decltype(&::read)>("read");
    if (!hit(kRead, CALLER))
        return real(fd, buffer, size);
    return fails() ? -1 : real(fd, buffer, size ? 1 : 0);
}

EXPORT ssize_t recv(int fd, void *buffer, size_t size, int flags) {
    static const auto real = next<decltype(&::recv)>("recv");
    if (!hit(kRead, CALLER))
        return real(fd, buffer, size, flags);
    return fails() ? -1 : real(fd, buffer, size ? 1 : 0, flags);
}

EXPORT ssize_t write(int fd, const void *buffer, size_t size) {
    static const auto real = next<decltype(&::write)>("write");
    if (!hit(kWrite, CALLER))
        return real(fd, buffer, size);
    return fails() ? -1 : real(fd, buffer, size ? 1 : 0);
}

EXPORT ssize_t sendmsg(int fd, const msghdr *message, int flags) {
    static const auto real = next<decltype(&::sendmsg)>("sendmsg");
    if (!hit(kWrite, CALLER))
        return real(fd, message, flags);
    if (fails())
        return -1;
    for (size_t i = 0; i < message->msg_iovlen; i++)
        if (message->msg_iov[i].iov_len)
            return send(fd, message->msg_iov[i].iov_base, 1, flags);
    return real(fd, message, flags);
}

EXPORT int poll(pollfd *fds, nfds_t count, int timeout) {
    static const auto real = next<decltype(&::poll)>("poll");
    return hit(bit(faults::eintr), CALLER) && fails() ? -1 : real(fds, count, timeout);
}

EXPORT int socket(int domain, int type, int protocol) {
    static const auto real = next<decltype(&::socket)>("socket");
    return hit(bit(faults::emfile), CALLER) && fails() ? -1 : real(domain, type, protocol);
}

EXPORT int connect(int fd, const sockaddr *address, socklen_t length) {
    static const auto real = next<decltype(&::connect)>("connect");
    return hit(bit(faults::eintr), CALLER) && fails() ? -1 : real(fd, address, length);
}

EXPORT int dup3(int from, int to, int flags) {
    static const auto real = next<decltype(&::dup3)>("dup3");
    return hit(bit(faults::emfile), CALLER) && fails() ? -1 : real(from, to, flags);
}

EXPORT int eventfd(unsigned count, int flags) noexcept {
    static const auto real = next<decltype(&::eventfd)>("eventfd");
    return hit(bit(faults::emfile), CALLER) && fails() ? -1 : real(count, flags);
}
