// What the files of the GNSS family share: one lock, and what it guards. The lock is held over no callback, join, bus
// call or wait.
#pragma once

#include "core/sync.h"
#include "gnss/nmea.h"
#include "tavrik_sdk.h"

#include <atomic>

namespace tavrik {

// The NMEA thread with its descriptors. It closes them itself, unless it was stopped inside a callback: then whoever
// stops it does, and it never touches them again.
struct NmeaThread {
    pthread_t thread;
    Tavrik_GnssCb callback; // or NULL

    // Under the lock.
    int wake;    // an event: `stop` was set
    int ended;   // an event: the thread has ended, and whoever stopped it may join and free it
    int control; // the read end of g_pipe
    int port;    // the receiver's; -1 while closed
    int output;  // the NMEA output port; -1 while closed
    bool stop;
    bool in_callback;
    bool gone;     // `ended` was told
    bool detached; // nobody joins it: it frees this itself

    // The thread's alone.
    bool reading; // told to read
    int64_t last_byte_ms;
    size_t carried; // bytes of a control word that a read has cut
    char carry[8];
    bool output_failed, file_failed; // told in the log
    size_t owed;                     // of a sentence that the output port took a part of
    char owed_bytes[TAVRIK_GNSS_SENTENCE_SIZE + 2];
    bool decided, passes; // whether callbacks get this epoch
    int64_t decided_ms, due_ms;
    NmeaReader reader;
};

struct Gnss {
    Mutex mutex;
    NmeaThread *thread; // the running one: the family is initialised
    int kind;           // of the running one
    bool known;         // `last` is there
    Tavrik_GnssData last;
};

extern Gnss g_gnss;

// Chosen by the application, read by whoever needs them.
struct GnssSettings {
    std::atomic<int> kind, callback_switch, to_port, save, rate, position_mode;
    std::atomic<Tavrik_GnssLoader> loader;
};

extern GnssSettings g_gnss_settings;

// In thread.cpp.
void *tavrik_loc_nmea_thread(void *thread);
void free_thread(NmeaThread *thread);
// Locked: closes what a thread holds that nobody waits for.
void close_descriptors(NmeaThread &thread);
bool stopped(const NmeaThread &thread);

// In output.cpp: where sentences and records go, on the NMEA thread.
NmeaSink sink_of(NmeaThread &thread);
// Sends on what the output port did not take at once.
void flush_nmea_port(NmeaThread &thread);

} // namespace tavrik
