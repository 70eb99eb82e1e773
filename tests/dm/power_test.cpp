// Automatic sleep, wake locks and reboot, against the kernel's files of the simulated module.
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>

#include "support/sim.h"

namespace {

using nlohmann::json;
using sim::log_of, sim::recorded;
using Texts = std::vector<std::string>;

class Power : public testing::Test {
  protected:
    Power() {
        sim::call("reset");
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    }
    ~Power() override { sim::call("reset"); }
};

std::string kernel(const char *file) {
    return sim::call("state")["services"]["power"][file];
}
void pass_s(int64_t seconds) {
    sim::call("advance", {{"ms", seconds * 1000}});
}
std::string locks() {
    char text[512] = "";
    EXPECT_EQ(Tavrik_DM_ViewSourceLock(text, sizeof text), 0);
    return text;
}
int take(const std::string &name, uint32_t timeout_ms = 0) {
    return Tavrik_DM_CreatSourceLock(name.c_str(), timeout_ms);
}

// Meanwhile this process can open nothing, so no command's output either.
class NoDescriptors {
  public:
    NoDescriptors() {
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit none = {3, before_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }

  private:
    rlimit before_;
};

TEST_F(Power, AutomaticSleep) {
    for (const auto &[on, written] : {std::pair{1, "mem"}, {0, "off"}, {2, "mem"}, {-1, "mem"}}) {
        EXPECT_EQ(log_of([on = on] { EXPECT_EQ(Tavrik_DM_SetAutoSleep(on), 0); }), "");
        EXPECT_EQ(recorded("autosleep"), Texts{written});
        EXPECT_EQ(kernel("autosleep"), written);
    }
    sim::call("fault", {{"service", "power"}, {"full", true}});
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_DM_SetAutoSleep(0), -1); }),
              "Tavrik_DM_SetAutoSleep: set autosleep mode failed\n");
    sim::call("clear");
    EXPECT_EQ(log_of([] {
                  const NoDescriptors none;
                  EXPECT_EQ(Tavrik_DM_SetAutoSleep(0), -1);
              }),
              "Tavrik_DM_SetAutoSleep: set autosleep mode failed\n");
    EXPECT_EQ(recorded("autosleep"), Texts());
}

TEST_F(Power, TakesALock) {
    const std::string longest(99, 'n'), longest_timed(88, 'n'); // with echo and the file 127 characters
    const struct {
        std::string name;
        uint32_t timeout_ms;
        std::string written; // empty: refused
        const char *log = "";
    } cases[] = {
        {"gps", 0, "gps"},
        {"gps", 1500, "gps 1500000000"},
        {"gps", 1, "gps 1000000"},
        {"gps", 60001, "gps 60001000000"},
        {"gps", 4294967294u, "gps 4294967294000000"},
        {"gps", 4294967295u, "", "creat source lock gps failed"},
        {longest, 0, longest},
        {longest + "n", 0, "", "creat source lock nnnnnnnnnn"},
        {longest_timed, 1500, longest_timed + " 1500000000"},
        {longest_timed + "n", 1500, "", "creat source lock nnnnnnnnnn"},
        // what a shell would look into
        {"-n", 0, "-n"},
        {"%s\\n\\0101", 0, "%s\\n\\0101"},
        {"'$(reboot)'`reboot`;reboot>a&*\"#", 1, "'$(reboot)'`reboot`;reboot>a&*\"# 1000000"},
        {std::string(99, '\''), 0, std::string(99, '\'')},
        {"", 0, "", "Parameter input error"},
        {"a b", 0, "", "Parameter input error"},
        {"a\tb", 0, "", "Parameter input error"},
        {"a\rb", 0, "", "Parameter input error"},
        {"a\n", 0, "", "Parameter input error"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const bool good = !test.written.empty();
        const std::string log = log_of([&] { EXPECT_EQ(take(test.name, test.timeout_ms), good ? 0 : -1); });
        EXPECT_EQ(log.substr(0, 27 + strlen(test.log)),
                  good ? "" : "Tavrik_DM_CreatSourceLock: " + std::string(test.log));
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), good ? 0 : 1) << log;
        EXPECT_EQ(recorded("wake_lock"), good ? Texts{test.written} : Texts());
        if (good && test.timeout_ms && test.timeout_ms < 60000)
            pass_s(60);
        else
            EXPECT_EQ(kernel("wake_lock"), good ? test.name : "");
        EXPECT_EQ(recorded("program"), Texts());
        sim::call("reset");
    }
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_DM_CreatSourceLock(nullptr, 0), -1); }),
              "Tavrik_DM_CreatSourceLock: Parameter input error\n");
    sim::call("fault", {{"service", "power"}, {"full", true}});
    EXPECT_EQ(log_of([] { EXPECT_EQ(take("gps"), -1); }), "Tavrik_DM_CreatSourceLock: creat source lock gps failed\n");
    EXPECT_EQ(log_of([] {
                  const NoDescriptors none;
                  EXPECT_EQ(take("gps"), -1);
              }),
              "Tavrik_DM_CreatSourceLock: creat source lock gps failed\n");
    EXPECT_EQ(locks(), "");
}

TEST_F(Power, LocksExpireAndAreRenewed) {
    EXPECT_EQ(take("ends", 1000000), 0);
    EXPECT_EQ(take("renewed", 1000000), 0);
    EXPECT_EQ(take("kept", 1000000), 0);
    EXPECT_EQ(take("bounded"), 0);
    pass_s(900);
    EXPECT_EQ(take("renewed", 1000000), 0);
    EXPECT_EQ(take("renewed", 1), 0); // does not shorten it
    EXPECT_EQ(take("kept"), 0);
    EXPECT_EQ(take("bounded", 1000000), 0);
    EXPECT_EQ(locks(), "bounded ends kept renewed");
    pass_s(100);
    EXPECT_EQ(locks(), "bounded kept renewed");
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_DM_RemoveSourceLock("ends"), -1); }),
              "Tavrik_DM_RemoveSourceLock: ends is not in wakeup_lock\n");
    pass_s(800);
    EXPECT_EQ(locks(), "bounded kept renewed");
    pass_s(100);
    EXPECT_EQ(locks(), "kept");
    EXPECT_EQ(take("ends", 1), 0);
    pass_s(1);
    EXPECT_EQ(locks(), "kept");
}

TEST_F(Power, ListsTheLocks) {
    EXPECT_EQ(locks(), "");
    for (const char *name : {"two", "one", "three"})
        EXPECT_EQ(take(name), 0);
    EXPECT_EQ(locks(), "one three two");
    const struct {
        int size;
        const char *text; // the byte behind what was written is still there
    } cases[] = {{1, "o####"}, {3, "one##"}, {5, "one t"}};
    for (const auto &test : cases) {
        char text[] = "####################";
        EXPECT_EQ(Tavrik_DM_ViewSourceLock(text, test.size), 0);
        EXPECT_EQ(std::string(text, 5), test.text);
        EXPECT_EQ(text[test.size], '#');
    }
    char text[20] = "#";
    const std::string log = log_of([&] {
        EXPECT_EQ(Tavrik_DM_ViewSourceLock(nullptr, 20), -1);
        EXPECT_EQ(Tavrik_DM_ViewSourceLock(text, 0), -1);
        EXPECT_EQ(Tavrik_DM_ViewSourceLock(text, -1), -1);
        const NoDescriptors none;
        EXPECT_EQ(Tavrik_DM_ViewSourceLock(text, sizeof text), -1);
    });
    const std::string null = "Tavrik_DM_ViewSourceLock: Parameter input error\n";
    EXPECT_EQ(log, null + null + null + "Tavrik_DM_ViewSourceLock: view source lock failed\n");
    EXPECT_STREQ(text, "#");
}

TEST_F(Power, ReleasesALock) {
    for (const char *name : {"gps", "gps2", "a'b"})
        EXPECT_EQ(take(name), 0);
    const std::string self = "Tavrik_DM_RemoveSourceLock: ";
    for (const char *wrong : {"gp", "ps", "gps22", "nosuch"})
        EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_DM_RemoveSourceLock(wrong), -1); }),
                  self + wrong + " is not in wakeup_lock\n");
    for (const char *wrong : {(const char *)nullptr, "", "gps gps2", "gps\n"})
        EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_DM_RemoveSourceLock(wrong), -1); }), self + "Parameter input error\n");
    sim::call("fault", {{"service", "power"}, {"full", true}});
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_DM_RemoveSourceLock("gps"), -1); }),
              self + "remove source lock gps failed\n");
    sim::call("clear");
    EXPECT_EQ(log_of([] {
                  const NoDescriptors none;
                  EXPECT_EQ(Tavrik_DM_RemoveSourceLock("gps"), -1);
              }),
              "Tavrik_DM_ViewSourceLock: view source lock failed\n" + self + "view source lock failed\n");
    EXPECT_EQ(recorded("wake_unlock"), Texts());
    EXPECT_EQ(log_of([] {
                  EXPECT_EQ(Tavrik_DM_RemoveSourceLock("gps"), 0);
                  EXPECT_EQ(Tavrik_DM_RemoveSourceLock("a'b"), 0);
              }),
              "");
    EXPECT_EQ(recorded("wake_unlock"), (Texts{"gps", "a'b"}));
    EXPECT_EQ(locks(), "gps2");
    EXPECT_EQ(kernel("wake_unlock"), "a'b gps");
}

// Names that fit the one command and not the other, and a list that fits no buffer: its last piece counts.
TEST_F(Power, BoundsOfNamesAndList) {
    const std::string longest(97, 'n');
    EXPECT_EQ(take(longest), 0);
    EXPECT_EQ(take(longest + "n"), 0);
    EXPECT_EQ(Tavrik_DM_RemoveSourceLock(longest.c_str()), 0);
    EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_DM_RemoveSourceLock((longest + "n").c_str()), -1); }),
              "Tavrik_DM_RemoveSourceLock: remove source lock " + longest + "n failed\n");
    std::string all;
    for (const char first : {'a', 'b', 'c', 'd', 'e'}) {
        EXPECT_EQ(take(first + longest), 0);
        all += first + longest + " ";
    }
    all += longest + "n";
    EXPECT_EQ(kernel("wake_lock"), all);
    EXPECT_EQ(locks(), all.substr(511));
}

// Whatever waits to be read: what was written last counts.
TEST_F(Power, WritesCountInTheirOrder) {
    const pid_t module = sim::call("state")["pids"]["module"];
    const auto write = [](const char *file, const std::string &text) {
        const int fd = open((std::string("/sys/power/") + file).c_str(), O_WRONLY | O_CLOEXEC);
        EXPECT_EQ(::write(fd, text.data(), text.size()), ssize_t(text.size()));
        close(fd);
    };
    kill(module, SIGSTOP);
    for (const char *text : {"a\n", "b\n"}) {
        write("wake_lock", text);
        write("wake_unlock", text);
    }
    write("wake_lock", "b\nc\n"); // several lines at once
    for (const char *refused : {" d\n", "e 1x\n", "f -1\n", "\n"})
        write("wake_lock", refused);
    write("autosleep", "mem\n");
    write("autosleep", "later\n");
    kill(module, SIGCONT);
    EXPECT_EQ(locks(), "b c");
    EXPECT_EQ(kernel("wake_unlock"), "a");
    EXPECT_EQ(kernel("autosleep"), "mem");
    const json record = sim::call("record");
    std::string order;
    for (const json &entry : record["entries"])
        order += entry["kind"].get<std::string>() + " " + entry["text"].get<std::string>() + "|";
    EXPECT_EQ(order.substr(0, 52), "wake_lock a|wake_unlock a|wake_lock b|wake_unlock b|") << order;
}

TEST_F(Power, Reboots) {
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_DM_Reboot(), 0); }), "");
    EXPECT_EQ(recorded("program"), Texts{"reboot"});
    const std::string path = getenv("PATH"), folder = "/tmp/programs";
    std::filesystem::create_directory(folder);
    std::ofstream(folder + "/reboot") << "#!/bin/sh\nexit 1\n";
    std::filesystem::permissions(folder + "/reboot", std::filesystem::perms::all);
    setenv("PATH", (folder + ":" + path).c_str(), 1);
    EXPECT_EQ(log_of([] { EXPECT_EQ(Tavrik_DM_Reboot(), -1); }), "Tavrik_DM_Reboot: system reboot failed\n");
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(recorded("program"), Texts());
}

} // namespace
