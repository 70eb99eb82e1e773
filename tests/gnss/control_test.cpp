// Life cycle of the receivers, the NMEA thread, and where its sentences go, against the simulated module's ports,
// services and GPIO line.
#include <atomic>
#include <chrono>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <random>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <thread>

#include "support/descriptors.h"
#include "support/events.h"
#include "support/sim.h"

// For the thread sanitizer: a child starts a thread here.
extern "C" const char *__tsan_default_options() {
    return "die_after_fork=0";
}

namespace {

using nlohmann::json;
using sim::log_of, sim::recorded;
using std::chrono::steady_clock;
using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

constexpr int kLine = 7;
constexpr char kStart[] = "Tavrik_Gnss_Start: ", kStop[] = "Tavrik_Gnss_Stop: ", kInit[] = "Tavrik_Gnss_Init: ";
constexpr char kSend[] = "Tavrik_Gnss_SendCommand: ", kPut[] = "debug Tavrik_Gnss_";
constexpr char kSaved[] = "/mnt/userdata/gnssdata.txt";
const std::string kStopCommand = "f1d90641050000000000034f64";

Events g_events;

// What the callback does besides.
std::mutex g_mutex;
std::function<void()> g_inside;
void inside(std::function<void()> run) {
    const std::lock_guard lock(g_mutex);
    g_inside = std::move(run);
}

std::string shown(const Tavrik_GnssData &data) {
    EXPECT_EQ(data.size, sizeof data);
    if (data.kind == TAVRIK_GNSS_SENTENCE) {
        EXPECT_EQ(strlen(data.sentence), data.sentence_len);
        EXPECT_GT(data.mono_ms, 0);
        return data.sentence;
    }
    char text[64];
    snprintf(text, sizeof text, "%02d:%02d:%02d %d", data.hour, data.min, data.sec, data.lat);
    return text;
}

void on_data(const Tavrik_GnssData *data) {
    g_events.add(shown(*data));
    std::function<void()> run;
    {
        const std::lock_guard lock(g_mutex);
        run = g_inside;
    }
    if (run)
        run();
}

std::string sentence(const std::string &body) {
    unsigned char sum = 0;
    for (const char c : body)
        sum = static_cast<unsigned char>(sum ^ c);
    char end[8];
    snprintf(end, sizeof end, "*%02X", sum);
    return "$" + body + end;
}
// What the receiver tells at a second, and the record of it.
std::string rmc(int second) {
    char text[96];
    snprintf(text, sizeof text, "GNRMC,1200%02d.00,A,5231.2000,N,01324.3000,E,1.0,2.0,010126,,,A", second % 60);
    return sentence(text);
}
std::string record(int second) {
    char text[32];
    snprintf(text, sizeof text, "12:00:%02d 525200000", second % 60);
    return text;
}

// The receiver sends it, and it has been read.
void receive(const std::string &text, const json &more = json::object()) {
    json args = {{"text", text}};
    args.update(more);
    sim::call("nmea", args);
}

bool until(const std::function<bool()> &done) {
    for (const auto end = steady_clock::now() + 20s; !done(); usleep(1000))
        if (steady_clock::now() > end)
            return false;
    return true;
}
// What the thread holds of the receiver's port.
bool reads() {
    return sim::call("state")["services"]["gnss"]["open"];
}
// The powered receiver has its power.
bool powered() {
    return sim::call("state")["services"]["gpio"]["lines"][std::to_string(kLine)]["value"] == "1";
}
// The thread has obeyed what is in the pipe, unless a callback keeps it.
void settle() {
    int waiting = 1;
    EXPECT_TRUE(until([&] { return !ioctl(g_pipe[0], FIONREAD, &waiting) && !waiting; }));
}

// The same, and what was last in it has been done: the thread has come back for more.
void obeyed() {
    settle();
    EXPECT_EQ(write(g_pipe[1], "?", 1), 1);
    settle();
}

size_t entries(const char *folder) {
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        (void)entry;
        ++count;
    }
    return count;
}

// Holds the next callback until it is released.
class Hanging {
  public:
    Hanging() {
        inside([this] {
            inside(nullptr);
            reached_.set_value();
            EXPECT_EQ(released_.wait_for(20s), std::future_status::ready);
            back_.set_value();
        });
    }
    void reached() { EXPECT_EQ(reached_.get_future().wait_for(20s), std::future_status::ready); }
    void release() {
        release_.set_value();
        EXPECT_EQ(back_.get_future().wait_for(20s), std::future_status::ready);
    }

  private:
    std::promise<void> reached_, release_, back_;
    std::shared_future<void> released_ = release_.get_future().share();
};

// Serial ports that this process has open.
size_t ports() {
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        count += std::filesystem::read_symlink(entry, gone).string().find("pts") != std::string::npos;
    }
    return count;
}

class Gnss : public testing::Test {
  protected:
    static void SetUpTestSuite() { // a first request makes what the bus needs for good
        log_of([] { tavrik_call_ubusinvoke(nullptr, "none", "none", 0, nullptr, 1000); });
    }
    Gnss() {
        sim::call("reset");
        sim::call("gnss", {{"messages", 0}}); // what it says is the test's
        sim::call("record", {{"clear", true}});
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
        Tavrik_Gnss_SetFirmwareLoader([] { return 0; });
    }
    ~Gnss() override {
        log_of([] {
            Tavrik_Gnss_Stop(); // also the powered one's firmware
            Tavrik_Gnss_Deinit();
        });
        inside(nullptr);
        g_events.take(0);
        Tavrik_Gnss_CallBack_Switch(TAVRIK_GNSS_CALLBACK_RECORD);
        Tavrik_Gnss_Data_to_Nmea_Port(0);
        Tavrik_Gnss_SetSaveFlag(0);
        Tavrik_Gnss_SetPositionMode(0);
        sim::call("reset");
    }
    void init(int kind) {
        EXPECT_EQ(Tavrik_Gnss_Chip_Select(kind), 0);
        EXPECT_EQ(Tavrik_Gnss_Init(on_data, kLine), 0);
    }
    // One of kind 2, and its thread reads.
    void start() {
        init(TAVRIK_GNSS_SERIAL);
        EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_Start(), 0); }), kPut + std::string("Start: write ready!\n"));
        obeyed();
    }
};

TEST_F(Gnss, Settings) {
    const struct {
        int (*set)(int);
        int least, most;
        const char *log;
    } cases[] = {{Tavrik_Gnss_Chip_Select, 0, 2, "debug Tavrik_Gnss_Chip_Select: input error\n"},
                 {Tavrik_Gnss_CallBack_Switch, 0, 2, "debug Tavrik_Gnss_CallBack_Switch: input error\n"},
                 {Tavrik_Gnss_Data_to_Nmea_Port, 0, 1, "debug Tavrik_Gnss_Data_to_Nmea_Port: input error\n"},
                 {Tavrik_Gnss_SetSaveFlag, 0, 1, "debug Tavrik_Gnss_SetSaveFlag: input error\n"},
                 {Tavrik_Gnss_SetNmeaRate, 1, 0, "debug Tavrik_Gnss_SetNmeaRate: input error\n"}};
    for (const auto &test : cases) {
        for (int value = test.least; value <= test.most; ++value)
            EXPECT_EQ(log_of([&] { EXPECT_EQ(test.set(value), 0); }), "");
        for (int value : {test.least - 1, test.most ? test.most + 1 : 11, INT32_MIN, INT32_MAX})
            EXPECT_EQ(log_of([&] { EXPECT_EQ(test.set(value), -1); }), test.log);
    }
}

TEST_F(Gnss, InitTwiceAndFailures) {
    const size_t before = entries("/proc/self/fd");
    init(TAVRIK_GNSS_BUILT_IN);
    EXPECT_EQ(g_gpio_number, kLine);
    EXPECT_GE(g_pipe[0], 0);
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_Init(on_data, 8), -1); }),
              kInit + std::string("Tavrik_Gnss_Init has been inited, Ignored!\n"));
    EXPECT_EQ(g_gpio_number, kLine);
    EXPECT_EQ(Tavrik_Gnss_Deinit(), 0);
    EXPECT_EQ(g_pipe[0] + g_pipe[1], -2);

    for (const int spare : {0, 1, 2, 3}) { // of four descriptors
        std::vector<int> taken;
        for (int i = 0; i < spare; ++i)
            taken.push_back(dup(0));
        EXPECT_EQ(log_of([&] {
                      const NoDescriptors none;
                      for (const int fd : taken)
                          close(fd);
                      EXPECT_EQ(Tavrik_Gnss_Init(on_data, kLine), -1);
                  }),
                  kInit + std::string(spare < 2 ? "Tavrik_Gnss_Init creat pipe error\n"
                                                : "pthread_create thread error for tavrik_loc_nmea_thread\n"));
    }
    EXPECT_EQ(g_pipe[0] + g_pipe[1], -2);

    Tavrik_Gnss_Chip_Select(TAVRIK_GNSS_POWERED);
    sim::call("fault", {{"service", "at"}, {"stop", true}});
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_Init(on_data, kLine), -1); }),
              "Tavrik_AT_Init: error: opening device: /tmp/atcmdsdk\ndebug Tavrik_Gnss_Init:  at init faild\n");
    sim::call("clear");
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_Init(on_data, -1), -1); }),
              kInit + std::string("GPIO -1 cannot be set up\n"));
    EXPECT_EQ(Tavrik_Gnss_Init(on_data, kLine), 0);
    char response[64];
    EXPECT_EQ(Tavrik_AT_Send("AT", "OK", response, sizeof response, 2000), 0);
    EXPECT_EQ(Tavrik_Gnss_Deinit(), 0);
    EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_AT_Send("AT", "OK", response, sizeof response, 2000), -1); }),
              "Tavrik_AT_Send: fd error\n");
    EXPECT_EQ(entries("/proc/self/fd"), before);
}

std::atomic<int> g_loads, g_load_result;
int load() {
    ++g_loads;
    return g_load_result;
}

// What reached the receiver, its services and its line, in order; it is forgotten then.
Texts acts() {
    Texts texts;
    const json taken = sim::call("record", {{"clear", true}});
    for (const json &entry : taken["entries"])
        if (const std::string kind = entry["kind"];
            kind == "gps" || kind == "hdgnssapp" || kind == "gpio" || kind == "ttyS3")
            texts.push_back(kind + " " + entry.value("text", entry.value("hex", "")));
    for (std::string &text : texts)
        if (text == "gpio gpio7/direction out") // what the kernel makes of high and low
            text = "gpio gpio7/direction high";
    return texts;
}

const std::string kRefused = "tavrik_call_ubusinvoke: ubus_invoke config_dspgain failed Permission denied\n"
                             "tavrik_call_ubusinvoke: exit fail Permission denied!\n";

TEST_F(Gnss, StartAndStop) {
    const json refuse = {{"status", 6}}, gone = {{"stop", true}};
    const auto on = [](const char *service, json effect) {
        effect["service"] = service;
        return effect;
    };
    const Texts low{"gpio gpio7/value 0"}, up{"gpio gpio7/active_low 0", "gpio gpio7/direction high"},
        init{"gps gnss_init {\"gnss_init_param\":-3}"}, deinit{"gps gnss_deinit"}, open{"hdgnssapp start"},
        close{"ttyS3 " + kStopCommand, "hdgnssapp close"};
    const std::string sent = "debug Tavrik_Gnss_Start: send result ", told = "debug Tavrik_Gnss_Start: write ready!\n",
                      stop = "debug Tavrik_Gnss_Stop: \ngnss stop.\n", no_port = "Can't open COM\n",
                      idle = "debug Tavrik_Gnss_Stop: \nTavrik_Gnss_Stop has been stop.\n";
    const struct {
        const char *what;
        int kind, loads; // what the loader returns; -9: there is none
        json start_fault, stop_fault;
        int result;
        std::string log;
        Texts acts;
        int ready;
        std::string stop_log;
        Texts stop_acts;
    } cases[] = {
        {"built-in", 0, 0, {}, {}, -1, sent + "6\n", init, 1, "", deinit},
        {"built-in, stop refused", 0, 0, {}, on("gps", refuse), -1, sent + "6\n", init, 1, kRefused, deinit},
        {"built-in, refused", 0, 0, on("gps", refuse), {}, -1, kRefused, init, 0, idle, {}},
        {"powered", 1, 0, {}, {}, 0, sent + "0\n", up, 1, "", low},
        {"powered, no loader", 1, -9, {}, {}, -1, sent + "-1\n", up, 0, idle, {}},
        {"powered, loader failed", 1, 5, {}, {}, -1, sent + "5\n", up, 0, idle, {}},
        {"powered, no line",
         1,
         0,
         on("gpio", gone),
         {},
         -1,
         kStart + std::string("GPIO 7 cannot be set up\n"),
         {},
         0,
         idle,
         {}},
        {"powered, line lost",
         1,
         0,
         {},
         on("gpio", gone),
         0,
         sent + "0\n",
         up,
         1,
         kStop + std::string("GPIO 7 cannot be set low\n"),
         {}},
        {"serial", 2, 0, {}, {}, 0, told, open, 1, stop, close},
        {"serial, refused",
         2,
         0,
         on("hdgnssapp", refuse),
         {},
         -1,
         told + kRefused + kStart + "Tavrik_call_ubusinvoke start failed !\n",
         open,
         1,
         stop,
         close},
        {"serial, stop refused",
         2,
         0,
         {},
         on("hdgnssapp", refuse),
         0,
         told,
         open,
         1,
         stop + kRefused + "debug Tavrik_Gnss_Stop: tavrik_call_ubusinvoke stop failed !\n",
         close},
        {"serial, no port", 2, 0, on("gnss", gone), {}, 0, kStart + no_port, {}, 0, idle, {}},
        {"serial, port cannot be opened any more",
         2,
         0,
         {},
         on("gnss", {{"refuse", true}}),
         0,
         told,
         open,
         1,
         kStop + no_port,
         {"hdgnssapp close"}},
    };
    Tavrik_Gnss_SetPositionMode(-3);
    for (const auto &test : cases) {
        SCOPED_TRACE(test.what);
        g_load_result = test.loads;
        Tavrik_Gnss_SetFirmwareLoader(test.loads == -9 ? nullptr : load);
        this->init(test.kind);
        for (const bool again : {false, true}) { // they alternate any number of times
            SCOPED_TRACE(again);
            acts();
            if (!test.start_fault.is_null())
                sim::call("fault", test.start_fault);
            EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_Gnss_Start(), test.result); }), test.log);
            EXPECT_EQ(g_upgrade_ready, test.ready);
            EXPECT_TRUE(until([&] { return reads() == bool(test.ready); }));
            EXPECT_TRUE(test.kind != TAVRIK_GNSS_POWERED || test.acts.empty() || powered());
            if (test.ready) {
                EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_Start(), -1); }),
                          kStart + std::string("\nTavrik_Gnss_Start has been start.\n"));
            }
            EXPECT_EQ(acts(), test.acts);
            sim::call("clear");
            if (!test.stop_fault.is_null())
                sim::call("fault", test.stop_fault);
            EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_Gnss_Stop(), test.ready ? 0 : -1); }), test.stop_log);
            EXPECT_TRUE(until([] { return !reads(); }));
            EXPECT_EQ(acts(), test.stop_acts);
            EXPECT_EQ(g_upgrade_ready, 0);
            sim::call("clear");
            if (strstr(test.what, "line"))
                break; // the line is gone for good
        }
        EXPECT_EQ(Tavrik_Gnss_Deinit(), 0);
    }
}

// Each start loads the firmware once; what was loaded outlasts Deinit, but no Stop. Then Start says -1 and starts.
TEST_F(Gnss, FirmwareIsLoaded) {
    g_loads = g_load_result = 0;
    Tavrik_Gnss_SetFirmwareLoader(load);
    const auto start = [](int result, const char *log) {
        EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_Gnss_Start(), result); }), log);
        EXPECT_EQ(g_upgrade_ready, 1);
        EXPECT_TRUE(until(reads));
    };
    for (int i = 1; i <= 2; ++i) {
        init(TAVRIK_GNSS_POWERED);
        start(0, "debug Tavrik_Gnss_Start: send result 0\n");
        EXPECT_EQ(g_loads, i);
        Tavrik_Gnss_Deinit();
        init(TAVRIK_GNSS_POWERED);
        start(-1, "");
        EXPECT_EQ(g_loads, i);
        EXPECT_EQ(Tavrik_Gnss_Stop(), 0);
        Tavrik_Gnss_Deinit();
    }
}

// Nothing to tell, and no port left open; and a kind that is chosen late counts later.
TEST_F(Gnss, StartWithoutInit) {
    const size_t descriptors = entries("/proc/self/fd");
    const std::string logs[] = {"debug Tavrik_Gnss_Start: send result -1\n",
                                kStart + std::string("GPIO 7 cannot be set up\n"),
                                kStart + std::string("write failed Bad file descriptor 9!\n")};
    for (int kind = 0; kind < 3; ++kind) {
        Tavrik_Gnss_Chip_Select(kind);
        EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_Start(), -1); }), logs[kind]);
        EXPECT_EQ(g_upgrade_ready, 0);
    }
    EXPECT_EQ(entries("/proc/self/fd"), descriptors);
    init(TAVRIK_GNSS_BUILT_IN);
    Tavrik_Gnss_Chip_Select(TAVRIK_GNSS_SERIAL);
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_Start(), -1); }), "debug Tavrik_Gnss_Start: send result 6\n");
}

// Words that come together, in the order of their bytes; the last one counts. And one that a read has cut.
TEST_F(Gnss, ControlWords) {
    const struct {
        const char *pieces[3];
        bool reads;
    } cases[] = {{{"ready!"}, true},
                 {{"stop"}, false},
                 {{"start"}, true},
                 {{"ready!stop"}, false},
                 {{"stopready!"}, true},
                 {{"startready!stopstart"}, true},
                 {{"ready!startstop"}, false},
                 {{"??start,stop,ready!\n"}, true},
                 {{"startsto"}, true},
                 {{"p"}, false},
                 {{"re", "ad", "y!"}, true},
                 {{"stostopready"}, false},
                 {{"!"}, true},
                 {{"s", "t", "opstar"}, false},
                 {{"t"}, true}};
    init(TAVRIK_GNSS_BUILT_IN);
    for (const auto &test : cases) {
        SCOPED_TRACE(test.pieces[0]);
        for (const char *piece : test.pieces)
            if (piece) {
                EXPECT_EQ(write(g_pipe[1], piece, strlen(piece)), ssize_t(strlen(piece)));
                settle();
            }
        EXPECT_TRUE(until([&] { return reads() == test.reads; }));
    }
}

TEST_F(Gnss, FullPipe) {
    start();
    Hanging hanging;
    receive(rmc(0) + "\r\n" + rmc(1) + "\r\n");
    hanging.reached();
    const std::string words = "ready!startstop"; // reads of any size cut them
    int filled = 0;
    while (write(g_pipe[1], words.data(), words.size()) > 0)
        ++filled;
    EXPECT_GT(filled, 4000);
    while (write(g_pipe[1], "?", 1) > 0) {
    }
    const std::string full = "Resource temporarily unavailable 11";
    EXPECT_NE(log_of([] { EXPECT_EQ(Tavrik_Gnss_Stop(), -1); }).find(kStop + ("send result -1 " + full + "\n")),
              std::string::npos);
    EXPECT_EQ(g_upgrade_ready, 1);
    g_upgrade_ready = 0;
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_Start(), -1); }), kStart + ("write failed " + full + "!\n"));
    EXPECT_EQ(g_upgrade_ready, 0);
    hanging.release();
    settle();
    EXPECT_TRUE(until([] { return !reads(); }));
}

TEST_F(Gnss, CallbackSwitchAndEpochs) {
    start();
    const std::string other = sentence("PTST,1");
    const std::string bad = "$GNRMC,120003.00,V,,,,,,,010126,,,N*00";
    for (const int value : {TAVRIK_GNSS_CALLBACK_RECORD, TAVRIK_GNSS_CALLBACK_SENTENCES, TAVRIK_GNSS_CALLBACK_BOTH}) {
        EXPECT_EQ(Tavrik_Gnss_CallBack_Switch(value), 0);
        receive(rmc(1) + "\r\n" + other + "\r\n" + bad + "\r\n" + rmc(2) + "\r\n"); // the second by silence
        const Texts wanted = value == TAVRIK_GNSS_CALLBACK_RECORD ? Texts{record(1), record(2)}
                             : value == TAVRIK_GNSS_CALLBACK_SENTENCES
                                 ? Texts{rmc(1), other, rmc(2)}
                                 : Texts{rmc(1), other, record(1), rmc(2), record(2)};
        Texts got;
        EXPECT_TRUE(until([&] {
            for (std::string &text : g_events.take(0))
                got.push_back(std::move(text));
            return got.size() >= wanted.size();
        }));
        EXPECT_EQ(got, wanted);
        if (value == TAVRIK_GNSS_CALLBACK_SENTENCES)
            usleep(200000); // its last record goes nowhere
    }
    Tavrik_GnssData last;
    EXPECT_EQ(Tavrik_Gnss_GetGnssLocationInfo(&last), 0);
    EXPECT_EQ(shown(last), record(2));
    EXPECT_EQ(Tavrik_Gnss_Stop(), 0);
    Tavrik_Gnss_Deinit();
    init(TAVRIK_GNSS_BUILT_IN);
    EXPECT_EQ(log_of([&] {
                  EXPECT_EQ(Tavrik_Gnss_GetGnssLocationInfo(&last), -1);
                  EXPECT_EQ(Tavrik_Gnss_GetGnssLocationInfo(nullptr), -1);
              }),
              "debug Tavrik_Gnss_GetGnssLocationInfo: no record yet\n"
              "Tavrik_Gnss_GetGnssLocationInfo: Parameter input error\n");
    EXPECT_EQ(shown(last), record(2));
}

TEST_F(Gnss, Commands) {
    const auto refused = [](int length, const char *log) {
        EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_Gnss_SendCommand(length == -2 ? nullptr : "x", length), -1); }),
                  kSend + std::string(log));
    };
    refused(1, "Tavrik_Gnss_SendCommand GNSS not start\n");
    init(TAVRIK_GNSS_SERIAL);
    refused(1, "Tavrik_Gnss_SendCommand GNSS not start\n");
    Tavrik_Gnss_Deinit();
    start();
    for (const int length : {0, -1, -2})
        refused(length, "Parameter input error\n");
    EXPECT_EQ(log_of([] {
                  EXPECT_EQ(Tavrik_Gnss_SendCommand("$PING\n", 6), 6);
                  EXPECT_EQ(Tavrik_Gnss_Set_Nmea_Msgcfg(0x1F), 0);
                  EXPECT_EQ(Tavrik_Gnss_Set_Nmea_Msgcfg(UINT32_MAX), 0);
                  EXPECT_EQ(Tavrik_Gnss_ColdStart(), 0);
                  EXPECT_EQ(Tavrik_Gnss_HotStart(), 0);
              }),
              "");
    EXPECT_EQ(recorded("ttyS3"),
              (Texts{"$PING\n", "$MSGCFG,0,0x1f\r\n", "$MSGCFG,0,0xffffffff\r\n", "$RESET,3\r\n", "$RESET,1\r\n"}));
    sim::call("fault", {{"service", "gnss"}, {"deaf", true}});
    const std::string many(1 << 20, 'x');
    log_of([&] { EXPECT_LT(Tavrik_Gnss_SendCommand(many.data(), int(many.size())), int(many.size())); });
    EXPECT_TRUE(until([&] { // until the port is full to the last byte
        return log_of([] { Tavrik_Gnss_HotStart(); }) ==
               kSend + std::string("write failed Resource temporarily unavailable, -1 of 10 bytes\n");
    }));
    log_of([] { EXPECT_EQ(Tavrik_Gnss_HotStart(), -1); });
}

// The port can be missing, hang up, and come back: each is told once, and Stop and Start try again.
TEST_F(Gnss, Port) {
    const std::string lost_line = "read_receiver: connection to the receiver lost, errno ";
    const auto fault = [](const char *what) { sim::call("fault", {{"service", "gnss"}, {what, true}}); };
    init(TAVRIK_GNSS_SERIAL);
    Tavrik_Gnss_CallBack_Switch(TAVRIK_GNSS_CALLBACK_BOTH);
    const size_t closed = ports();
    fault("stop");
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_Start(), 0); }), kStart + std::string("Can't open COM\n"));
    EXPECT_EQ(g_upgrade_ready, 0);
    EXPECT_EQ(log_of([] {
                  EXPECT_EQ(write(g_pipe[1], "start", 5), 5);
                  obeyed();
              }),
              "begin_reading: Can't open COM\n");
    for (const char *lost : {"close", "stop"}) {
        sim::call("clear");
        obeyed(); // lest a stop close what Start opens
        log_of([] { EXPECT_EQ(Tavrik_Gnss_Start(), 0); });
        receive(rmc(1) + "\r\n$GNRMC,12"); // and no more
        EXPECT_EQ(g_events.take(1), Texts{rmc(1)});
        const std::string log = log_of([&] {
            fault(lost);
            EXPECT_TRUE(until([&] { return ports() == closed; }));
            usleep(20000);
        });
        EXPECT_TRUE(log == lost_line + "0\n" || log == lost_line + "5\n") << log; // its end, or an error
        EXPECT_EQ(g_events.take(1), Texts{record(1)});                            // its silence is not waited for
        EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_ColdStart(), -1); }),
                  kSend + std::string("Tavrik_Gnss_SendCommand GNSS not start\n"));
        EXPECT_EQ(g_upgrade_ready, 1);
        log_of([] { EXPECT_EQ(Tavrik_Gnss_Stop(), 0); });
    }
}

// Who reads the output port gets whole sentences, whatever it misses; and no sentence is cut by a stop.
TEST_F(Gnss, OutputPort) {
    const auto output = [](const char *what, bool on) {
        on ? sim::call("fault", {{"service", "ttyGS0"}, {what, true}}) : sim::call("clear");
    };
    const auto pass = [](int first, int last) { // that many epochs
        return log_of([&] {
            for (int i = first; i <= last; ++i) {
                receive(rmc(i) + "\r\n");
                EXPECT_EQ(g_events.take(1), Texts{record(i)});
            }
        });
    };
    start();
    EXPECT_EQ(Tavrik_Gnss_Data_to_Nmea_Port(1), 0);
    output("stop", true);
    EXPECT_EQ(pass(1, 3), "write_nmea_port: write to /dev/ttyGS0 failed, errno 2\n");
    output("stop", false);
    EXPECT_EQ(pass(4, 4), "");
    EXPECT_EQ(recorded("ttyGS0"), Texts{rmc(4) + "\r\n"});
    output("stop", true); // while it is open
    EXPECT_EQ(pass(5, 7), "flush_nmea_port: write to /dev/ttyGS0 failed, errno 5\n");
    output("stop", false);
    EXPECT_EQ(pass(8, 8), "");
    output("deaf", true);
    constexpr int kMany = 3000;
    std::string many;
    for (int i = 0; i < kMany; ++i)
        many += rmc(i) + "\r\n";
    EXPECT_EQ(log_of([&] {
                  receive(many);
                  receive(rmc(10) + "\r\n");
                  for (size_t got = 0; got < kMany;)
                      got += g_events.take(1).size();
              }),
              "");
    output("deaf", false);
    Texts got;
    EXPECT_TRUE(until([&] {
        for (const std::string &text : recorded("ttyGS0"))
            got.push_back(text);
        receive(rmc(20) + "\r\n");
        return !got.empty() && got.back() == rmc(20) + "\r\n";
    }));
    EXPECT_EQ(got.front(), rmc(8) + "\r\n");
    EXPECT_LT(got.size(), size_t(kMany));
    for (const std::string &text : got) {
        ASSERT_GT(text.size(), 12u);
        EXPECT_EQ(text, rmc((text[11] - '0') * 10 + text[12] - '0') + "\r\n");
    }
}

std::string saved() {
    std::ifstream file(kSaved);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(Gnss, SaveFile) {
    start();
    EXPECT_EQ(Tavrik_Gnss_SetSaveFlag(1), 0);
    Tavrik_Gnss_CallBack_Switch(TAVRIK_GNSS_CALLBACK_SENTENCES);
    const auto save = [](int second) { // the callback comes last
        receive(rmc(second) + "\r\n");
        EXPECT_EQ(g_events.take(1), Texts{rmc(second)});
    };
    save(1);
    save(2);
    const std::string two = rmc(1) + "\r\n" + rmc(2) + "\r\n";
    EXPECT_EQ(saved(), two);
    Tavrik_Gnss_SetSaveFlag(0);
    save(3);
    EXPECT_EQ(saved(), two);
    Tavrik_Gnss_SetSaveFlag(1);
    // up to the last byte, and afresh
    const std::string line = rmc(4) + "\r\n";
    std::filesystem::resize_file(kSaved, (1 << 20) - line.size());
    save(4);
    EXPECT_EQ(std::filesystem::file_size(kSaved), size_t(1 << 20));
    save(5);
    EXPECT_EQ(saved(), rmc(5) + "\r\n");
    // full, and gone: one line each, no piece of a sentence, and it goes on by itself
    for (const auto &[fault, error] : {std::pair("full", "28"), std::pair("stop", "2")}) {
        sim::call("fault", {{"service", "userdata"}, {fault, true}});
        const std::string before = saved();
        EXPECT_EQ(log_of([&] {
                      for (int i = 0; i < 100; ++i)
                          save(i % 60);
                  }),
                  "save_sentence: write to /mnt/userdata/gnssdata.txt failed, errno " + std::string(error) + "\n");
        sim::call("clear");
        save(7);
        EXPECT_EQ(saved().substr(saved().rfind('$')), rmc(7) + "\r\n");
        EXPECT_EQ((saved().size()) % line.size(), 0u);
    }
}

TEST_F(Gnss, DeinitWaitsForTheCallback) {
    start();
    std::promise<void> reached;
    std::atomic<bool> ended{false};
    inside([&] {
        inside(nullptr);
        reached.set_value();
        usleep(200000);
        ended = true;
    });
    receive(rmc(1) + "\r\n" + rmc(2) + "\r\n" + rmc(3) + "\r\n");
    reached.get_future().wait();
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_Deinit(), 0); }), "");
    EXPECT_TRUE(ended);
    EXPECT_EQ(g_events.take(0).size(), 1u);
    EXPECT_EQ(g_upgrade_ready, 0);
}

TEST_F(Gnss, DeinitInsideTheCallback) {
    start();
    const size_t descriptors = entries("/proc/self/fd"), threads = entries("/proc/self/task");
    std::promise<void> back;
    inside([&] {
        inside(nullptr);
        EXPECT_EQ(Tavrik_Gnss_Deinit(), 0);
        EXPECT_EQ(Tavrik_Gnss_Deinit(), 0);
        EXPECT_EQ(g_pipe[0] + g_pipe[1], -2);
        EXPECT_EQ(Tavrik_Gnss_Init(on_data, kLine), 0);
        EXPECT_EQ(Tavrik_Gnss_Start(), 0);
        back.set_value();
    });
    log_of([&] {
        receive(rmc(1) + "\r\n" + rmc(2) + "\r\n" + rmc(3) + "\r\n");
        back.get_future().wait();
    });
    EXPECT_TRUE(until([&] { return entries("/proc/self/fd") == descriptors; }));
    EXPECT_TRUE(until([&] { return entries("/proc/self/task") == threads; }));
    EXPECT_TRUE(until(reads));
    receive(rmc(9) + "\r\n");
    EXPECT_EQ(g_events.take(2), (Texts{record(1), record(9)})); // of the others nothing
}

// Left behind after two seconds: its descriptors are closed at once, a successor works, and at its end nothing is left.
TEST_F(Gnss, DeinitLeavesAStuckCallbackBehind) {
    const size_t descriptors = entries("/proc/self/fd"), threads = entries("/proc/self/task");
    start();
    Tavrik_Gnss_Data_to_Nmea_Port(1);
    Tavrik_Gnss_CallBack_Switch(TAVRIK_GNSS_CALLBACK_SENTENCES);
    Hanging hanging;
    receive(rmc(1) + "\r\n" + rmc(2) + "\r\n");
    hanging.reached();
    const auto begin = steady_clock::now();
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_Deinit(), 0); }), "Tavrik_Gnss_Deinit: Tavrik_Gnss_Deinit fail!\n");
    EXPECT_GE(steady_clock::now() - begin, 1995ms);
    EXPECT_TRUE(until([] { return !reads(); }));
    EXPECT_EQ(g_events.take(1), Texts{rmc(1)});
    start();
    receive(rmc(3) + "\r\n");
    EXPECT_EQ(g_events.take(1), Texts{rmc(3)});
    hanging.release();
    receive(rmc(4) + "\r\n");
    EXPECT_EQ(g_events.take(1), Texts{rmc(4)});
    EXPECT_EQ(recorded("ttyGS0"), (Texts{rmc(1) + "\r\n", rmc(3) + "\r\n", rmc(4) + "\r\n"}));
    EXPECT_EQ(Tavrik_Gnss_Deinit(), 0);
    EXPECT_TRUE(until([&] { return entries("/proc/self/fd") == descriptors; }));
    EXPECT_TRUE(until([&] { return entries("/proc/self/task") == threads; }));
}

// A child has no NMEA thread, may have one of its own, and leaves the parent's alone.
TEST_F(Gnss, Fork) {
    const bool threads_in_child = !getenv("TAVRIK_EMULATOR"); // an emulator has none there
    start();
    for (const bool in_callback : {false, true}) {
        std::promise<int> ended;
        const auto child = [&] {
            const pid_t pid = fork();
            if (!pid) {
                bool good = !Tavrik_Gnss_Deinit() && g_pipe[0] == -1 && !g_upgrade_ready;
                if (threads_in_child)
                    good = good && !Tavrik_Gnss_Init(on_data, kLine) && !Tavrik_Gnss_Deinit();
                _exit(good ? 0 : 1);
            }
            int status = -1;
            waitpid(pid, &status, 0);
            ended.set_value(status);
        };
        if (in_callback)
            inside([&] {
                inside(nullptr);
                child();
            });
        else
            child();
        receive(rmc(1) + "\r\n");
        EXPECT_EQ(ended.get_future().get(), 0);
        EXPECT_EQ(g_events.take(1), Texts{record(1)});
    }
}

// Start, stop and deinitialise at random moments while data flow: nothing is left over. TAVRIK_GNSS_ROUNDS: of each
// kind.
TEST_F(Gnss, ManyRounds) {
    const char *rounds = getenv("TAVRIK_GNSS_ROUNDS");
    const int count = rounds ? atoi(rounds) : 40;
    sim::call("fault", {{"service", "gnss"}, {"flood", rmc(1) + "\r\n" + rmc(2) + "\r\n"}});
    Tavrik_Gnss_Data_to_Nmea_Port(1);
    std::mt19937 random(1);
    for (const int kind : {TAVRIK_GNSS_BUILT_IN, TAVRIK_GNSS_POWERED, TAVRIK_GNSS_SERIAL}) {
        SCOPED_TRACE(kind);
        size_t descriptors = 0, threads = 0, records = 0;
        const auto round = [&](int i) {
            init(kind);
            const int result = Tavrik_Gnss_Start();
            EXPECT_EQ(g_upgrade_ready, 1) << result;
            switch (i % 4) {
            case 0: {
                std::promise<void> back;
                inside([&] {
                    inside(nullptr);
                    Tavrik_Gnss_Deinit();
                    back.set_value();
                });
                EXPECT_EQ(back.get_future().wait_for(20s), std::future_status::ready);
                break;
            }
            case 1:
                Tavrik_Gnss_Stop();
                Tavrik_Gnss_Start();
                break;
            case 2:
                Tavrik_Gnss_Stop();
                break;
            }
            usleep(unsigned(random() % 2000));
            EXPECT_EQ(Tavrik_Gnss_Deinit(), 0);
            EXPECT_EQ(g_pipe[0] + g_pipe[1] + g_upgrade_ready, -2);
            records += g_events.take(0).size();
        };
        log_of([&] { round(0); });
        EXPECT_TRUE(until([] { return !reads(); }));
        descriptors = entries("/proc/self/fd");
        threads = entries("/proc/self/task");
        log_of([&] {
            for (int i = 0; i < count; ++i)
                round(i);
        });
        EXPECT_TRUE(until([&] { return entries("/proc/self/task") == threads; }))
            << entries("/proc/self/task") - threads;
        EXPECT_EQ(entries("/proc/self/fd"), descriptors);
        EXPECT_GT(records, 0u);
        EXPECT_TRUE(until([] { return !reads(); }));
    }
}

// Everything at once, from several threads and from the callback.
TEST_F(Gnss, ManyThreads) {
    sim::call("fault", {{"service", "gnss"}, {"flood", rmc(1) + "\r\n" + rmc(2) + "\r\n"}});
    void (*const calls[])() = {[] { Tavrik_Gnss_Init(on_data, kLine); },
                               [] { Tavrik_Gnss_Deinit(); },
                               [] { Tavrik_Gnss_Start(); },
                               [] { Tavrik_Gnss_Stop(); },
                               [] { Tavrik_Gnss_HotStart(); },
                               [] { Tavrik_Gnss_Data_to_Nmea_Port(1); },
                               [] { Tavrik_Gnss_CallBack_Switch(TAVRIK_GNSS_CALLBACK_BOTH); },
                               [] {
                                   Tavrik_GnssData last;
                                   Tavrik_Gnss_GetGnssLocationInfo(&last);
                               }};
    const size_t threads = entries("/proc/self/task");
    Tavrik_Gnss_Chip_Select(TAVRIK_GNSS_SERIAL);
    const auto some = [&](unsigned seed, int count) {
        std::mt19937 random(seed);
        for (int i = 0; i < count; ++i)
            calls[random() % std::size(calls)]();
    };
    log_of([&] {
        std::atomic<unsigned> next{100};
        inside([&] {
            if (++next % 8 == 0)
                some(next, 1);
        });
        std::vector<std::thread> callers;
        for (unsigned seed = 1; seed <= 3; ++seed)
            callers.emplace_back(some, seed, 150);
        for (std::thread &caller : callers)
            caller.join();
        inside(nullptr);
        Tavrik_Gnss_Deinit();
        EXPECT_TRUE(until([&] { return entries("/proc/self/task") <= threads; }));
        EXPECT_TRUE(until([] { return !reads(); }));
    });
}

// Callbacks get whole epochs, not more often than the rate and one at the beginning. The last test, because nothing
// takes the limit away.
TEST_F(Gnss, Rate) {
    start();
    Tavrik_Gnss_CallBack_Switch(TAVRIK_GNSS_CALLBACK_BOTH);
    EXPECT_EQ(Tavrik_Gnss_SetNmeaRate(2), 0);
    std::string many;
    for (int i = 0; i < 50; ++i)
        many += rmc(i) + "\r\n";
    receive(many);
    EXPECT_EQ(g_events.take(2), (Texts{rmc(0), record(0)}));
    Tavrik_GnssData last;
    EXPECT_TRUE(until([&] { return !Tavrik_Gnss_GetGnssLocationInfo(&last) && shown(last) == record(49); }));
    const auto begin = steady_clock::now();
    Texts got;
    while (steady_clock::now() - begin < 1500ms) {
        receive(rmc(1) + "\r\n" + rmc(2) + "\r\n");
        for (const std::string &text : g_events.take(0))
            got.push_back(text);
        usleep(20000);
    }
    EXPECT_GE(got.size(), 2u);
    EXPECT_LE(got.size(), 2u * 4);
    for (size_t i = 0; i + 1 < got.size(); i += 2)
        EXPECT_EQ(got[i + 1], got[i] == rmc(1) ? record(1) : record(2));
}

} // namespace
