// Life cycle of the receivers, the NMEA thread, and where its sentences go, against the simulated module's ports,
// services and GPIO line.
#include <atomic>
#include <filesystem>
#include <functional>
#include <random>
#include <sys/ioctl.h>
#include <thread>

#include "sentence.h"
#include "support/descriptors.h"
#include "support/events.h"
#include "support/shell.h"
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

Events g_events;
std::atomic<int (*)()> g_inside; // what the next callback does besides
std::atomic<int> g_inside_done;
std::atomic<bool> g_hangs, g_released;

bool until(const std::function<bool()> &true_now) {
    for (const auto end = steady_clock::now() + 20s; !true_now(); usleep(1000))
        if (steady_clock::now() > end)
            return false;
    return true;
}

std::string shown(const Tavrik_GnssData &data) {
    EXPECT_EQ(data.size, sizeof data);
    EXPECT_GT(data.mono_ms, 0);
    EXPECT_EQ(strlen(data.sentence), data.sentence_len);
    return data.kind == TAVRIK_GNSS_SENTENCE ? data.sentence + std::string("\r\n")
                                             : std::to_string(data.sec) + " " + std::to_string(data.lat);
}
void on_data(const Tavrik_GnssData *data) {
    g_events.add(shown(*data));
    if (int (*const run)() = g_inside.exchange(nullptr)) {
        run();
        ++g_inside_done;
    }
}
int init(int kind, int line = 7) {
    return Tavrik_Gnss_Chip_Select(kind) | Tavrik_Gnss_Init(on_data, line);
}

// What the receiver tells at a second, and the record of it.
std::string rmc(int second) {
    const std::string time = std::to_string(120000 + second % 60);
    return sentence("GNRMC," + time + ".00,A,5231.2000,N,01324.3000,E,1.0,2.0,010126,,,A");
}
std::string record(int second) {
    return std::to_string(second) + " 525200000";
}
void receive(const std::string &text) {
    sim::call("nmea", {{"text", text}});
}
// The first callback of it hangs until it is released.
void receive_and_hang(const std::string &text) {
    g_hangs = g_released = false;
    g_inside = [] {
        g_hangs = true;
        EXPECT_TRUE(until([] { return bool(g_released); }));
        g_hangs = false;
        return 0;
    };
    receive(text);
    EXPECT_TRUE(until([] { return bool(g_hangs); }));
}
// What is logged while sentences go all their ways, of which the callback is the last.
std::string log_of_passing(int first, int last) {
    return log_of([&] {
        for (int second = first; second <= last; ++second) {
            receive(rmc(second));
            EXPECT_EQ(g_events.take(1), Texts{rmc(second)});
        }
    });
}

// Somebody holds the receiver's port.
bool reads() {
    return sim::call("state")["services"]["gnss"]["open"];
}
// The thread has read what is in the pipe, unless a callback keeps it.
void settle() {
    int waiting = 1;
    EXPECT_TRUE(until([&] { return !ioctl(g_pipe[0], FIONREAD, &waiting) && !waiting; }));
}
// The same, and has done it: it has come back for more.
void obeyed() {
    settle();
    EXPECT_EQ(write(g_pipe[1], "?", 1), 1);
    settle();
}

size_t count(const char *folder, const char *kind = "") {
    size_t count = 0;
    std::error_code gone;
    for (const auto &entry : std::filesystem::directory_iterator(folder))
        count += std::filesystem::read_symlink(entry, gone).string().find(kind) != std::string::npos;
    return count;
}

// Without the connections to the bus, which stay for the next request.
size_t descriptors() {
    return count("/proc/self/fd") - count("/proc/self/fd", "socket");
}

// What goes wrong from now on; nothing by default.
void fault(const char *service = "", const char *effect = "", const json &value = true) {
    sim::call("clear");
    if (*service)
        sim::call("fault", {{"service", service}, {effect, value}});
}

struct Step {
    std::function<int()> run;
    int result = 0;
    std::string log = "", acts = ""; // what reached the receiver and its services, and what became of its power
    const char *service = "", *effect = "";
};

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
        EXPECT_EQ(g_pipe[0] + g_pipe[1] + g_upgrade_ready, -2);
        EXPECT_TRUE(until([] { return !reads(); }));
        EXPECT_TRUE(until([this] { return descriptors() <= descriptors_; }));
        EXPECT_TRUE(until([this] { return count("/proc/self/task") <= threads_; }));
        g_events.take(0);
        Tavrik_Gnss_CallBack_Switch(TAVRIK_GNSS_CALLBACK_RECORD);
        Tavrik_Gnss_Data_to_Nmea_Port(0);
        Tavrik_Gnss_SetSaveFlag(0);
        sim::call("reset");
    }
    // One of kind 2, and its thread reads; callbacks get sentences.
    static void start() {
        Tavrik_Gnss_CallBack_Switch(TAVRIK_GNSS_CALLBACK_SENTENCES);
        EXPECT_EQ(init(TAVRIK_GNSS_SERIAL), 0);
        log_of([] { EXPECT_EQ(Tavrik_Gnss_Start(), 0); });
        obeyed();
    }
    // The thread reads when the receiver is started.
    static void check(const std::vector<Step> &steps) {
        std::string power = "0";
        sim::call("record", {{"clear", true}});
        for (size_t i = 0; i < steps.size(); ++i) {
            SCOPED_TRACE(i);
            fault(steps[i].service, steps[i].effect, strcmp(steps[i].effect, "status") ? json(true) : json(6));
            EXPECT_EQ(log_of([&] { EXPECT_EQ(steps[i].run(), steps[i].result); }), steps[i].log);
            EXPECT_TRUE(until([] { return reads() == (g_upgrade_ready == 1); }));
            std::string acts;
            const json record = sim::call("record", {{"clear", true}}),
                       lines = sim::call("state")["services"]["gpio"]["lines"];
            for (const json &entry : record["entries"])
                if (const std::string kind = entry["kind"]; kind == "gps" || kind == "hdgnssapp" || kind == "ttyS3")
                    acts += kind + " " + entry.value("text", entry.value("hex", "")) + ";";
            if (lines.contains("7") && lines["7"]["value"] != std::exchange(power, lines["7"]["value"]))
                acts += "power " + power + ";";
            EXPECT_EQ(acts, steps[i].acts);
        }
    }

    // At most so many later; a thread of the bus may end just now.
    const size_t descriptors_ = descriptors(), threads_ = count("/proc/self/task");
};

TEST_F(Gnss, SettingsOutOfRange) {
    const struct {
        int (*set)(int);
        int low, high;
        const char *log;
    } cases[] = {{Tavrik_Gnss_Chip_Select, -1, 3, "debug Tavrik_Gnss_Chip_Select: input error\n"},
                 {Tavrik_Gnss_CallBack_Switch, -1, 3, "debug Tavrik_Gnss_CallBack_Switch: input error\n"},
                 {Tavrik_Gnss_Data_to_Nmea_Port, -1, 2, "debug Tavrik_Gnss_Data_to_Nmea_Port: input error\n"},
                 {Tavrik_Gnss_SetSaveFlag, -1, 2, "debug Tavrik_Gnss_SetSaveFlag: input error\n"},
                 {Tavrik_Gnss_SetNmeaRate, 0, 11, "debug Tavrik_Gnss_SetNmeaRate: input error\n"}};
    for (const auto &test : cases)
        for (const int value : {test.low, test.high})
            EXPECT_EQ(log_of([&] { EXPECT_EQ(test.set(value), -1); }), test.log);
}

TEST_F(Gnss, InitWithoutDescriptors) {
    for (const int spare : {0, 1, 2, 3}) { // of four
        std::vector<int> taken(size_t(spare), 0);
        for (int &fd : taken)
            fd = dup(0);
        EXPECT_EQ(log_of([&] {
                      const NoDescriptors none;
                      for (const int fd : taken)
                          close(fd);
                      EXPECT_EQ(Tavrik_Gnss_Init(on_data, 7), -1);
                  }),
                  spare < 2 ? "Tavrik_Gnss_Init: Tavrik_Gnss_Init creat pipe error\n"
                            : "Tavrik_Gnss_Init: pthread_create thread error for tavrik_loc_nmea_thread\n");
    }
}

TEST_F(Gnss, LifeCycle) {
    const std::string refused = "tavrik_call_ubusinvoke: ubus_invoke config_dspgain failed Permission denied\n"
                                "tavrik_call_ubusinvoke: exit fail Permission denied!\n",
                      idle = "debug Tavrik_Gnss_Stop: \nTavrik_Gnss_Stop has been stop.\n",
                      told = "debug Tavrik_Gnss_Start: write ready!\n",
                      stopped = "debug Tavrik_Gnss_Stop: \ngnss stop.\n",
                      shut = "Tavrik_Gnss_SendCommand: Tavrik_Gnss_SendCommand GNSS not start\n",
                      wrong = "Tavrik_Gnss_SendCommand: Parameter input error\n",
                      gnss_init = "gps gnss_init {\"gnss_init_param\":-3};", up = "power 1;",
                      close = "ttyS3 f1d90641050000000000034f64;hdgnssapp close;";
    const auto prepare = [](int kind, int line = 7) { return [=] { return init(kind, line); }; };
    const auto start_as = [](int kind) { return [=] { return Tavrik_Gnss_Chip_Select(kind) | Tavrik_Gnss_Start(); }; };
    const auto start_with = [](Tavrik_GnssLoader loader) {
        return [=] { return Tavrik_Gnss_SetFirmwareLoader(loader) | Tavrik_Gnss_Start(); };
    };
    const auto send = [](const char *text, int length) {
        return [=] { return Tavrik_Gnss_SendCommand(text, length); };
    };
    const auto at = [] {
        char response[64];
        return Tavrik_AT_Send("AT", "OK", response, sizeof response, 2000);
    };
    Tavrik_Gnss_SetPositionMode(-3);
    check({
        // nothing to tell, and no port left open
        {start_as(0), -1, "debug Tavrik_Gnss_Start: send result -1\n", gnss_init},
        {start_as(1), -1, "Tavrik_Gnss_Start: GPIO 7 cannot be set up\n"},
        {start_as(2), -1, "Tavrik_Gnss_Start: write failed Bad file descriptor 9!\n"},
        {Tavrik_Gnss_Stop, -1, idle},
        // the built-in one; a kind that is chosen late counts later
        {prepare(0)},
        {prepare(2, 8), -1, "Tavrik_Gnss_Init: Tavrik_Gnss_Init has been inited, Ignored!\n"},
        {Tavrik_Gnss_Start, -1, "debug Tavrik_Gnss_Start: send result 6\n", gnss_init},
        {Tavrik_Gnss_Start, -1, "Tavrik_Gnss_Start: \nTavrik_Gnss_Start has been start.\n"},
        {Tavrik_Gnss_Stop, 0, "", "gps gnss_deinit;"},
        {Tavrik_Gnss_Start, -1, refused, gnss_init, "gps", "status"},
        {Tavrik_Gnss_Stop, -1, idle},
        {Tavrik_Gnss_Start, -1, "debug Tavrik_Gnss_Start: send result 6\n", gnss_init},
        {Tavrik_Gnss_Stop, 0, refused, "gps gnss_deinit;", "gps", "status"},
        {Tavrik_Gnss_Deinit},
        // the powered one: its firmware outlasts Deinit, but no Stop; with it Start says -1 and starts
        {prepare(1, -1), -1, "Tavrik_Gnss_Init: GPIO -1 cannot be set up\n"},
        {prepare(1), 0, "", up},
        {at},
        {Tavrik_Gnss_Start, 0, "debug Tavrik_Gnss_Start: send result 0\n"},
        {Tavrik_Gnss_Deinit},
        {at, -1, "Tavrik_AT_Send: fd error\n"},
        {prepare(1)},
        {Tavrik_Gnss_Start, -1},
        {Tavrik_Gnss_Stop, 0, "", "power 0;"},
        {start_with(nullptr), -1, "debug Tavrik_Gnss_Start: send result -1\n", up},
        {start_with([] { return 5; }), -1, "debug Tavrik_Gnss_Start: send result 5\n"},
        {Tavrik_Gnss_Stop, -1, idle},
        {start_with([] { return 0; }), 0, "debug Tavrik_Gnss_Start: send result 0\n"},
        {Tavrik_Gnss_Stop, 0, "Tavrik_Gnss_Stop: GPIO 7 cannot be set low\n", "", "gpio", "stop"},
        {Tavrik_Gnss_Start, -1, "Tavrik_Gnss_Start: GPIO 7 cannot be set up\n", "", "gpio", "stop"},
        {Tavrik_Gnss_Deinit},
        {prepare(1), -1,
         "Tavrik_AT_Init: error: opening device: /tmp/atcmdsdk\ndebug Tavrik_Gnss_Init:  at init faild\n", "", "at",
         "stop"},
        // the serial one, and commands to it
        {send("x", 1), -1, shut},
        {prepare(2)},
        {send("x", 1), -1, shut},
        {Tavrik_Gnss_Start, 0, told, "hdgnssapp start;"},
        {send("x", 0), -1, wrong},
        {send(nullptr, 1), -1, wrong},
        {send("$PING\n", 6), 6, "", "ttyS3 $PING\n;"},
        {[] { return Tavrik_Gnss_Set_Nmea_Msgcfg(UINT32_MAX); }, 0, "", "ttyS3 $MSGCFG,0,0xffffffff\r\n;"},
        {Tavrik_Gnss_ColdStart, 0, "", "ttyS3 $RESET,3\r\n;"},
        {Tavrik_Gnss_HotStart, 0, "", "ttyS3 $RESET,1\r\n;"},
        {Tavrik_Gnss_Stop, 0, stopped, close},
        {Tavrik_Gnss_Start, -1, told + refused + "Tavrik_Gnss_Start: Tavrik_call_ubusinvoke start failed !\n",
         "hdgnssapp start;", "hdgnssapp", "status"},
        {Tavrik_Gnss_Stop, 0, stopped + refused + "debug Tavrik_Gnss_Stop: tavrik_call_ubusinvoke stop failed !\n",
         close, "hdgnssapp", "status"},
        {Tavrik_Gnss_Start, 0, told, "hdgnssapp start;"},
        {Tavrik_Gnss_Stop, 0, "Tavrik_Gnss_Stop: Can't open COM\n", "hdgnssapp close;", "gnss", "refuse"},
        {Tavrik_Gnss_Start, 0, "Tavrik_Gnss_Start: Can't open COM\n", "", "gnss", "refuse"},
        {Tavrik_Gnss_Stop, -1, idle},
    });
}

// Words that come together, in the order of their bytes; the last one counts. And one that a read has cut.
TEST_F(Gnss, ControlWords) {
    EXPECT_EQ(init(TAVRIK_GNSS_BUILT_IN), 0);
    for (const std::string words :
         {"+ready!", "-stop", "+start", "-ready!stop", "+stopready!", "+startready!stopstart", "-ready!startstop",
          "+??start,stop,ready!", "+startsto", "-p", "+re ad y!", "-stostopready", "+!", "-s t opstar", "+t"}) {
        std::istringstream pieces(words.substr(1));
        for (std::string piece; pieces >> piece; settle())
            EXPECT_EQ(write(g_pipe[1], piece.data(), piece.size()), ssize_t(piece.size()));
        EXPECT_TRUE(until([&] { return reads() == (words[0] == '+'); })) << words;
    }
}

TEST_F(Gnss, FullPipe) {
    start();
    receive_and_hang(rmc(0));
    const std::string words = "ready!startstop"; // reads of any size cut them
    while (write(g_pipe[1], words.data(), words.size()) > 0) {
    }
    while (write(g_pipe[1], "?", 1) > 0) {
    }
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_Stop(), -1); }),
              "debug Tavrik_Gnss_Stop: \ngnss stop.\n"
              "Tavrik_Gnss_Stop: send result -1 Resource temporarily unavailable 11\n");
    EXPECT_EQ(std::exchange(g_upgrade_ready, 0), 1);
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_Start(), -1); }),
              "Tavrik_Gnss_Start: write failed Resource temporarily unavailable 11!\n");
    EXPECT_EQ(g_upgrade_ready, 0);
    g_released = true;
    EXPECT_TRUE(until([] { return !reads(); }));
}

TEST_F(Gnss, CallbackSwitchAndEpochs) {
    start();
    const std::string other = sentence("PTST,1"), bad = "$GNRMC,120003.00,V,,,,,,,010126,,,N*00\r\n";
    const Texts wanted[] = {{record(1), record(2)}, // the second by silence
                            {rmc(1), other, rmc(2)},
                            {rmc(1), other, record(1), rmc(2), record(2)}};
    for (int value = 0; value <= TAVRIK_GNSS_CALLBACK_BOTH; ++value) {
        EXPECT_EQ(Tavrik_Gnss_CallBack_Switch(value), 0);
        receive(rmc(1) + other + bad + rmc(2));
        EXPECT_EQ(g_events.take(wanted[value].size()), wanted[value]);
        usleep(200000); // a last record may go nowhere
    }
    Tavrik_GnssData last;
    EXPECT_EQ(Tavrik_Gnss_GetGnssLocationInfo(&last), 0);
    EXPECT_EQ(shown(last), record(2));
    Tavrik_Gnss_Deinit();
    EXPECT_EQ(init(TAVRIK_GNSS_BUILT_IN), 0);
    const auto get = [](Tavrik_GnssData *data) { return [=] { return Tavrik_Gnss_GetGnssLocationInfo(data); }; };
    check({{get(&last), -1, "debug Tavrik_Gnss_GetGnssLocationInfo: no record yet\n"},
           {get(nullptr), -1, "Tavrik_Gnss_GetGnssLocationInfo: Parameter input error\n"}});
    EXPECT_EQ(shown(last), record(2));
}

TEST_F(Gnss, CommandsToADeafReceiver) {
    start();
    fault("gnss", "deaf");
    const std::string many(1 << 20, 'x');
    log_of([&] { EXPECT_LT(Tavrik_Gnss_SendCommand(many.data(), int(many.size())), int(many.size())); });
    EXPECT_TRUE(until([&] { // until the port is full to the last byte
        return log_of([] { EXPECT_EQ(Tavrik_Gnss_HotStart(), -1); }) ==
               "Tavrik_Gnss_SendCommand: write failed Resource temporarily unavailable, -1 of 10 bytes\n";
    }));
}

// The port can be missing, hang up, and come back: each is told once, and Stop and Start try again.
TEST_F(Gnss, Port) {
    EXPECT_EQ(init(TAVRIK_GNSS_SERIAL), 0);
    Tavrik_Gnss_CallBack_Switch(TAVRIK_GNSS_CALLBACK_BOTH);
    const size_t closed = count("/proc/self/fd", "pts");
    fault("gnss", "stop");
    EXPECT_EQ(log_of([] {
                  EXPECT_EQ(write(g_pipe[1], "start", 5), 5);
                  obeyed();
              }),
              "begin_reading: Can't open COM\n");
    for (const char *lost : {"close", "stop"}) {
        fault();
        obeyed(); // lest a stop close what Start opens
        log_of([] { EXPECT_EQ(Tavrik_Gnss_Start(), 0); });
        receive(rmc(1) + "$GNRMC,12"); // and no more
        EXPECT_EQ(g_events.take(1), Texts{rmc(1)});
        const std::string log = log_of([&] {
            fault("gnss", lost);
            EXPECT_TRUE(until([&] { return count("/proc/self/fd", "pts") == closed; }));
            usleep(20000);
        });
        const std::string text = "read_receiver: connection to the receiver lost, errno ";
        EXPECT_TRUE(log == text + "0\n" || log == text + "5\n") << log; // its end, or an error
        EXPECT_EQ(g_events.take(1), Texts{record(1)});                  // its silence is not waited for
        log_of([] { EXPECT_EQ(Tavrik_Gnss_ColdStart(), -1); });
        log_of([] { EXPECT_EQ(Tavrik_Gnss_Stop(), 0); });
    }
}

// Who reads the output port gets whole sentences, whatever it misses; and no sentence is cut by a stop.
TEST_F(Gnss, OutputPort) {
    start();
    Tavrik_Gnss_Data_to_Nmea_Port(1);
    fault("ttyGS0", "stop");
    EXPECT_EQ(log_of_passing(1, 3), "write_nmea_port: write to /dev/ttyGS0 failed, errno 2\n");
    fault();
    EXPECT_EQ(log_of_passing(4, 4), "");
    EXPECT_EQ(recorded("ttyGS0"), Texts{rmc(4)});
    fault("ttyGS0", "stop"); // while it is open
    EXPECT_EQ(log_of_passing(5, 7), "flush_nmea_port: write to /dev/ttyGS0 failed, errno 5\n");
    fault();
    EXPECT_EQ(log_of_passing(8, 8), "");
    fault("ttyGS0", "deaf");
    std::string many;
    for (int i = 0; i < 3000; ++i)
        many += rmc(i);
    EXPECT_EQ(log_of([&] {
                  receive(many);
                  EXPECT_EQ(g_events.take(3000).size(), 3000u);
              }),
              "");
    fault();
    Texts got;
    EXPECT_TRUE(until([&] {
        for (const std::string &text : recorded("ttyGS0"))
            got.push_back(text);
        receive(rmc(20));
        return !got.empty() && got.back() == rmc(20);
    }));
    EXPECT_EQ(got.front(), rmc(8));
    EXPECT_LT(got.size(), 3000u);
    for (const std::string &text : got)
        EXPECT_EQ(text, rmc(std::stoi("0" + text.substr(std::min<size_t>(text.size(), 11), 2))));
}

TEST_F(Gnss, SaveFile) {
    constexpr char kSaved[] = "/mnt/userdata/gnssdata.txt";
    const size_t size = rmc(1).size();
    start();
    Tavrik_Gnss_SetSaveFlag(1);
    EXPECT_EQ(log_of_passing(1, 2), "");
    Tavrik_Gnss_SetSaveFlag(0);
    EXPECT_EQ(log_of_passing(3, 3), "");
    EXPECT_EQ(read_file(kSaved), rmc(1) + rmc(2));
    Tavrik_Gnss_SetSaveFlag(1);
    // up to the last byte, and afresh
    std::filesystem::resize_file(kSaved, (1 << 20) - size);
    EXPECT_EQ(log_of_passing(4, 4), "");
    EXPECT_EQ(std::filesystem::file_size(kSaved), size_t(1 << 20));
    EXPECT_EQ(log_of_passing(5, 5), "");
    EXPECT_EQ(read_file(kSaved), rmc(5));
    // full, and gone: one line each, no piece of a sentence, and it goes on by itself
    for (const auto &[effect, error] : {std::pair("full", "28"), std::pair("stop", "2")}) {
        fault("userdata", effect);
        EXPECT_EQ(log_of_passing(0, 99),
                  "save_sentence: write to /mnt/userdata/gnssdata.txt failed, errno " + std::string(error) + "\n");
        fault();
        EXPECT_EQ(log_of_passing(7, 7), "");
        const std::string saved = read_file(kSaved);
        EXPECT_EQ(saved.substr(saved.rfind('$')), rmc(7));
        EXPECT_EQ(saved.size() % size, 0u);
    }
}

TEST_F(Gnss, DeinitWaitsForTheCallback) {
    start();
    receive_and_hang(rmc(1) + rmc(2) + rmc(3));
    std::thread later([] {
        usleep(200000);
        g_released = true;
    });
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_Deinit(), 0); }), "");
    EXPECT_FALSE(g_hangs);
    EXPECT_EQ(g_events.take(0), Texts{rmc(1)});
    later.join();
}

TEST_F(Gnss, DeinitInsideTheCallback) {
    start();
    const int before = g_inside_done;
    g_inside = [] {
        EXPECT_EQ(Tavrik_Gnss_Deinit(), 0);
        EXPECT_EQ(Tavrik_Gnss_Deinit(), 0);
        EXPECT_EQ(g_pipe[0] + g_pipe[1], -2);
        EXPECT_EQ(init(TAVRIK_GNSS_SERIAL), 0);
        return Tavrik_Gnss_Start();
    };
    log_of([&] {
        receive(rmc(1) + rmc(2) + rmc(3));
        EXPECT_TRUE(until([&] { return g_inside_done > before; }));
    });
    EXPECT_TRUE(until([&] { return reads() && count("/proc/self/task") <= threads_ + 1; }));
    receive(rmc(9));
    EXPECT_EQ(g_events.take(2), (Texts{rmc(1), rmc(9)})); // of the others nothing
}

// Left behind after two seconds: its descriptors are closed at once, a successor works, and at its end nothing is left.
TEST_F(Gnss, DeinitLeavesAStuckCallbackBehind) {
    start();
    Tavrik_Gnss_Data_to_Nmea_Port(1);
    receive_and_hang(rmc(1) + rmc(2));
    const auto begin = steady_clock::now();
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_Gnss_Deinit(), 0); }), "Tavrik_Gnss_Deinit: Tavrik_Gnss_Deinit fail!\n");
    EXPECT_GE(steady_clock::now() - begin, 1995ms);
    EXPECT_TRUE(until([] { return !reads(); }));
    EXPECT_EQ(g_events.take(1), Texts{rmc(1)});
    start();
    EXPECT_EQ(log_of_passing(3, 3), "");
    g_released = true;
    EXPECT_TRUE(until([] { return !g_hangs; }));
    EXPECT_EQ(log_of_passing(4, 4), "");
    EXPECT_EQ(recorded("ttyGS0"), (Texts{rmc(1), rmc(3), rmc(4)}));
}

// A child has no NMEA thread, may have one of its own, and leaves the parent's alone.
TEST_F(Gnss, Fork) {
    start();
    static std::atomic<int> status;
    const auto child = [] {
        const pid_t pid = fork();
        if (!pid) {
            bool good = !Tavrik_Gnss_Deinit() && g_pipe[0] == -1 && !g_upgrade_ready;
            if (!getenv("TAVRIK_EMULATOR")) // an emulator has no threads there
                good = good && !Tavrik_Gnss_Init(on_data, 7) && !Tavrik_Gnss_Deinit();
            _exit(good ? 0 : 1);
        }
        int ended = -1;
        waitpid(pid, &ended, 0);
        return status = ended;
    };
    for (const bool in_callback : {false, true}) {
        status = -1;
        in_callback ? void(g_inside = child) : void(child());
        EXPECT_EQ(log_of_passing(1, 1), "");
        EXPECT_TRUE(until([] { return status == 0; })) << status;
    }
}

// Start, stop and deinitialise at random moments while data flow: nothing is left over. TAVRIK_GNSS_ROUNDS: of each
// kind.
TEST_F(Gnss, ManyRounds) {
    const char *rounds = getenv("TAVRIK_GNSS_ROUNDS");
    fault("gnss", "flood", rmc(1) + rmc(2));
    Tavrik_Gnss_Data_to_Nmea_Port(1);
    std::mt19937 random(1);
    for (const int kind : {TAVRIK_GNSS_BUILT_IN, TAVRIK_GNSS_POWERED, TAVRIK_GNSS_SERIAL}) {
        size_t records = 0;
        log_of([&] {
            for (int i = 0; i < (rounds ? atoi(rounds) : 40); ++i) {
                const int before = g_inside_done;
                EXPECT_EQ(init(kind), 0);
                Tavrik_Gnss_Start();
                EXPECT_EQ(g_upgrade_ready, 1);
                if (i % 4 == 0) {
                    g_inside = Tavrik_Gnss_Deinit;
                    EXPECT_TRUE(until([&] { return g_inside_done > before; }));
                } else if (i % 4 < 3) {
                    Tavrik_Gnss_Stop();
                }
                if (i % 4 == 1)
                    Tavrik_Gnss_Start();
                usleep(unsigned(random() % 2000));
                EXPECT_EQ(Tavrik_Gnss_Deinit(), 0);
                EXPECT_EQ(g_pipe[0] + g_pipe[1] + g_upgrade_ready, -2);
                records += g_events.take(0).size();
            }
        });
        EXPECT_GT(records, 0u) << kind;
    }
}

// Everything at once, from several threads and from the callback.
TEST_F(Gnss, ManyThreads) {
    fault("gnss", "flood", rmc(1) + rmc(2));
    static constexpr int (*kCalls[])() = {Tavrik_Gnss_Deinit,
                                          Tavrik_Gnss_Start,
                                          Tavrik_Gnss_Stop,
                                          Tavrik_Gnss_HotStart,
                                          [] { return init(TAVRIK_GNSS_SERIAL); },
                                          [] { return Tavrik_Gnss_Data_to_Nmea_Port(1); },
                                          [] { return Tavrik_Gnss_CallBack_Switch(TAVRIK_GNSS_CALLBACK_BOTH); },
                                          [] {
                                              Tavrik_GnssData last;
                                              return Tavrik_Gnss_GetGnssLocationInfo(&last);
                                          }};
    log_of([&] {
        std::vector<std::thread> callers;
        for (unsigned seed = 1; seed <= 3; ++seed)
            callers.emplace_back([seed] {
                std::mt19937 random(seed);
                for (int i = 0; i < 150; ++i) {
                    g_inside = kCalls[random() % std::size(kCalls)];
                    kCalls[random() % std::size(kCalls)]();
                }
            });
        for (std::thread &caller : callers)
            caller.join();
        g_inside = nullptr; // one that runs still may begin anew
        EXPECT_TRUE(until([&] { return !Tavrik_Gnss_Deinit() && count("/proc/self/task") <= threads_; }));
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
        many += rmc(i);
    receive(many);
    EXPECT_EQ(g_events.take(2), (Texts{rmc(0), record(0)}));
    Tavrik_GnssData last;
    EXPECT_TRUE(until([&] { return !Tavrik_Gnss_GetGnssLocationInfo(&last) && shown(last) == record(49); }));
    const auto begin = steady_clock::now();
    Texts got;
    while (steady_clock::now() - begin < 1500ms) {
        receive(rmc(1) + rmc(2));
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
