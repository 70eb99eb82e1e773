// tavrikctl gnss: the receiver of positions, and what it tells.
#include "command.h"
#include "output.h"
#include "watch.h"

#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <tavrik_sdk.h>
#include <unistd.h>

namespace tavrikctl {
namespace {

const char *const kReceivers[] = {"built-in", "powered", "serial"};
constexpr char kKeptPath[] = "/var/run/tavrikctl.gnss";

// The library keeps its choices for a process, and each call of this program is one: what `gnss kind` chose, and that
// `gnss start` has left the receiver running, is in a file until the module starts anew.
struct Kept {
    int kind = TAVRIK_GNSS_BUILT_IN, gpio = 0, started = 0;

    Kept() {
        if (FILE *file = fopen(kKeptPath, "re")) {
            Kept read(*this);
            if (fscanf(file, "%d %d %d", &read.kind, &read.gpio, &read.started) == 3 && read.kind >= 0 && read.kind < 3)
                *this = read;
            fclose(file);
        }
    }
    bool keep() const {
        const int fd = open(kKeptPath, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
        const bool kept = fd >= 0 && dprintf(fd, "%d %d %d\n", kind, gpio, started) > 0;
        return close(fd) == 0 && kept;
    }
    // With what the arguments say.
    void take(const Arguments &arguments) {
        if (arguments.has("--kind"))
            kind = int(arguments.number("--kind"));
        if (arguments.has("--gpio"))
            gpio = int(arguments.number("--gpio"));
    }
};

std::string g_loader; // a command

int load_firmware() {
    return system(g_loader.c_str());
}

// The library's GNSS family, for as long as a verb runs. It does not stop the receiver.
class Receiver {
  public:
    Receiver(const std::string &verb, const Kept &kept, const Arguments &arguments, Tavrik_GnssCb callback)
        : verb_("gnss " + verb),
          kind_(kept.kind) {
        if (arguments.has("--mode"))
            Tavrik_Gnss_SetPositionMode(int(arguments.number("--mode")));
        if (arguments.has("--loader")) {
            g_loader = arguments.text("--loader");
            Tavrik_Gnss_SetFirmwareLoader(load_firmware);
        }
        Tavrik_Gnss_Chip_Select(kind_);
        ready_ = Tavrik_Gnss_Init(callback, kept.gpio) == 0;
        if (!ready_)
            fail(verb_ + ": the receiver cannot be had");
    }
    Receiver(const Receiver &) = delete;
    Receiver &operator=(const Receiver &) = delete;
    ~Receiver() { Tavrik_Gnss_Deinit(); }
    explicit operator bool() const { return ready_; }

    bool start() {
        const int result = Tavrik_Gnss_Start();
        if (!__atomic_load_n(&g_upgrade_ready, __ATOMIC_SEQ_CST)) // whatever the result
            return fail(verb_ + ": the receiver cannot be started");
        if (kind_ != TAVRIK_GNSS_SERIAL || result == 0)
            return true;
        Tavrik_Gnss_Stop();
        return fail(verb_ + ": the receiver's service does not start it");
    }

  private:
    const std::string verb_;
    const int kind_;
    bool ready_;
};

bool kind(const Arguments &arguments, Output &output) {
    Kept kept;
    if (arguments.has("KIND")) {
        if (kept.started)
            return fail("gnss kind: a receiver is started, stop it first");
        kept.kind = int(arguments.number("KIND"));
        kept.take(arguments);
        if (!kept.keep())
            return fail("gnss kind: cannot keep it");
    }
    output.field("kind", "Kind", kept.kind, std::string(" (") + kReceivers[kept.kind] + ")");
    if (kept.kind == TAVRIK_GNSS_POWERED)
        output.field("gpio", "GPIO line", kept.gpio);
    return output.end() || fail("gnss kind: cannot write it");
}

bool start(const Arguments &arguments, Output &) {
    Kept kept;
    kept.take(arguments);
    Receiver receiver("start", kept, arguments, nullptr);
    if (!receiver || !receiver.start())
        return false;
    kept.started = 1;
    return kept.keep() || fail("gnss start: it is started, but that cannot be kept");
}

bool stop(const Arguments &arguments, Output &) {
    Kept kept;
    kept.take(arguments);
    const Receiver receiver("stop", kept, arguments, nullptr);
    if (!receiver)
        return false;
    // Another process has started it, and to start it once more only to stop it would have it lose what it knows.
    __atomic_store_n(&g_upgrade_ready, 1, __ATOMIC_SEQ_CST);
    if (Tavrik_Gnss_Stop() != 0)
        return fail("gnss stop: the receiver cannot be stopped");
    kept.started = 0;
    return kept.keep() || fail("gnss stop: it is stopped, but that cannot be kept");
}

// A number with so many decimals.
std::string decimal(int64_t value, int decimals) {
    std::string digits = std::to_string(value < 0 ? -value : value);
    if (int(digits.size()) <= decimals)
        digits.insert(0, size_t(decimals) + 1 - digits.size(), '0');
    return (value < 0 ? "-" : "") + digits.insert(digits.size() - size_t(decimals), ".");
}

// For people with a unit, for scripts as a number.
void put(Output &output, const char *key, const char *label, int64_t value, int decimals, const char *unit) {
    const std::string text = decimal(value, decimals);
    output.field(key, label, text + unit);
    output.member(key, nlohmann::ordered_json::parse(text));
}

std::string time_of(const Tavrik_GnssData &data) {
    const time_t seconds = time_t(data.utc_ms / 1000);
    tm broken;
    char text[40];
    gmtime_r(&seconds, &broken);
    const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &broken);
    return std::string(text, length) + decimal(data.utc_ms % 1000, 3).substr(1) + "Z";
}

void put(Output &output, const Tavrik_GnssData &data) {
    static const char *const kFixes[] = {"", "none", "2D", "3D"};
    static const char *const kNames[] = {"GPS", "GLONASS", "Galileo", "BeiDou", "QZSS", "NavIC", "SBAS", "other"};
    const auto knows = [&](uint32_t bits) { return (data.known & bits) == bits; };
    output.event("position");
    if (knows(TAVRIK_GNSS_KNOWN_TIME | TAVRIK_GNSS_KNOWN_DATE))
        output.field("time", "time", time_of(data));
    if (knows(TAVRIK_GNSS_KNOWN_FIX))
        output.field("fix", "fix", kFixes[data.fix_type]);
    if (knows(TAVRIK_GNSS_KNOWN_POSITION)) {
        put(output, "latitude", "latitude", data.lat, 7, "");
        put(output, "longitude", "longitude", data.lon, 7, "");
    }
    if (knows(TAVRIK_GNSS_KNOWN_ALTITUDE))
        put(output, "altitude", "altitude", data.alt, 3, " m");
    if (knows(TAVRIK_GNSS_KNOWN_SPEED))
        put(output, "speed", "speed", data.speed, 3, " m/s");
    if (knows(TAVRIK_GNSS_KNOWN_COURSE))
        put(output, "course", "course", data.course, 2, "");
    if (knows(TAVRIK_GNSS_KNOWN_DOP))
        put(output, "hdop", "HDOP", data.hdop, 2, "");
    if (knows(TAVRIK_GNSS_KNOWN_USED))
        output.field("used", "used", data.used);
    if (!knows(TAVRIK_GNSS_KNOWN_VIEW))
        return;
    output.field("in_view", "in view", data.in_view);
    nlohmann::ordered_json satellites = nlohmann::ordered_json::array();
    for (int i = 0; i < data.sat_count; i++) {
        const Tavrik_GnssSatellite &satellite = data.sats[i];
        satellites.push_back({{"system", kNames[satellite.constellation]},
                              {"id", satellite.id},
                              {"cn0", satellite.cn0},
                              {"used", satellite.used == 1}});
    }
    output.member("satellites", satellites);
}

// What the verb waits for, and what the NMEA thread prints meanwhile.
struct {
    std::mutex mutex;
    Output *output;
    long long left; // records or sentences to print
    bool written = true;
} g_watch;

void on_data(const Tavrik_GnssData *data) {
    const std::lock_guard<std::mutex> lock(g_watch.mutex);
    if (!g_watch.left || !g_watch.written)
        return;
    if (data->kind == TAVRIK_GNSS_SENTENCE) {
        g_watch.output->lines("sentence", {data->sentence});
        g_watch.output->member("sentence", data->sentence);
    } else {
        put(*g_watch.output, *data);
    }
    --g_watch.left;
    g_watch.written = g_watch.output->end();
}

// Until the end that the arguments set, or a signal that ends the program: the receiver is stopped first.
bool listen(const std::string &verb, int what, const Arguments &arguments, Output &output) {
    using namespace std::chrono;
    Kept kept;
    kept.take(arguments);
    g_watch.output = &output;
    g_watch.left = arguments.has("--count") ? arguments.number("--count") : LLONG_MAX;
    const auto until = steady_clock::now() + seconds(arguments.has("--for") ? arguments.number("--for") : INT_MAX);
    sigset_t ends;
    sigemptyset(&ends);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&ends, signal);
    sigprocmask(SIG_BLOCK, &ends, nullptr);

    Receiver receiver(verb, kept, arguments, on_data);
    Tavrik_Gnss_CallBack_Switch(what);
    if (!receiver || !receiver.start())
        return false;
    long long missing;
    for (bool wait = true;;) {
        {
            const std::lock_guard<std::mutex> lock(g_watch.mutex);
            wait = wait && g_watch.left && g_watch.written && steady_clock::now() < until;
            missing = g_watch.left;
            if (!wait) {
                g_watch.left = 0;
                break;
            }
        }
        const timespec turn = {0, 50000000};
        wait = sigtimedwait(&ends, nullptr, &turn) < 0;
    }
    if (!kept.started)
        Tavrik_Gnss_Stop();
    if (!g_watch.written)
        return fail("gnss " + verb + ": cannot write it");
    if (missing && arguments.has("--count"))
        return fail("gnss " + verb + ": " + std::to_string(missing) + " fewer than wanted");
    return true;
}

bool track(const Arguments &arguments, Output &output) {
    return listen("track", TAVRIK_GNSS_CALLBACK_RECORD, arguments, output);
}

bool raw(const Arguments &arguments, Output &output) {
    return listen("raw", TAVRIK_GNSS_CALLBACK_SENTENCES, arguments, output);
}

} // namespace

Family gnss_family() {
    const Parameter gpio = number_option("--gpio", "LINE", "The GPIO line of a powered receiver", 0, INT_MAX, "");
    const std::vector<Parameter> which = {
        number_option("--kind", "KIND", "The receiver, instead of the one that `gnss kind` chose", 0, 2, ""), gpio};
    std::vector<Parameter> starting = which, watching;
    starting.push_back(text_option("--loader", "COMMAND", "Loads the firmware of a powered receiver", ""));
    starting.push_back(number_option("--mode", "MODE", "Position mode of the built-in receiver", INT_MIN, INT_MAX, ""));
    watching = starting;
    for (const Parameter &option : watch_options())
        watching.push_back(option);
    return {"gnss",
            "Positions",
            {{"gnss",
              "kind",
              "Print the kind of receiver, or choose it: 0 built-in, 1 powered by a GPIO line, 2 on the serial port",
              {optional_number("KIND", "The kind from now on", 0, 2), gpio},
              kind},
             {"gnss", "start", "Start the receiver and leave it running", starting, start},
             {"gnss", "stop", "Stop the receiver", which, stop},
             {"gnss", "track",
              "Print positions, a line each, until interrupted; the receiver is stopped then unless `gnss start` "
              "started it",
              watching, track},
             {"gnss", "raw", "Print the receiver's NMEA sentences, until interrupted as `gnss track`", watching, raw}}};
}

} // namespace tavrikctl
