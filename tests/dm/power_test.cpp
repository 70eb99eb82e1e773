// Automatic sleep, wake locks and reboot, against the kernel's files of the simulated module.
#include <filesystem>

#include "support/descriptors.h"
#include "support/shell.h"
#include "support/sim.h"

namespace {

using sim::calling, sim::log_of, sim::Operation, sim::sent, sim::words;

class Power : public sim::AtTest {};

Operation lock(const std::string &name, uint32_t timeout_ms = 0) {
    return [=] { return words(Tavrik_DM_CreatSourceLock(name.c_str(), timeout_ms)); };
}
int release(const std::string &name) {
    return Tavrik_DM_RemoveSourceLock(name.c_str());
}
std::string locks() {
    char text[512] = "";
    EXPECT_EQ(Tavrik_DM_ViewSourceLock(text, sizeof text), 0);
    return text;
}
// In a process that can open nothing, so no command's output either.
Operation bare(const Operation &run) {
    return [run] {
        const NoDescriptors none;
        return run();
    };
}

TEST_F(Power, SleepsAutomatically) {
    const std::string failed = "Tavrik_DM_SetAutoSleep: set autosleep mode failed\n";
    table({
        {"", calling(Tavrik_DM_SetAutoSleep, 0), "0", "autosleep off"},
        {"", calling(Tavrik_DM_SetAutoSleep, 1), "0", "autosleep mem"},
        {"", calling(Tavrik_DM_SetAutoSleep, 2), "0", "autosleep mem"},
        {"", calling(Tavrik_DM_SetAutoSleep, -1), "0", "autosleep mem"},
        {"power full=true", calling(Tavrik_DM_SetAutoSleep, 0), "-1", "", failed},
        {"", bare(calling(Tavrik_DM_SetAutoSleep, 0)), "-1", "", failed},
    });
}

TEST_F(Power, TakesALock) {
    const std::string longest(99, 'n'), timed(88, 'n'), quotes(99, '\''), // with echo and the file 127 characters
        null = "Tavrik_DM_CreatSourceLock: Parameter input error\n";
    const auto failed = [](const std::string &name) {
        return "Tavrik_DM_CreatSourceLock: creat source lock " + name + " failed\n";
    };
    table({
        {"", lock("gps", 4294967294u), "0", "wake_lock gps 4294967294000000"},
        {"", lock("gps", 4294967295u), "-1", "", failed("gps")},
        {"", lock(longest), "0", "wake_lock " + longest},
        {"", lock(longest + "n"), "-1", "", failed(longest + "n")},
        {"", lock(timed, 1500), "0", "wake_lock " + timed + " 1500000000"},
        {"", lock(timed + "n", 1500), "-1", "", failed(timed + "n")},
        // what a shell would look into
        {"", lock("-n"), "0", "wake_lock -n"},
        {"", lock("%s\\n\\0101"), "0", "wake_lock %s\\n\\0101"},
        {"", lock("'$(reboot)'`reboot`;reboot>a&*\"#", 1), "0", "wake_lock '$(reboot)'`reboot`;reboot>a&*\"# 1000000"},
        {"", lock(quotes), "0", "wake_lock " + quotes},
        {"", lock(""), "-1", "", null},
        {"", lock("a b"), "-1", "", null},
        {"", calling(Tavrik_DM_CreatSourceLock, nullptr, 0), "-1", "", null},
        {"power full=true", lock("gps"), "-1", "", failed("gps")},
        {"", bare(lock("gps")), "-1", "", failed("gps")},
    });
}

TEST_F(Power, LocksExpireAndAreRenewed) {
    for (const char *name : {"ends", "renewed", "kept"})
        EXPECT_EQ(lock(name, 1000000)(), "0");
    sim::call("advance", {{"ms", 900000}});
    EXPECT_EQ(lock("renewed", 1000000)(), "0");
    EXPECT_EQ(lock("renewed", 1)(), "0"); // does not shorten it
    EXPECT_EQ(lock("kept")(), "0");
    EXPECT_EQ(locks(), "ends kept renewed");
    sim::call("advance", {{"ms", 100000}});
    EXPECT_EQ(locks(), "kept renewed");
    sim::call("advance", {{"ms", 900000}});
    EXPECT_EQ(locks(), "kept");
}

TEST_F(Power, ListsTheLocks) {
    EXPECT_EQ(locks(), "");
    for (const char *name : {"two", "one", "three"})
        EXPECT_EQ(lock(name)(), "0");
    EXPECT_EQ(locks(), "one three two");
    for (const auto &[size, written] : {std::pair{1, "o####"}, {3, "one##"}, {5, "one t"}}) {
        char text[] = "########"; // the bytes behind what was written are still there
        EXPECT_EQ(Tavrik_DM_ViewSourceLock(text, size), 0);
        EXPECT_EQ(text, std::string(written) + "###");
    }
    char text[] = "#";
    const std::string null = "Tavrik_DM_ViewSourceLock: Parameter input error";
    refuse({{null, [] { return Tavrik_DM_ViewSourceLock(nullptr, 20); }},
            {null, [&] { return Tavrik_DM_ViewSourceLock(text, 0); }},
            {null, [&] { return Tavrik_DM_ViewSourceLock(text, -1); }}});
    EXPECT_STREQ(text, "#");
}

TEST_F(Power, ReleasesALock) {
    for (const char *name : {"gps", "gps2", "a'b"})
        EXPECT_EQ(lock(name)(), "0");
    const std::string self = "Tavrik_DM_RemoveSourceLock: ", null = self + "Parameter input error";
    for (const char *wrong : {"gp", "ps", "gps22", "nosuch"})
        refuse({{self + wrong + " is not in wakeup_lock", [&] { return release(wrong); }}});
    refuse({{null, [] { return Tavrik_DM_RemoveSourceLock(nullptr); }},
            {null, [] { return release(""); }},
            {null, [] { return release("gps gps2"); }}});
    sim::given("power full=true");
    refuse({{self + "remove source lock gps failed", [] { return release("gps"); }}});
    sim::call("clear");
    refuse({{"Tavrik_DM_ViewSourceLock: view source lock failed\n" + self + "view source lock failed", [] {
                 const NoDescriptors none;
                 return release("gps");
             }}});
    for (const char *name : {"gps", "a'b"})
        EXPECT_EQ(log_of([&] { EXPECT_EQ(release(name), 0); }), "");
    EXPECT_EQ(sent(), (std::vector<std::string>{"wake_unlock gps", "wake_unlock a'b"}));
    EXPECT_EQ(locks(), "gps2");
}

// Names that fit the one command and not the other, and a list that fits no buffer: its last piece counts.
TEST_F(Power, BoundsOfNamesAndList) {
    const std::string longest(97, 'n');
    EXPECT_EQ(lock(longest)(), "0");
    EXPECT_EQ(lock(longest + "n")(), "0");
    EXPECT_EQ(release(longest), 0);
    refuse({{"Tavrik_DM_RemoveSourceLock: remove source lock " + longest + "n failed",
             [&] { return release(longest + "n"); }}});
    std::string all;
    for (const char first : {'a', 'b', 'c', 'd', 'e'}) {
        EXPECT_EQ(lock(first + longest)(), "0");
        all += first + longest + " ";
    }
    all += longest + "n";
    EXPECT_EQ(locks(), all.substr(511));
}

TEST_F(Power, Reboots) {
    table({{"", calling(Tavrik_DM_Reboot), "0", "program reboot"}});
    const std::string path = getenv("PATH"), folder = "/tmp/programs";
    std::filesystem::create_directory(folder);
    write_file(folder + "/reboot", "#!/bin/sh\nexit 1\n");
    std::filesystem::permissions(folder + "/reboot", std::filesystem::perms::all);
    setenv("PATH", (folder + ":" + path).c_str(), 1);
    refuse({{"Tavrik_DM_Reboot: system reboot failed", Tavrik_DM_Reboot}});
    setenv("PATH", path.c_str(), 1);
}

} // namespace
