// Life cycle of the receiver: the NMEA thread and its control pipe, and what brings each kind of receiver up.
#include "core/log.h"
#include "core/thread.h"
#include "gnss/serial.h"
#include "gnss/state.h"
#include "gpio.h"
#include "ubus/ril.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>

using namespace tavrik;

// Exported, so their words are atomic.
int g_upgrade_ready;
int g_gpio_number;
int g_pipe[2] = {-1, -1};

namespace {

constexpr int kPatienceMs = 2000;
constexpr int kServiceMs = 10000;
constexpr int kWriteMs = 1000;

void put(int &word, int value) {
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}
int get(const int &word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

std::atomic<bool> g_loaded{false}; // the powered receiver has its firmware

// Locked: the thread that runs, if any, runs no more, and the family is not initialised. Its successor has nothing in
// common with it.
NmeaThread *take_thread() {
    NmeaThread *const thread = g_gnss.thread;
    g_gnss.thread = nullptr;
    put(g_upgrade_ready, 0);
    if (!thread)
        return nullptr;
    thread->stop = true;
    eventfd_write(thread->wake, 1);
    const int end = get(g_pipe[1]);
    put(g_pipe[0], -1);
    put(g_pipe[1], -1);
    close(end);
    return thread;
}

// Locked: the thread frees itself when its callback returns, which may be late: what it holds is free for others now.
void leave_behind(NmeaThread &thread) {
    thread.detached = true;
    if (thread.in_callback)
        close_descriptors(thread);
}

// A child after fork has no NMEA thread, unless it was forked in the callback: that one then ends behind it. The
// descriptors are the parent's.
void after_fork() {
    g_gnss.mutex = Mutex();
    NmeaThread *const thread = g_gnss.thread;
    if (!thread)
        return;
    const bool own = pthread_equal(thread->thread, pthread_self());
    close(thread->wake); // the parent's thread is not to hear of it
    thread->wake = -1;
    take_thread();
    if (own)
        leave_behind(*thread);
    else
        free_thread(thread);
}

void set_up() {
    pthread_atfork(nullptr, nullptr, after_fork);
}

// With its pipe, whose write end goes to `write_end`. NULL, logged, when it cannot be had.
NmeaThread *make_thread(Tavrik_GnssCb callback, Fd &write_end, Site site) {
    auto *thread = static_cast<NmeaThread *>(calloc(1, sizeof(NmeaThread)));
    int ends[2];
    if (!thread || pipe2(ends, O_CLOEXEC | O_NONBLOCK)) {
        log(Level::error, site, "Tavrik_Gnss_Init creat pipe error");
        free(thread);
        return nullptr;
    }
    thread->callback = callback;
    thread->control = ends[0];
    write_end.reset(ends[1]);
    thread->port = thread->output = -1;
    thread->wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    thread->ended = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (thread->wake >= 0 && thread->ended >= 0)
        return thread;
    log(Level::error, site, "pthread_create thread error for tavrik_loc_nmea_thread");
    free_thread(thread);
    return nullptr;
}

// Until the thread has ended, or its time is over.
void wait_for_end(int ended) {
    const Deadline deadline = Deadline::in(kPatienceMs);
    pollfd event = {ended, POLLIN, 0};
    while (poll(&event, 1, deadline.poll_ms()) < 0 && errno == EINTR) {
    }
}

// Ends a thread that was taken. False when it is left behind.
bool end_thread(NmeaThread *thread) {
    const pthread_t handle = thread->thread;
    const bool own = pthread_equal(handle, pthread_self());
    if (!own)
        wait_for_end(thread->ended);
    bool gone;
    {
        Lock lock(g_gnss.mutex);
        gone = thread->gone;
        if (!gone)
            leave_behind(*thread);
    }
    if (gone) {
        pthread_join(handle, nullptr);
        free_thread(thread);
    } else {
        pthread_detach(handle);
    }
    return gone || own;
}

// Locked: what the running thread is for; without one, what the next will be.
int kind() {
    return g_gnss.thread ? g_gnss.kind : g_gnss_settings.kind.load();
}
int kind_now() {
    Lock lock(g_gnss.mutex);
    return kind();
}

// Writes a control word into the pipe. The bytes written, or -1 with errno set. A full pipe is a failure.
ssize_t tell_to_read(const char *word) {
    Lock lock(g_gnss.mutex);
    put(g_upgrade_ready, 1); // the thread may have begun before the write returns
    const ssize_t written = write(get(g_pipe[1]), word, strlen(word));
    if (written < 1)
        put(g_upgrade_ready, 0);
    return written;
}
ssize_t tell_to_stop() {
    Lock lock(g_gnss.mutex);
    const ssize_t written = write(get(g_pipe[1]), "stop", 4);
    if (written >= 1)
        put(g_upgrade_ready, 0);
    return written;
}

bool set_up_gpio(int line, int fresh, Site site) {
    if (!GpioInit(line, 2, 0, fresh))
        return true;
    log(Level::error, site, "GPIO %d cannot be set up", line);
    return false;
}

// Never 0: the step's result is the number of bytes written.
int start_built_in(Site site) {
    BlobBuf message;
    if (!message.ok ||
        blobmsg_add_u32(&message.buf, "gnss_init_param", uint32_t(g_gnss_settings.position_mode.load())) ||
        tavrik_call_ubusinvoke(&message.buf, "gps", "gnss_init", 0, nullptr, kServiceMs))
        return -1;
    const int result = int(tell_to_read("ready!"));
    log(Level::debug, site, "send result %d", result);
    return result;
}

// 0 only when the firmware was loaded just now.
int start_powered(Site site) {
    if (!set_up_gpio(get(g_gpio_number), 0, site))
        return -1;
    int result = -1;
    if (!g_loaded) {
        const Tavrik_GnssLoader loader = g_gnss_settings.loader;
        result = loader ? loader() : -1;
        log(Level::debug, site, "send result %d", result);
        if (result)
            return result;
        g_loaded = true;
    }
    if (tell_to_read("start") >= 1)
        return result;
    log(Level::error, site, "write failed %m %d!", errno);
    return -1;
}

// Opens the port for the thread, unless it has it. Without a thread to own it, it is closed again.
bool open_port() {
    {
        Lock lock(g_gnss.mutex);
        if (g_gnss.thread && g_gnss.thread->port >= 0)
            return true;
    }
    Fd port(open_serial(kReceiverPort, O_RDWR));
    if (!port)
        return false;
    Lock lock(g_gnss.mutex);
    if (g_gnss.thread && g_gnss.thread->port < 0)
        g_gnss.thread->port = port.release();
    return true;
}

int start_serial(Site site) {
    if (!open_port()) {
        log(Level::error, site, "Can't open COM");
        return 0;
    }
    if (tell_to_read("ready!") < 1) {
        log(Level::error, site, "write failed %m %d!", errno);
        return -1;
    }
    log(Level::debug, site, "write ready!");
    if (!tavrik_call_ubusinvoke(nullptr, "hdgnssapp", "start", 0, nullptr, kServiceMs))
        return 0;
    log(Level::error, site, "Tavrik_call_ubusinvoke start failed !");
    return -1;
}

void stop_serial(Site site) {
    {
        // 06 41: class and number; length 5, payload, and the running sums of all from the class on
        static constexpr unsigned char kStop[] = {0xF1, 0xD9, 0x06, 0x41, 0x05, 0x00, 0x00,
                                                  0x00, 0x00, 0x00, 0x03, 0x4F, 0x64};
        const Fd port(open_serial(kReceiverPort, O_RDWR)); // the thread may close its own at any time
        if (!port)
            log(Level::error, site, "Can't open COM");
        else if (write_serial(port.get(), kStop, sizeof kStop, Deadline::in(kWriteMs)) == ssize_t(sizeof kStop))
            log(Level::debug, site, "\ngnss stop.\n");
    }
    if (tavrik_call_ubusinvoke(nullptr, "hdgnssapp", "close", 0, nullptr, kServiceMs))
        log(Level::debug, site, "tavrik_call_ubusinvoke stop failed !");
}

} // namespace

int Tavrik_Gnss_Init(Tavrik_GnssCb callback, int gpio_number) {
    const int chosen = g_gnss_settings.kind;
    {
        Lock lock(g_gnss.mutex);
        if (g_gnss.thread) {
            TAVRIK_LOG_ERROR("Tavrik_Gnss_Init has been inited, Ignored!");
            return -1;
        }
    }
    put(g_gpio_number, gpio_number);
    if (chosen == TAVRIK_GNSS_POWERED) {
        if (!set_up_gpio(gpio_number, 1, Site::here()))
            return -1;
        if (Tavrik_AT_Init()) {
            TAVRIK_LOG_DEBUG(" at init faild");
            return -1;
        }
    }
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, set_up);
    Fd write_end;
    NmeaThread *const thread = make_thread(callback, write_end, Site::here());
    if (!thread)
        return -1;
    bool second, started = false;
    {
        Lock lock(g_gnss.mutex);
        second = g_gnss.thread;
        started = !second && !start_thread("tavriksdknmea", tavrik_loc_nmea_thread, thread, &thread->thread);
        if (started) {
            g_gnss.thread = thread;
            g_gnss.kind = chosen;
            g_gnss.known = false;
            put(g_pipe[0], thread->control);
            put(g_pipe[1], write_end.release());
        }
    }
    if (started)
        return 0;
    free_thread(thread);
    if (second)
        TAVRIK_LOG_ERROR("Tavrik_Gnss_Init has been inited, Ignored!");
    else
        TAVRIK_LOG_ERROR("pthread_create thread error for tavrik_loc_nmea_thread");
    return -1;
}

int Tavrik_Gnss_Deinit(void) {
    int of_kind;
    NmeaThread *thread;
    {
        Lock lock(g_gnss.mutex);
        of_kind = kind();
        thread = take_thread();
    }
    if (thread && !end_thread(thread))
        TAVRIK_LOG_ERROR("Tavrik_Gnss_Deinit fail!");
    if (of_kind == TAVRIK_GNSS_POWERED)
        Tavrik_AT_Deinit();
    return 0;
}

int Tavrik_Gnss_Start(void) {
    if (get(g_upgrade_ready) == 1) {
        TAVRIK_LOG_ERROR("\nTavrik_Gnss_Start has been start.\n");
        return -1;
    }
    switch (kind_now()) {
    case TAVRIK_GNSS_BUILT_IN:
        return start_built_in(Site::here()) ? -1 : 0;
    case TAVRIK_GNSS_POWERED:
        return start_powered(Site::here()) ? -1 : 0;
    default:
        return start_serial(Site::here());
    }
}

int Tavrik_Gnss_Stop(void) {
    if (!get(g_upgrade_ready)) {
        TAVRIK_LOG_DEBUG("\nTavrik_Gnss_Stop has been stop.\n");
        return -1;
    }
    switch (kind_now()) {
    case TAVRIK_GNSS_BUILT_IN:
        tavrik_call_ubusinvoke(nullptr, "gps", "gnss_deinit", 0, nullptr, kServiceMs);
        break;
    case TAVRIK_GNSS_POWERED:
        if (gpio_set_value(get(g_gpio_number), 0))
            TAVRIK_LOG_ERROR("GPIO %d cannot be set low", get(g_gpio_number));
        g_loaded = false;
        break;
    default:
        stop_serial(Site::here());
    }
    const ssize_t written = tell_to_stop();
    if (written >= 1)
        return 0;
    TAVRIK_LOG_ERROR("send result %d %m %d", int(written), errno);
    return -1;
}
