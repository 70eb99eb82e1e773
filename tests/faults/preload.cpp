#include "faults.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);

std::atomic<int> faults::error{0}, faults::left{0};

namespace {

bool counts(void *caller) {
    Dl_info info;
    if (!dladdr(caller, &info) || !info.dli_fname)
        return false;
    // libubox only where the host bus calls it: another libubus may not mind its failures.
    return strstr(info.dli_fname, "libtavrik") || (TAVRIK_HOST_BUS && strstr(info.dli_fname, "libubox"));
}

// What a call meets, of what it may meet; else 0.
int met(std::initializer_list<int> errors, void *caller) {
    const int error = faults::error;
    if (std::count(errors.begin(), errors.end(), error) == 0 || !counts(caller) || --faults::left)
        return 0;
    return errno = error;
}

constexpr auto kData = {EAGAIN, EINTR, faults::one_byte};

template <auto Function>
auto next(const char *name) {
    return reinterpret_cast<decltype(Function)>(dlsym(RTLD_NEXT, name));
}

} // namespace

#define CALLER __builtin_return_address(0)
#pragma GCC visibility push(default)
extern "C" {

void *malloc(size_t size) {
    return met({ENOMEM}, CALLER) ? nullptr : __libc_malloc(size);
}
void *calloc(size_t count, size_t size) {
    return met({ENOMEM}, CALLER) ? nullptr : __libc_calloc(count, size);
}
void *realloc(void *old, size_t size) {
    return met({ENOMEM}, CALLER) ? nullptr : __libc_realloc(old, size);
}
ssize_t read(int fd, void *buffer, size_t size) {
    const int error = met(kData, CALLER);
    return error > 0 ? -1 : next<&read>("read")(fd, buffer, error ? std::min<size_t>(size, 1) : size);
}
ssize_t recv(int fd, void *buffer, size_t size, int flags) {
    const int error = met(kData, CALLER);
    return error > 0 ? -1 : next<&recv>("recv")(fd, buffer, error ? std::min<size_t>(size, 1) : size, flags);
}
ssize_t write(int fd, const void *buffer, size_t size) {
    const int error = met(kData, CALLER);
    return error > 0 ? -1 : next<&write>("write")(fd, buffer, error ? std::min<size_t>(size, 1) : size);
}
ssize_t sendmsg(int fd, const msghdr *message, int flags) {
    const int error = met(kData, CALLER);
    for (size_t i = 0; error == faults::one_byte && i < message->msg_iovlen; i++)
        if (message->msg_iov[i].iov_len)
            return send(fd, message->msg_iov[i].iov_base, 1, flags);
    return error > 0 ? -1 : next<&sendmsg>("sendmsg")(fd, message, flags);
}
int poll(pollfd *fds, nfds_t count, int timeout) {
    return met({EINTR}, CALLER) ? -1 : next<&poll>("poll")(fds, count, timeout);
}
int connect(int fd, const sockaddr *address, socklen_t length) {
    return met({EINTR}, CALLER) ? -1 : next<&connect>("connect")(fd, address, length);
}
int socket(int domain, int type, int protocol) noexcept {
    return met({EMFILE}, CALLER) ? -1 : next<&socket>("socket")(domain, type, protocol);
}
int dup3(int from, int to, int flags) noexcept {
    return met({EMFILE}, CALLER) ? -1 : next<&dup3>("dup3")(from, to, flags);
}
int eventfd(unsigned count, int flags) noexcept {
    return met({EMFILE}, CALLER) ? -1 : next<&eventfd>("eventfd")(count, flags);
}
}
