// The process's one connection to the AT command server, and the exchange of one command and its answer.
#include "core/log.h"
#include "core/sigpipe.h"
#include "core/socket.h"
#include "core/sync.h"
#include "tavrik_sdk.h"

#include <algorithm>
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

using tavrik::Deadline;

namespace {

constexpr char kServerPath[] = "/tmp/atcmdsdk";
constexpr int kConnectMs = 2000;
constexpr int kDrainMs = 1000; // at the least
constexpr size_t kChunk = 512;

// One exchange at a time. The lock is never destroyed, so that opening and closing may race with sends.
tavrik::Mutex g_mutex;
int g_fd = -1;

// Discards what is left of earlier answers. False when the input has no end.
bool drain(int fd, Deadline deadline) {
    char chunk[kChunk];
    while (read(fd, chunk, sizeof chunk) > 0)
        if (deadline.passed())
            return false;
    return true;
}

// Sends the command as one line. Only what a full socket did not take at once is waited for. False with errno set.
bool send_line(int fd, const char *command, Deadline deadline) {
    const size_t length = strlen(command);
    const bool has_end = command[length - 1] == '\r' || command[length - 1] == '\n';
    iovec pieces[] = {{const_cast<char *>(command), length}, {const_cast<char *>("\r\n"), has_end ? size_t(0) : 2}};
    msghdr message = {};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    bool started = false;
    for (;;) {
        const ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL);
        if (sent < 0) {
            pollfd room = {fd, POLLOUT, 0};
            if (!started || errno != EAGAIN || poll(&room, 1, deadline.poll_ms()) < 0)
                return false;
            if (!room.revents) {
                errno = EAGAIN;
                return false;
            }
            continue;
        }
        started = true;
        size_t left = size_t(sent);
        for (iovec &piece : pieces) {
            const size_t gone = std::min(left, piece.iov_len);
            piece.iov_base = static_cast<char *>(piece.iov_base) + gone;
            piece.iov_len -= gone;
            left -= gone;
        }
        if (!pieces[0].iov_len && !pieces[1].iov_len)
            return true;
    }
}

} // namespace

int at_socket_init(const char *path) {
    if (!path)
        return -1;
    const int fd = tavrik::connect_unix(path, Deadline::in(kConnectMs));
    if (fd < 0 && errno != EMFILE && errno != ENFILE) { // without a descriptor nothing was connected to
        const tavrik::SigpipeBlocked blocked;
        fprintf(stderr, "Error connect to socket %s: %m\n", path);
    }
    return fd;
}

void at_socket_deinit(int fd) {
    if (fd > 0)
        close(fd);
}

int Tavrik_AT_Init(void) {
    tavrik::Lock lock(g_mutex);
    if (g_fd < 0)
        g_fd = at_socket_init(kServerPath);
    if (g_fd < 0) {
        TAVRIK_LOG_ERROR("error: opening device: %s", kServerPath);
        return -1;
    }
    return 0;
}

void Tavrik_AT_Deinit(void) {
    tavrik::Lock lock(g_mutex);
    if (g_fd >= 0)
        close(g_fd);
    g_fd = -1;
}

int Tavrik_AT_Send(const char *command, const char *expected, char *response, int size, int timeout_ms) {
    if (!command || !expected || !response || strlen(command) < 2 || size <= 0) {
        TAVRIK_LOG_ERROR("input error");
        return -1;
    }
    memset(response, 0, size_t(size));
    const int limit_ms = timeout_ms / 1000 * 1000; // whole seconds

    tavrik::Lock lock(g_mutex);
    if (g_fd < 0) {
        TAVRIK_LOG_ERROR("fd error");
        return -1;
    }
    if (!drain(g_fd, Deadline::in(std::max(limit_ms, kDrainMs)))) {
        TAVRIK_LOG_ERROR("time out");
        return -1;
    }
    const Deadline deadline = Deadline::in(limit_ms);
    if (!send_line(g_fd, command, deadline)) {
        TAVRIK_LOG_ERROR("send at fail errno %d", errno);
        return -1;
    }

    int collected = 0;
    for (int wait = 0; wait < 2; ++wait) {
        pollfd input = {g_fd, POLLIN, 0};
        errno = EINVAL; // what a negative limit is
        const int ready = limit_ms < 0 ? -1 : poll(&input, 1, deadline.poll_ms());
        if (ready < 0) {
            TAVRIK_LOG_ERROR("select error:%d", errno);
            return -1;
        }
        if (ready == 0) {
            TAVRIK_LOG_ERROR("time out");
            return -1;
        }
        if (!(input.revents & (POLLIN | POLLHUP | POLLERR))) {
            TAVRIK_LOG_ERROR("at_fd is missed");
            return -1;
        }
        char chunk[kChunk + 1] = {};
        const int got = int(read(g_fd, chunk, kChunk));
        if (got <= 0) {
            TAVRIK_LOG_ERROR("read error!");
            return -1;
        }
        if (size - collected <= got) {
            TAVRIK_LOG_ERROR("The received data length is insufficient");
            return -1;
        }
        memcpy(response + collected, chunk, size_t(got));
        collected += got;
        if (strstr(chunk, expected))
            return 0;
        if (strstr(chunk, "ERROR")) {
            TAVRIK_LOG_ERROR("response error");
            return -1;
        }
    }
    return -1;
}
