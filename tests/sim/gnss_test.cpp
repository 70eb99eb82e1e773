// The receiver's port, what switches it, and the places that the GNSS family needs, as a program finds them.
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <thread>

#include "bus.h"
#include "support/sim.h"

namespace {

using nlohmann::json;

class Port {
  public:
    explicit Port(const char *path = "/dev/ttyS3", bool raw = true)
        : fd_(open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)),
          error_(fd_ < 0 ? errno : 0) {
        termios line = {};
        if (fd_ < 0 || !raw || tcgetattr(fd_, &line))
            return;
        cfmakeraw(&line);
        cfsetspeed(&line, B115200);
        EXPECT_EQ(tcsetattr(fd_, TCSANOW, &line), 0);
    }
    ~Port() {
        if (fd_ >= 0)
            close(fd_);
    }

    int error() const { return error_; }
    // What one read gives within the limit: "" for nothing, "EOF" for the end.
    std::string read(int limit_ms = 20000) const {
        pollfd ready = {fd_, POLLIN, 0};
        if (poll(&ready, 1, limit_ms) < 1)
            return "";
        char chunk[65536];
        const ssize_t n = ::read(fd_, chunk, sizeof chunk);
        return n > 0 ? std::string(chunk, size_t(n)) : "EOF";
    }
    std::string read_up_to(const std::string &end) const {
        std::string all;
        for (std::string some; all.find(end) == std::string::npos && !(some = read()).empty() && some != "EOF";)
            all += some;
        return all;
    }
    // 0 or the error.
    int write(const std::string &bytes) const {
        return ::write(fd_, bytes.data(), bytes.size()) == ssize_t(bytes.size()) ? 0 : errno;
    }

  private:
    int fd_, error_;
};

json service(const char *name) {
    return sim::call("state")["services"][name];
}

bool plays() {
    return service("gnss")["receiver"]["play"];
}

template <class Condition>
bool eventually(Condition condition) {
    for (int i = 0; i < 2000; i++, std::this_thread::sleep_for(std::chrono::milliseconds(10)))
        if (condition())
            return true;
    return false;
}

class Gnss : public testing::Test {
  protected:
    void SetUp() override { sim::call("reset"); }
    void TearDown() override { sim::call("reset"); }
};

// As with a real port: opened any number of times, nothing of the time before is there.
TEST_F(Gnss, PortBeginsAfreshForWhoOpensIt) {
    EXPECT_EQ(service("gnss")["settings"]["speed"], 38400);
    for (int i = 0; i < 50; i++) {
        const std::string number = std::to_string(i);
        {
            Port port;
            sim::call("nmea", {{"text", number + "\n"}});
            EXPECT_EQ(port.read(), number + "\n");
            EXPECT_EQ(port.write("$" + number + "\r\n"), 0);
            Port other; // the last of them ends it
        }
        EXPECT_EQ(sim::recorded("ttyS3"), (std::vector<std::string>{"$" + number + "\r\n"}));
    }
    {
        Port port;
        sim::call("nmea", {{"text", "unread"}});
        EXPECT_EQ(service("gnss")["settings"], (json{{"speed", 115200},
                                                     {"raw", true},
                                                     {"echo", false},
                                                     {"stop_bits", 1},
                                                     {"rtscts", false},
                                                     {"clocal", false},
                                                     {"vmin", 1},
                                                     {"vtime", 0}}));
    }
    EXPECT_TRUE(eventually([] { return !service("gnss")["open"]; }));
    Port port;
    sim::call("nmea", {{"text", "new"}});
    EXPECT_EQ(port.read(), "new");
}

TEST_F(Gnss, RecordsLinesAndMessagesWhole) {
    const std::string stop("\xf1\xd9\x06\x41\x05\0\0\0\0\0\x03\x4f\x64", 13);
    sim::call("gnss", {{"play", true}, {"hz", 100}});
    Port port, output("/dev/ttyGS0");
    EXPECT_NE(port.read(), "");
    port.write("$RESET,1\r\n" + stop.substr(0, 5));
    port.write(stop.substr(5) + "rest");
    sim::call("wait", {{"kind", "ttyS3"}, {"text", "rest"}});
    EXPECT_EQ(sim::recorded("ttyS3"), (std::vector<std::string>{"$RESET,1\r\n", sim::hex(stop), "rest"}));
    EXPECT_FALSE(plays());
    output.write("$GNRMC\r\n$GN");
    output.write("GGA\r\n");
    EXPECT_EQ(sim::recorded("ttyGS0"), (std::vector<std::string>{"$GNRMC\r\n", "$GNGGA\r\n"}));
    EXPECT_EQ(service("ttyGS0")["open"], true);
}

TEST_F(Gnss, PiecesComeOneByOne) {
    Port port;
    std::thread control([] { sim::call("nmea", {{"text", "$GNRMC\r\n"}, {"cuts", {{"every", 3}}}}); });
    for (const char *piece : {"$GN", "RMC", "\r\n"})
        EXPECT_EQ(port.read(), piece);
    control.join();
    sim::call("fault", {{"service", "gnss"}, {"cuts", {{"every", 1}}}});
    control = std::thread([] { sim::call("nmea", {{"hex", "24fe0a"}}); });
    for (const char *piece : {"$", "\xfe", "\n"})
        EXPECT_EQ(port.read(), piece);
    control.join();
}

TEST_F(Gnss, SaysItsTrackWhileItIsOnAndHeard) {
    char path[] = "/tmp/track.XXXXXX";
    close(mkstemp(path));
    std::ofstream(path) << "$GNRMC,1\n$GNGSA\n$GNRMC,2\n$GNRMC,3\n";
    sim::call("gnss", {{"track", path}, {"hz", 50}, {"play", true}});
    for (int i = 0; i < 2; i++) { // who opens it late misses nothing of a file
        EXPECT_EQ(Port().read_up_to(",3\r\n"), "$GNRMC,1\r\n$GNGSA\r\n$GNRMC,2\r\n$GNRMC,3\r\n");
        sim::call("gnss", {{"play", false}});
        sim::call("gnss", {{"play", true}});
    }
    sim::call("gnss", {{"hz", 1}, {"loop", true}});
    sim::call("fault", {{"service", "gnss"}, {"burst", 4}});
    Port port;
    EXPECT_TRUE(eventually([] { return service("gnss")["open"]; }));
    sim::call("advance", {{"ms", 10000}}); // on the modem's clock
    EXPECT_NE(port.read_up_to("$GNRMC,1\r\n$GNGSA\r\n$GNRMC,2\r\n$GNRMC,3\r\n$GNRMC,1\r\n"), "");
    unlink(path);
    sim::call("reset");
    EXPECT_FALSE(plays());
    EXPECT_EQ(service("gnss")["receiver"]["track"], "drive");
}

TEST_F(Gnss, IsSwitchedByAllItsSwitches) {
    blob_buf message = {};
    blob_buf_init(&message, 0);
    blobmsg_add_u32(&message, "gnss_init_param", 7);
    const auto invoke = [&](const char *object, const char *method, bool with = false) {
        return tavrik_call_ubusinvoke(with ? &message : nullptr, object, method, 0, nullptr, 10000);
    };
    const struct {
        const char *object, *on, *off;
        bool with;
        std::vector<std::string> record;
    } rows[] = {{"gps", "gnss_init", "gnss_deinit", true, {"gnss_init {\"gnss_init_param\":7}", "gnss_deinit"}},
                {"hdgnssapp", "start", "close", false, {"start", "close"}}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.object);
        EXPECT_EQ(invoke(row.object, row.on, row.with), 0);
        EXPECT_TRUE(plays());
        EXPECT_EQ(invoke(row.object, row.off), 0);
        EXPECT_FALSE(plays());
        EXPECT_EQ(sim::recorded(row.object), row.record);
        for (const json &effect : {json{{"status", 3}}, json{{"stop", true}}}) { // nothing comes of it
            json fault = effect;
            fault["service"] = row.object;
            sim::call("fault", fault);
            EXPECT_EQ(invoke(row.object, row.on, row.with), -1) << effect;
            EXPECT_FALSE(plays()) << effect;
            sim::call("clear");
        }
        sim::fault(row.object, row.on, {{"reply", {{"result", "taken"}}}, {"count", 1}});
        blob_attr *reply = nullptr;
        EXPECT_EQ(tavrik_call_ubusinvoke(row.with ? &message : nullptr, row.object, row.on, 1, &reply, 10000), 0);
        EXPECT_TRUE(reply && std::string(static_cast<char *>(blob_data(reply)), blob_len(reply)).find("taken") !=
                                 std::string::npos);
        free(reply);
        sim::call("reset");
    }
    EXPECT_EQ(invoke("gps", "gnss_init"), -1); // its number is missing
    EXPECT_FALSE(plays());
    blob_buf_free(&message);
}

int put(const std::string &path, const std::string &text) {
    const int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_NONBLOCK | O_CLOEXEC);
    const int error = fd < 0 || write(fd, text.data(), text.size()) < 0 ? errno : 0;
    close(fd);
    return error;
}

std::string get(const std::string &path) {
    std::string text;
    std::ifstream(path) >> text;
    return text;
}

TEST_F(Gnss, LinesOfGpio) {
    const std::string folder = "/sys/class/gpio/", line = folder + "gpio5/";
    struct stat st;
    const auto is_there = [&](const std::string &path) { return !stat(path.c_str(), &st); };
    EXPECT_FALSE(is_there(line));
    for (const char *number : {"5", "x", "1024", "6\n", "5"}) {
        EXPECT_EQ(put(folder + "export", number), 0);
        EXPECT_EQ(sim::recorded("gpio").size(), 1u) << number;
    }
    EXPECT_TRUE(is_there(line + "value") && is_there(folder + "gpio6/value") && !is_there(folder + "gpio1024"));
    EXPECT_EQ(get(line + "direction") + get(line + "value") + get(line + "active_low"), "in00");
    const struct {
        const char *file, *text, *direction, *value;
        bool on;
    } steps[] = {{"value", "1", "in", "1", false},       {"direction", "out", "out", "1", true},
                 {"value", "0", "out", "0", false},      {"value", "0\n", "out", "0", false},
                 {"value", "1\n", "out", "1", true},     {"direction", "low", "out", "0", false},
                 {"direction", "high", "out", "1", true}};
    for (const auto &[file, text, direction, value, on] : steps) {
        SCOPED_TRACE(std::string(file) + " " + text);
        EXPECT_EQ(put(line + file, text), 0);
        EXPECT_EQ(sim::recorded("gpio"), std::vector<std::string>{"gpio5/" + std::string(file) + " " +
                                                                  std::string(text).substr(0, strcspn(text, "\n"))});
        EXPECT_EQ(get(line + "direction") + " " + get(line + "value"), std::string(direction) + " " + value);
        EXPECT_EQ(plays(), on);
    }
    EXPECT_EQ(service("gpio")["lines"]["5"], (json{{"direction", "out"}, {"value", "1"}, {"active_low", "0"}}));
    put(folder + "unexport", "6");
    EXPECT_EQ(sim::recorded("gpio"), std::vector<std::string>{"unexport 6"});
    EXPECT_FALSE(is_there(folder + "gpio6"));
    sim::call("reset");
    EXPECT_FALSE(is_there(line));
    sim::call("fault", {{"service", "gpio"}, {"stop", true}});
    EXPECT_EQ(put(folder + "export", "5"), ENOENT);
    sim::call("clear");
    EXPECT_EQ(put(folder + "export", "5"), 0);
}

TEST_F(Gnss, UserDataIsThereMissingOrFull) {
    const std::string path = "/mnt/userdata/gnssdata.txt";
    const auto save = [&](const std::string &text) {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        const int error = fd < 0 || write(fd, text.data(), text.size()) < 0 ? errno : 0;
        close(fd);
        return error;
    };
    sim::call("fault", {{"service", "userdata"}, {"full", true}});
    EXPECT_EQ(save("one"), ENOSPC);
    sim::call("clear");
    EXPECT_EQ(save("one"), 0);
    sim::call("fault", {{"service", "userdata"}, {"stop", true}});
    EXPECT_EQ(save("two"), ENOENT);
    sim::call("clear");
    EXPECT_EQ(get(path), "one");
    sim::call("reset");
    EXPECT_EQ(get(path), "");
}

TEST_F(Gnss, FaultsOfThePorts) {
    for (const auto &[name, path] : {std::pair("gnss", "/dev/ttyS3"), std::pair("ttyGS0", "/dev/ttyGS0")}) {
        SCOPED_TRACE(name);
        const auto fault = [&, name = name](const char *effect) {
            return sim::call("fault", {{"service", name}, {effect, true}});
        };
        Port port(path);
        fault("refuse");
        EXPECT_EQ(Port(path).error(), ENOENT);
        EXPECT_EQ(port.write("still\n"), 0);
        fault("stop");
        EXPECT_EQ(port.read(), "EOF");
        EXPECT_EQ(port.write("gone"), EIO);
        EXPECT_EQ(Port(path).error(), ENOENT);
        EXPECT_EQ(sim::recorded(path + 5), std::vector<std::string>{"still\n"});
        sim::call("clear");
        Port again(path);
        EXPECT_EQ(again.error(), 0);
        fault("close");
        EXPECT_EQ(again.read(), "EOF");
        Port last(path);
        EXPECT_EQ(last.write("deaf?\n"), 0);
        EXPECT_EQ(sim::recorded(path + 5), std::vector<std::string>{"deaf?\n"});
        fault("deaf");
        int error;
        while (!(error = last.write("x")))
            continue;
        EXPECT_EQ(error, EAGAIN);
        EXPECT_EQ(sim::recorded(path + 5), std::vector<std::string>());
        sim::call("clear");
        EXPECT_TRUE(eventually([&] { return !last.write("\n"); }));
    }
    Port port;
    sim::call("fault", {{"service", "gnss"}, {"garble", 4}});
    sim::call("nmea", {{"text", "$GNRMC\r\n"}});
    EXPECT_EQ(port.read(), "$GN\xd2MC\r\x8a");
    sim::call("clear");
    sim::call("fault", {{"service", "gnss"}, {"silent", true}});
    sim::call("nmea", {{"text", "lost"}});
    sim::call("gnss", {{"play", true}, {"hz", 100}});
    EXPECT_EQ(port.read(50), "");
    sim::call("clear");
    EXPECT_EQ(port.read_up_to("\n").substr(0, 7), "$GNRMC,");
    sim::call("gnss", {{"play", false}});
    sim::call("fault", {{"service", "gnss"}, {"flood", "$GNVTG*\r\n"}});
    EXPECT_GT(port.read_up_to(std::string("*\r\n$GNVTG*\r\n")).size(), 0u);
    sim::call("reset");
    while (port.read(50) != "")
        continue;
}

} // namespace
