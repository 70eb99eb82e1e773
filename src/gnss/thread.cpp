// The NMEA thread: does what the control pipe says, and reads the receiver.
#include "core/log.h"
#include "gnss/serial.h"
#include "gnss/state.h"

#include <algorithm>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>

using namespace tavrik;

namespace {

constexpr size_t kControlSize = 6400;
constexpr size_t kChunk = 4096;
constexpr int kSilenceMs = 100; // ends an epoch

constexpr struct {
    const char *text;
    size_t length;
    bool read;
} kWords[] = {{"ready!", 6, true}, {"start", 5, true}, {"stop", 4, false}};
constexpr size_t kLongestWord = 6;
static_assert(kLongestWord <= sizeof NmeaThread::carry);

void close_port(NmeaThread &thread) {
    Lock lock(g_gnss.mutex);
    if (thread.port >= 0)
        close(thread.port);
    thread.port = -1;
}

bool has_port(const NmeaThread &thread) {
    Lock lock(g_gnss.mutex);
    return thread.port >= 0;
}

void begin_reading(NmeaThread &thread) {
    const bool open = has_port(thread);
    if (thread.reading && open)
        return;
    if (!open) {
        Fd port(open_serial(kReceiverPort, O_RDWR));
        if (!port)
            TAVRIK_LOG_ERROR("Can't open COM");
        Lock lock(g_gnss.mutex);
        if (thread.port < 0) // Start may have been quicker
            thread.port = port.release();
    }
    thread.reading = true;
    thread.decided = false;
    thread.reader.start(sink_of(thread));
}

void end_reading(NmeaThread &thread) {
    thread.reading = false;
    close_port(thread);
}

// Obeys what is in the pipe, in the order of its bytes.
void obey(NmeaThread &thread) {
    char bytes[sizeof thread.carry + kControlSize];
    memcpy(bytes, thread.carry, thread.carried);
    const ssize_t got = read(thread.control, bytes + thread.carried, kControlSize);
    if (got <= 0)
        return;
    const size_t length = thread.carried + size_t(got);
    size_t done = 0;
    for (size_t at = 0; at < length; ++at)
        for (const auto &word : kWords)
            if (length - at >= word.length && !memcmp(bytes + at, word.text, word.length)) {
                word.read ? begin_reading(thread) : end_reading(thread);
                done = at + word.length;
            }
    thread.carried = std::min(length - done, kLongestWord - 1);
    memcpy(thread.carry, bytes + length - thread.carried, thread.carried);
}

void read_receiver(NmeaThread &thread, int port) {
    char chunk[kChunk];
    const ssize_t got = read(port, chunk, sizeof chunk);
    if (got > 0) {
        thread.last_byte_ms = monotonic_ms();
        thread.reader.take(chunk, size_t(got), thread.last_byte_ms);
    } else if (!got || (errno != EAGAIN && errno != EINTR)) {
        const int error = got ? errno : 0;
        thread.reader.silence();
        TAVRIK_LOG_ERROR("connection to the receiver lost, errno %d", error);
        close_port(thread);
    }
}

} // namespace

Gnss tavrik::g_gnss;

bool tavrik::stopped(const NmeaThread &thread) {
    Lock lock(g_gnss.mutex);
    return thread.stop;
}

void tavrik::close_descriptors(NmeaThread &thread) {
    for (int *fd : {&thread.control, &thread.port, &thread.output}) {
        if (*fd >= 0)
            close(*fd);
        *fd = -1;
    }
}

void tavrik::free_thread(NmeaThread *thread) {
    close_descriptors(*thread);
    for (const int fd : {thread->wake, thread->ended})
        if (fd >= 0)
            close(fd);
    free(thread);
}

void *tavrik::tavrik_loc_nmea_thread(void *argument) {
    NmeaThread &thread = *static_cast<NmeaThread *>(argument);
    for (;;) {
        int port;
        {
            Lock lock(g_gnss.mutex);
            if (thread.stop)
                break;
            port = thread.reading ? thread.port : -1;
        }
        const int output = thread.owed ? thread.output : -1;
        const bool open = port >= 0 && thread.reader.epoch_open();
        const int64_t silent_in = thread.last_byte_ms + kSilenceMs - monotonic_ms();
        pollfd input[] = {
            {thread.wake, POLLIN, 0}, {thread.control, POLLIN, 0}, {port, POLLIN, 0}, {output, POLLOUT, 0}};
        poll(input, 4, open ? int(std::max<int64_t>(silent_in, 0)) : -1);
        if (input[1].revents)
            obey(thread);
        else if (input[2].revents)
            read_receiver(thread, port);
        else if (open && silent_in <= 0)
            thread.reader.silence();
        else if (input[3].revents)
            flush_nmea_port(thread);
    }
    bool detached;
    {
        Lock lock(g_gnss.mutex);
        close_descriptors(thread);
        thread.gone = true;
        detached = thread.detached;
        if (!detached)
            eventfd_write(thread.ended, 1);
    }
    if (detached)
        free_thread(&thread);
    return nullptr;
}
