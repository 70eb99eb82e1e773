// Where sentences and records go: callback, NMEA output port, save file.
#include "core/log.h"
#include "gnss/serial.h"
#include "gnss/state.h"

#include <algorithm>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>

using namespace tavrik;

namespace {

constexpr char kOutputPort[] = "/dev/ttyGS0";
constexpr char kSaveFile[] = "/mnt/userdata/gnssdata.txt";
constexpr off_t kSaveSize = 1 << 20;

// A failure that every sentence would meet again is told once, until it is over.
void tell(bool failed, bool &told, const char *what, Site site = Site::here()) {
    if (failed && !told)
        log(Level::error, site, "write to %s failed, errno %d", what, errno);
    told = failed;
}

void drop_output(NmeaThread &thread) {
    close(thread.output);
    thread.output = -1;
    thread.owed = 0;
}

// A reader at the other end gets whole sentences: none begins before the last one has gone out.
void write_nmea_port(NmeaThread &thread, const char *line, size_t length) {
    if (thread.output < 0)
        thread.output = open_serial(kOutputPort, O_WRONLY);
    if (thread.output < 0)
        return tell(true, thread.output_failed, kOutputPort);
    flush_nmea_port(thread);
    if (thread.owed || thread.output < 0)
        return;
    memcpy(thread.owed_bytes, line, thread.owed = length);
    flush_nmea_port(thread);
}

// Appends a whole line, or nothing. The file is opened each time, so that whoever reads it may move it away.
void save_sentence(NmeaThread &thread, const char *line, size_t length) {
    const Fd file(open(kSaveFile, O_WRONLY | O_CREAT | O_APPEND | O_NOCTTY | O_NONBLOCK | O_CLOEXEC, 0644));
    struct stat now;
    bool done = file && !fstat(file.get(), &now);
    if (done && now.st_size + off_t(length) > kSaveSize) {
        done = !ftruncate(file.get(), 0);
        now.st_size = 0;
    }
    if (done) {
        errno = ENOSPC; // that of a write which took a part
        done = write(file.get(), line, length) == ssize_t(length);
        const int error = errno;
        if (!done)
            (void)!ftruncate(file.get(), now.st_size);
        errno = error;
    }
    tell(!done, thread.file_failed, kSaveFile);
}

void deliver(NmeaThread &thread, const Tavrik_GnssData &data) {
    {
        Lock lock(g_gnss.mutex);
        if (!thread.callback || thread.stop)
            return;
        thread.in_callback = true;
    }
    thread.callback(&data);
    Lock lock(g_gnss.mutex);
    thread.in_callback = false;
}

// The rate counts epochs: callbacks get all of one or nothing. An epoch may come a quarter of the period early, so that
// one that a busy machine delivers late does not cost the next; the mean stays within the rate.
bool passes(NmeaThread &thread, int64_t now_ms) {
    const int rate = g_gnss_settings.rate;
    if (!rate)
        return true;
    const int64_t period = 1000 / rate;
    if (!thread.decided || now_ms - thread.decided_ms >= period) { // sentences without a time end no epoch
        thread.decided = true;
        thread.decided_ms = now_ms;
        thread.passes = now_ms + period / 4 >= thread.due_ms;
        if (thread.passes)
            thread.due_ms = std::max(thread.due_ms, now_ms) + period;
    }
    return thread.passes;
}

void on_sentence(void *context, const char *text, size_t length, int64_t mono_ms) {
    NmeaThread &thread = *static_cast<NmeaThread *>(context);
    if (stopped(thread) || length >= TAVRIK_GNSS_SENTENCE_SIZE)
        return;
    char line[TAVRIK_GNSS_SENTENCE_SIZE + 2];
    memcpy(line, text, length);
    line[length] = '\r';
    line[length + 1] = '\n';
    if (g_gnss_settings.to_port)
        write_nmea_port(thread, line, length + 2);
    if (g_gnss_settings.save)
        save_sentence(thread, line, length + 2);
    if (!passes(thread, mono_ms) || g_gnss_settings.callback_switch == TAVRIK_GNSS_CALLBACK_RECORD)
        return;
    Tavrik_GnssData data = {};
    data.size = sizeof data;
    data.kind = TAVRIK_GNSS_SENTENCE;
    data.mono_ms = mono_ms;
    data.sentence_len = uint16_t(length);
    memcpy(data.sentence, text, length);
    deliver(thread, data);
}

void on_epoch(void *context, const Tavrik_GnssData &record) {
    NmeaThread &thread = *static_cast<NmeaThread *>(context);
    {
        Lock lock(g_gnss.mutex);
        if (thread.stop)
            return;
        g_gnss.last = record;
        g_gnss.known = true;
    }
    const bool passed = passes(thread, record.mono_ms);
    thread.decided = false;
    if (passed && g_gnss_settings.callback_switch != TAVRIK_GNSS_CALLBACK_SENTENCES)
        deliver(thread, record);
}

} // namespace

NmeaSink tavrik::sink_of(NmeaThread &thread) {
    return {on_sentence, on_epoch, &thread};
}

void tavrik::flush_nmea_port(NmeaThread &thread) {
    if (!thread.owed)
        return;
    const ssize_t written = write(thread.output, thread.owed_bytes, thread.owed);
    const bool failed = written < 0 && errno != EAGAIN;
    tell(failed, thread.output_failed, kOutputPort);
    if (failed)
        return drop_output(thread);
    if (written > 0) {
        thread.owed -= size_t(written);
        memmove(thread.owed_bytes, thread.owed_bytes + written, thread.owed);
    }
}
