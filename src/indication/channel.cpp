// The indication thread and its connection to the AT command server.
#include "core/thread.h"
#include "indication/lines.h"
#include "indication/state.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

using namespace tavrik;

namespace {

constexpr char kServerPath[] = "/tmp/atcmdsdkind";

// Locked: makes the running reader for a connection, which is the reader's from then on. `before` is the one that had
// it, if any. False, with the connection closed, when the thread cannot be had.
bool make_reader(int socket, const Reader *before) {
    auto *reader = static_cast<Reader *>(calloc(1, sizeof(Reader)));
    if (!reader) {
        close(socket);
        return false;
    }
    if (before) {
        reader->lost = before->lost;
        reader->used = before->used;
        reader->passed = before->passed;
        reader->done = before->done;
        memcpy(reader->buffer, before->buffer, before->used);
    }
    reader->socket = socket;
    reader->wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (reader->wake < 0 || start_thread("sdkind0306", receive_ind_data_from_at_channel, reader, &reader->thread)) {
        free_reader(reader);
        return false;
    }
    g_registry.reader = reader;
    return true;
}

// Makes the calling thread the one that `argument` was meant for; NULL for any other, and when it was stopped already.
Reader *adopt(void *argument) {
    RegistryLock lock;
    Reader *reader = g_registry.reader;
    if (!reader || reader != argument || reader->adopted)
        return nullptr;
    reader->adopted = true;
    push(g_registry.readers, *reader);
    return reader;
}

bool stopped(const Reader &reader) {
    RegistryLock lock;
    return reader.stop;
}

// Hands on what may go, a line at a time: should a callback not return, a successor goes on behind its line.
void hand_on(Reader &reader) {
    while (reader.done < reader.passed) {
        const char *const line = reader.buffer + reader.done;
        const size_t left = reader.passed - reader.done;
        size_t length = line_length(line, left);
        if (!length && reader.done)
            break; // behind the last line end
        if (!length)
            length = left;
        reader.done += length;
        at_indication_data_handler(line, int(length));
        if (stopped(reader))
            return;
    }
    reader.used -= reader.passed;
    memmove(reader.buffer, reader.buffer + reader.passed, reader.used);
    reader.passed = reader.done = 0;
}

// How much of the buffer may be handed on after a read. A full read was cut here and not by the sender: what follows
// its last whole line is kept for the next one, unless that would fill the buffer.
size_t passable(const Reader &reader, bool full) {
    if (!full)
        return reader.used;
    size_t whole = 0;
    while (const size_t length = line_length(reader.buffer + whole, reader.used - whole))
        whole += length;
    return reader.used - whole < kReadSize ? whole : reader.used;
}

// Reads and hands on all that has arrived. False when nothing will arrive any more.
bool read_burst(Reader &reader) {
    for (;;) {
        const ssize_t got = read(reader.socket, reader.buffer + reader.used, kReadSize);
        if (got < 0 && (errno == EAGAIN || errno == EINTR))
            return true;
        if (got <= 0) {
            const int error = got ? errno : 0;
            {
                RegistryLock lock;
                reader.lost = true;
            }
            TAVRIK_LOG_ERROR("indication connection lost, errno %d", error);
            return false;
        }
        reader.used += size_t(got);
        reader.passed = passable(reader, got == ssize_t(kReadSize));
        hand_on(reader);
        if (got < ssize_t(kReadSize) || stopped(reader))
            return true;
    }
}

} // namespace

bool tavrik::start_indication_thread(unsigned generation, pthread_t *thread) {
    Lock one(g_registry.starting);
    {
        RegistryLock lock;
        if (g_registry.reader)
            *thread = g_registry.reader->thread;
        if (g_registry.reader || g_registry.generation != generation)
            return true;
    }
    const int socket = at_socket_init(kServerPath);
    if (socket < 0) {
        TAVRIK_LOG_ERROR("create socket failed");
        return false;
    }
    {
        RegistryLock lock;
        if (g_registry.generation != generation) {
            close(socket);
            return true;
        }
        if (make_reader(socket, nullptr)) {
            *thread = g_registry.reader->thread;
            return true;
        }
    }
    TAVRIK_LOG_ERROR("pthread_create failed");
    return false;
}

void tavrik::free_reader(Reader *reader) {
    if (reader->socket >= 0)
        close(reader->socket);
    if (reader->wake >= 0)
        close(reader->wake);
    free(reader);
}

Reader *tavrik::take_reader() {
    Reader *reader = g_registry.reader;
    g_registry.reader = nullptr;
    if (reader) {
        reader->stop = true;
        eventfd_write(reader->wake, 1);
        g_registry.changed.wake_all();
    }
    return reader;
}

void tavrik::abandon(Reader *reader) {
    reader->stop = true;
    reader->detached = true;
    const int socket = reader->socket;
    reader->socket = -1; // first: a child forked in between must not close somebody else's
    if (socket >= 0)
        close(socket);
}

void tavrik::end_reader(Reader *reader) {
    if (!reader)
        return;
    {
        RegistryLock lock;
        if (inside_callback(reader)) { // the caller's own, or one that nobody waits for any more
            pthread_detach(reader->thread);
            abandon(reader);
            return;
        }
    }
    pthread_join(reader->thread, nullptr);
    free_reader(reader);
}

bool tavrik::replace_reader() {
    Reader *before = take_reader();
    before->detached = true;
    pthread_detach(before->thread);
    const int socket = before->socket;
    before->socket = -1;
    return make_reader(socket, before);
}

unsigned long start_indication_thread(void) {
    unsigned generation;
    {
        RegistryLock lock;
        generation = g_registry.generation;
    }
    pthread_t thread = 0;
    return tavrik::start_indication_thread(generation, &thread) ? thread : 0;
}

void *receive_ind_data_from_at_channel(void *argument) {
    Reader *const reader = adopt(argument);
    if (!reader)
        return nullptr;
    bool open = !reader->lost;
    hand_on(*reader); // what a predecessor has read
    while (!stopped(*reader)) {
        pollfd input[] = {{reader->wake, POLLIN, 0}, {open ? reader->socket : -1, POLLIN, 0}};
        if (poll(input, 2, -1) < 0) {
            TAVRIK_LOG_ERROR("select error: %d", errno);
            if (errno != EINTR)
                usleep(1000);
        } else if (input[1].revents) {
            open = read_burst(*reader);
        }
    }
    bool detached;
    {
        RegistryLock lock;
        remove(g_registry.readers, *reader);
        detached = reader->detached;
    }
    if (detached)
        free_reader(reader);
    return nullptr;
}

int Tavrik_Indication_State(void) {
    RegistryLock lock;
    const Reader *reader = g_registry.reader;
    return !reader ? TAVRIK_INDICATION_NONE : reader->lost ? TAVRIK_INDICATION_LOST : TAVRIK_INDICATION_CONNECTED;
}
