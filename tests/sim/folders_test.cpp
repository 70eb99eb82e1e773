// The files of the simulated module: packages of uci, folders that cannot be written to, the WiFi service's script.
#include <chrono>

#include "support/shell.h"
#include "support/sim.h"

namespace {

using nlohmann::json;

class Folders : public testing::Test {
  protected:
    void SetUp() override { sim::call("reset"); }
    void TearDown() override { sim::call("reset"); }
};

TEST_F(Folders, PackagesAreAsUciWritesThem) {
    for (const char *package : {"network", "dhcp", "wireless"}) {
        const std::string path = std::string("/etc/config/") + package, before = read_file(path);
        const std::string section = before.substr(before.rfind("\nconfig"));
        EXPECT_EQ(shell("uci add " + std::string(package) + " probe && uci commit").code, 0);
        EXPECT_NE(read_file(path), before);
        EXPECT_EQ(shell(std::string("uci delete ") + package + ".@probe[0] && uci commit").code, 0);
        EXPECT_EQ(read_file(path), before);
    }
    const std::pair<const char *, const char *> questions[] = {
        {"uci get network.wan0.dns", "198.51.100.1 198.51.100.2\n"},
        {"uci -d + export network | grep -c 'list dns'", "2\n"},
        {"uci get network.wan1.dns", "198.51.100.1\n"},
        {"uci -q get network.wan14; uci -q get network.wan614; uci -q get network.wan15; uci -q get network.lan",
         "interface\ninterface\ninterface\n"},
        {"uci -q get dhcp.wan14; uci -q get dhcp.wan15", "dhcp\n"},
        {"uci get wireless.AP0_2G; uci get wireless.AP0_5G_if; uci get wireless.AP0_5G.country",
         "wifi-device\nwifi-iface\nDE\n"},
    };
    for (auto &[command, output] : questions)
        EXPECT_EQ(shell(command).output, output) << command;
}

TEST_F(Folders, PackagesAreReplacedAndRenewed) {
    shell("uci set wireless.AP0_2G.country=US; uci set dhcp.wan0.ra=relay; uci commit dhcp; touch "
          "/etc/config/data_profile "
          "/etc/stat/data_statistics");
    sim::call("uci", {{"package", "wireless"}, {"text", "config wifi-device 'AP0_2G'\n\tlist country 'de'\n"}});
    EXPECT_EQ(shell("uci get wireless.AP0_2G.country").output, "de\n"); // what was staged is gone
    sim::call("uci", {{"package", "dhcp"}});
    EXPECT_EQ(shell("uci -q show dhcp").code, 1);
    sim::call("reset");
    EXPECT_EQ(shell("ls -A /etc/config /etc/stat /tmp/.uci | xargs").output,
              "/etc/config: dhcp network wireless /etc/stat: /tmp/.uci:\n");
    EXPECT_EQ(shell("uci -q get dhcp.wan0.ra").output + shell("uci get wireless.AP0_2G.country").output, "DE\n");
}

// What a program runs into, and that nothing of it is left afterwards.
TEST_F(Folders, RefuseWrites) {
    const std::string full = "No space left on device", read_only = "Read-only file system";
    const struct {
        json fault;
        const char *command;
        std::string error; // empty: it works
    } cases[] = {
        {{{"service", "etc"}, {"full", true}}, "head -c 5000 /dev/zero >/etc/config/new", full},
        {{{"service", "etc"}, {"full", true}}, "head -c 5000 /dev/zero >>/etc/config/network", full},
        {{{"service", "etc"}, {"full", true}}, "head -c 5000 /dev/zero >/etc/stat/new", full},
        {{{"service", "etc"}, {"full", true}}, "head -c 5000 /dev/zero >/tmp/new", ""},
        {{{"service", "etc"}, {"full", true}}, "fallocate -l 1 /etc/config/.room", full},
        {{{"service", "tmp"}, {"full", true}}, "head -c 5000 /dev/zero >/tmp/.uci/new", full},
        {{{"service", "tmp"}, {"full", true}}, "head -c 5000 /dev/zero >/etc/config/new", ""},
        {{{"service", "etc"}, {"read_only", true}}, "touch /etc/config/new", read_only},
        {{{"service", "etc"}, {"read_only", true}}, "echo >>/etc/config/network", read_only},
        {{{"service", "etc"}, {"read_only", true}}, "mv /etc/config/network /etc/config/wireless", read_only},
        {{{"service", "etc"}, {"read_only", true}}, "touch /tmp/.uci/new", ""},
        {{{"service", "tmp"}, {"read_only", true}}, "touch /tmp/.uci/new", read_only},
        {{{"service", "tmp"}, {"read_only", true}}, "cat /etc/config/network >/dev/null", ""},
        {{{"service", "etc"}, {"lock", "network"}}, "flock -n /etc/config/dhcp true", ""},
        {{{"service", "etc"}, {"lock", "network"}}, "flock -n /etc/config/network true || echo is locked", "is locked"},
        {{{"service", "etc"}, {"lock", "network"}}, "timeout 0.2 uci show network || echo $?", "124"},
        {{{"service", "etc"}, {"lock", "/etc/hostname"}},
         "flock -sn /etc/hostname true || echo is locked",
         "is locked"},
    };
    const std::string network = read_file("/etc/config/network");
    for (const auto &[fault, command, error] : cases) {
        SCOPED_TRACE(command);
        sim::call("fault", fault);
        const std::string got = shell("LC_ALL=C sh -c '" + std::string(command) + "' 2>&1").output;
        EXPECT_EQ(got.find(error.empty() ? "\n" : error) != std::string::npos, !error.empty()) << got;
        sim::call("clear");
        EXPECT_EQ(shell("head -c 50000 /dev/zero >/etc/config/z && mv /etc/config/z /etc/stat/ && rm /etc/stat/z &&"
                        "head -c 50000 /dev/zero >/tmp/.uci/z && rm /tmp/.uci/z && flock -n /etc/config/network true")
                      .code,
                  0);
        sim::call("reset");
        EXPECT_EQ(read_file("/etc/config/network"), network);
    }
    // What cannot be done is told, and leaves nothing behind.
    const Ran refused = shell("tavrik-sim call fault '{\"service\": \"etc\", \"lock\": \"none\"}' 2>&1");
    EXPECT_EQ(refused.code, 1);
    EXPECT_NE(refused.output.find("/etc/config/none: No such file"), std::string::npos) << refused.output;
    EXPECT_EQ(sim::call("clear")["removed"], 0);
}

TEST_F(Folders, WifiServiceFails) {
    const std::string restart = "/etc/init.d/mwlan restart 2>/dev/null";
    const std::pair<json, int> cases[] = {
        {{{"exit", 3}}, 3}, {{{"signal", 9}}, -1}, {{{"stop", true}}, 127}, {{{"sleep", 120}, {"exit", 1}}, 1}};
    for (const auto &[effect, code] : cases) {
        sim::fault("mwlan", "*", effect);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(shell("exec " + restart).code, code) << effect;
        const int least_ms = effect.value("sleep", 5) - 5;
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(least_ms));
        sim::call("clear");
        EXPECT_EQ(shell(restart).code, 0) << effect;
    }
    EXPECT_EQ(sim::recorded("program"), std::vector<std::string>(7, "mwlan restart"));
}

} // namespace
