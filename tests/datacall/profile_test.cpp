// Profiles in the uci package data_profile, compared with files and with what the uci program reads.
#include "support/descriptors.h"
#include "support/shell.h"
#include "support/sim.h"

#include <chrono>
#include <climits>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>

extern "C" {
#include <uci.h>
}

namespace {

using nlohmann::json;

constexpr char kFile[] = "/etc/config/data_profile", kStaged[] = "/tmp/.uci/data_profile";
constexpr char kNotCommitted[] = "Tavrik_DataCall_SetProfile: uci: /etc/config/data_profile not committed: ";

Tavrik_DataProfile profile(unsigned index, unsigned type, const char *apn, unsigned auth, const char *user,
                           const char *password) {
    Tavrik_DataProfile p = {};
    p.profile_idx = uint8_t(index);
    p.pdp_type = type;
    p.auth_type = auth;
    snprintf(p.apn, sizeof p.apn, "%s", apn);
    snprintf(p.usr_name, sizeof p.usr_name, "%s", user);
    snprintf(p.password, sizeof p.password, "%s", password);
    return p;
}

std::string text(const Tavrik_DataProfile &p) {
    return std::to_string(p.profile_idx) + ": " + std::to_string(p.pdp_type) + " " + p.apn + " " +
           std::to_string(p.auth_type) + " " + p.usr_name + " " + p.password;
}

std::string section(const std::string &name, const std::string &options) {
    return "\nconfig profile_idx '" + name + "'\n" + options;
}

const std::string kOptions = "\toption pdp_type '3'\n\toption apn 'internet'\n\toption auth_type '1'\n"
                             "\toption usr_name 'me'\n\toption password 'secret'\n";
const Tavrik_DataProfile kProfile = profile(3, 3, "internet", 1, "me", "secret");

// The log's line numbers are those of the source.
template <class Run>
std::string log_of(Run run) {
    return std::regex_replace(sim::log_of(run), std::regex(": [0-9]+, "), ": LINE, ");
}

class Profile : public sim::AtTest {
  protected:
    Profile() { put(""); }
    static void put(const std::string &text) { sim::call("uci", {{"package", "data_profile"}, {"text", text}}); }
    // Sets it, and tells what is in the log.
    static std::string set(const Tavrik_DataProfile *p, int wanted) {
        int result = 77;
        const std::string log = log_of([&] { result = Tavrik_DataCall_SetProfile(p); });
        EXPECT_EQ(result, wanted);
        EXPECT_NE(access(kStaged, F_OK), 0);
        EXPECT_EQ(shell("ls -A /etc/config").output, "data_profile\ndhcp\nnetwork\nwireless\n");
        return log;
    }
};

TEST_F(Profile, IsWrittenAsUciHasIt) {
    const std::string made = "debug Tavrik_DataCall_SetProfile: LINE, set_value:";
    const std::string other = "\nconfig interface 'lan'\n\tlist dns '1.1.1.1'\n\tlist dns '1.0.0.1'\n";
    const struct {
        const char *what;
        std::string before;
        Tavrik_DataProfile given;
        std::string after; // empty: -1, and all as before
        std::string log;
    } rows[] = {
        {"first", "", kProfile, section("3", kOptions), made + "3\n"},
        {"behind others", other + section("2", "\toption apn 'a'\n"), kProfile,
         other + section("2", "\toption apn 'a'\n") + section("3", kOptions), made + "3\n"},
        {"no second section", section("3", "\toption apn 'a'\n\toption own 'kept'\n") + other, kProfile,
         section("3", "\toption own 'kept'\n\toption pdp_type '3'\n\toption apn 'internet'\n\toption auth_type '1'\n"
                      "\toption usr_name 'me'\n\toption password 'secret'\n") +
             other,
         ""},
        {"same again", section("3", kOptions), kProfile, section("3", kOptions), ""},
        {"same again, written by hand",
         "config profile_idx 3\n option apn internet # home\n option pdp_type 3\n"
         " option auth_type 1\n option usr_name me\n option password secret",
         kProfile,
         "config profile_idx 3\n option apn internet # home\n option pdp_type 3\n"
         " option auth_type 1\n option usr_name me\n option password secret",
         ""},
        {"15", "", profile(15, 0, "a", 0, "b", "c"),
         section("15", "\toption pdp_type '0'\n\toption apn 'a'\n\toption auth_type '0'\n\toption usr_name 'b'\n"
                       "\toption password 'c'\n"),
         made + "15\n"},
        {"empty texts", section("3", kOptions), profile(3, 2, "", 0, "", ""),
         section("3", "\toption pdp_type '2'\n\toption auth_type '0'\n"), ""},
        {"in place of a list", section("3", "\tlist apn 'a'\n\tlist apn 'b'\n"), kProfile, section("3", kOptions), ""},
        {"of another type", "\nconfig other '3'\n", kProfile, "\nconfig other '3'\n" + kOptions, ""},
        {"0 is any name without number", "\nconfig profile_idx 'alpha'\n", profile(0, 0, "a", 0, "b", "c"), "",
         kNotCommitted + std::string("a change was refused\n")},
        {"the same number in other words", "\nconfig profile_idx '03'\n", kProfile, "",
         kNotCommitted + std::string("a change was refused\n")},
        {"0 behind a name without number", "\nconfig profile_idx 'alpha'\n\nconfig profile_idx '0'\n",
         profile(0, 3, "internet", 1, "me", "secret"),
         "\nconfig profile_idx 'alpha'\n\nconfig profile_idx '0'\n" + kOptions, ""},
        {"damaged", "config profile_idx '3'\n\toption apn 'x", kProfile, "",
         "Tavrik_DataCall_SetProfile: uci_load failed.\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        put(row.before);
        chmod(kFile, 0600);
        EXPECT_EQ(set(&row.given, row.after.empty() ? -1 : 0), row.log);
        const bool untouched = row.after.empty() || row.after == row.before;
        EXPECT_EQ(read_file(kFile), untouched ? row.before : row.after + "\n");
        struct stat st;
        ASSERT_EQ(stat(kFile, &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u);
        EXPECT_EQ(st.st_nlink, 1u);
    }
}

TEST_F(Profile, IsRefused) {
    const struct {
        const char *what;
        Tavrik_DataProfile given;
    } rows[] = {{"index", profile(16, 0, "a", 0, "", "")},
                {"type", profile(3, 4, "a", 0, "", "")},
                {"authentication", profile(3, 0, "a", 4, "", "")},
                {"-1", profile(3, UINT_MAX, "a", 0, "", "")},
                {"control byte", profile(3, 0, "a", 0, "", "\x01")}};
    const std::string before = section("3", kOptions), refused = "Tavrik_DataCall_SetProfile: error parameter\n";
    put(before);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(set(&row.given, -1), refused);
        EXPECT_EQ(read_file(kFile), before);
    }
    EXPECT_EQ(set(nullptr, -1), refused);

    // Neither file nor lock.
    Tavrik_DataProfile got = kProfile;
    const auto call = [&] {
        EXPECT_EQ(Tavrik_DataCall_SetProfile(&kProfile), -1);
        EXPECT_EQ(Tavrik_DataCall_GetProfile(3, &got), -1);
        EXPECT_EQ(Tavrik_DataCall_DeleteProfile(3), -1);
    };
    EXPECT_EQ(log_of([&] {
                  const NoDescriptors none;
                  call();
              }),
              "Tavrik_DataCall_SetProfile: uci: Too many open files\n"
              "Tavrik_DataCall_SetProfile: uci_alloc_context faild\n"
              "Tavrik_DataCall_GetProfile: uci: Too many open files\n"
              "Tavrik_DataCall_GetProfile: uci_alloc_context faild\n"
              "Tavrik_DataCall_DeleteProfile: uci: Too many open files\n"
              "Tavrik_DataCall_DeleteProfile: uci_alloc_context faild\n");
    sim::call("uci", {{"package", "data_profile"}});
    EXPECT_EQ(log_of(call), "Tavrik_DataCall_SetProfile: uci_load failed.\n"
                            "Tavrik_DataCall_GetProfile: uci_load failed.\n"
                            "Tavrik_DataCall_DeleteProfile: uci_load failed.\n");
    EXPECT_NE(access(kFile, F_OK), 0);
}

TEST_F(Profile, IsDeleted) {
    const std::string alpha = "\nconfig profile_idx 'alpha'\n";
    put(alpha + section("3", kOptions) + section("4", kOptions));
    for (const int index : {3, 3, 0, 16, -1}) // none is no failure
        EXPECT_EQ(log_of([&] { EXPECT_EQ(Tavrik_DataCall_DeleteProfile(index), 0); }), "");
    EXPECT_EQ(read_file(kFile), alpha + section("4", kOptions) + "\n");
    sim::fault("etc", "*", {{"read_only", true}});
    EXPECT_EQ(Tavrik_DataCall_DeleteProfile(4), -1);
    EXPECT_EQ(read_file(kFile), alpha + section("4", kOptions) + "\n");
}

TEST_F(Profile, IsRead) {
    const std::string found = "debug Tavrik_DataCall_GetProfile: section name:3\n",
                      missing = "warn Tavrik_DataCall_GetProfile: lookup option faild\n",
                      none = "Tavrik_DataCall_GetProfile: LINE, no such profile_idx\n";
    const struct {
        const char *what;
        std::string file;
        int index;
        std::string wanted, log;
    } rows[] = {
        {"whole", section("3", kOptions), 3, "3: 3 internet 1 me secret", found},
        {"none", "", 3, "3: 0  0  ", none},
        {"another name for it", section("03", kOptions), 3, "3: 0  0  ", none},
        {"beyond all", section("3", kOptions), 259, "3: 0  0  ", none},
        {"below all", section("3", kOptions), -1, "255: 0  0  ", none},
        {"without options", section("3", ""), 3, "3: 9 old 9 old old",
         found + missing + missing + missing + missing + missing},
        {"without APN",
         section("3", "\toption pdp_type '2'\n\toption auth_type '1'\n\toption usr_name 'u'\n"
                      "\toption password 'p'\n"),
         3, "3: 2 old 1 u p", found + missing},
        {"a list", section("3", kOptions + "\tlist apn 'a'\n"), 3, "3: 3 old 1 me secret", found + missing},
        {"no numbers",
         section("3", "\toption pdp_type 'x'\n\toption auth_type '-1'\n\toption apn 'a'\n"
                      "\toption usr_name 'u'\n\toption password 'p'\n"),
         3, "3: 0 a 4294967295 u p", found},
        {"long text",
         section("3", "\toption pdp_type '1'\n\toption auth_type '1'\n\toption apn '" + std::string(70, 'a') +
                          "'\n\toption usr_name 'u'\n\toption password 'p'\n"),
         3, "3: 1 " + std::string(63, 'a') + " 1 u p", found},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        put(row.file);
        Tavrik_DataProfile got = profile(9, 9, "old", 9, "old", "old");
        int result = 77;
        EXPECT_EQ(log_of([&] { result = Tavrik_DataCall_GetProfile(row.index, &got); }), row.log);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(text(got), row.wanted);
    }
    int result = 77;
    EXPECT_EQ(log_of([&] { result = Tavrik_DataCall_GetProfile(3, nullptr); }),
              "Tavrik_DataCall_GetProfile: error parameter\n");
    EXPECT_EQ(result, -1);
}

TEST_F(Profile, KeepsEachByte) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_SYSLOG); // to nobody
    put(section("3", kOptions));
    for (int byte = 1; byte < 256; byte++) {
        SCOPED_TRACE(byte);
        const std::string before = read_file(kFile), one(1, char(byte));
        const Tavrik_DataProfile given = profile(3, 1, (one + "a" + one + one + "=." + one).c_str(), 2, one.c_str(),
                                                 (std::string(60, 'p') + one).c_str());
        Tavrik_DataProfile got = {};
        if (byte < ' ' && !strchr("\t\n\r", byte)) {
            EXPECT_EQ(Tavrik_DataCall_SetProfile(&given), -1);
            EXPECT_EQ(read_file(kFile), before);
            continue;
        }
        EXPECT_EQ(Tavrik_DataCall_SetProfile(&given), 0);
        EXPECT_EQ(Tavrik_DataCall_GetProfile(3, &got), 0);
        EXPECT_EQ(text(got), text(given));
        EXPECT_EQ(shell("uci get data_profile.3.apn").output, std::string(given.apn) + "\n");
    }
}

TEST_F(Profile, TakesTextsThatFillTheirFields) {
    Tavrik_DataProfile full, got = {};
    memset(&full, 'x', sizeof full);
    full.profile_idx = full.pdp_type = full.auth_type = 2;
    set(&full, 0);
    EXPECT_EQ(Tavrik_DataCall_GetProfile(2, &got), 0);
    const std::string x(63, 'x');
    EXPECT_EQ(text(got), "2: 2 " + x + " 2 " + x + " " + x);
    full = profile(2, 2, x.c_str(), 2, x.c_str(), std::string(63, '\'').c_str());
    set(&full, 0);
    EXPECT_EQ(Tavrik_DataCall_GetProfile(2, &got), 0);
    EXPECT_EQ(text(got), text(full));
}

// A commit brings into force what others have staged, as each commit of the package does; a failed one leaves it.
TEST_F(Profile, StandsBesideWhatOthersStage) {
    put(section("5", kOptions));
    ASSERT_EQ(shell("uci set data_profile.5.apn=staged && uci changes").output, "data_profile.5.apn='staged'\n");
    const Tavrik_DataProfile refused = profile(0, 0, "", 0, "", "");
    put("\nconfig profile_idx 'alpha'\n" + section("5", kOptions));
    shell("uci set data_profile.5.apn=staged");
    EXPECT_EQ(Tavrik_DataCall_SetProfile(&refused), -1);
    EXPECT_EQ(shell("uci changes").output, "data_profile.5.apn='staged'\n");
    set(&kProfile, 0);
    EXPECT_EQ(shell("uci changes; uci get data_profile.5.apn").output, "staged\n");
}

TEST_F(Profile, IsAsBeforeWhenNothingCanBeWritten) {
    const std::string before = section("3", kOptions);
    for (const char *place : {"etc", "tmp"})
        for (const auto &[effect, why] :
             {std::pair("full", "No space left on device\n"), std::pair("read_only", "Read-only file system\n")})
            for (const unsigned index : {3u, 4u}) {
                SCOPED_TRACE(std::string(place) + " " + effect + " " + std::to_string(index));
                put(before);
                const Tavrik_DataProfile given = profile(index, 1, "other", 2, "you", "unknown");
                Tavrik_DataProfile got = {};
                sim::fault(place, "*", {{effect, true}});
                std::string log;
                if (place == std::string("etc")) {
                    log = set(&given, -1);
                    log.erase(0, log.find(kNotCommitted));
                    EXPECT_EQ(log, kNotCommitted + std::string(why));
                } else { // nor could a test's copy of the log be kept
                    EXPECT_EQ(Tavrik_DataCall_SetProfile(&given), -1);
                }
                EXPECT_EQ(read_file(kFile), before);
                EXPECT_EQ(Tavrik_DataCall_GetProfile(3, &got), 0);
                EXPECT_EQ(text(got), text(kProfile));
                sim::call("clear");
                set(&given, 0);
                EXPECT_EQ(Tavrik_DataCall_GetProfile(int(index), &got), 0);
                EXPECT_EQ(text(got), text(given));
            }
}

// Held by a program that writes the package, and by another process with this library.
TEST_F(Profile, WaitsFiveSecondsForTheLock) {
    using Clock = std::chrono::steady_clock;
    put(section("3", kOptions));
    for (const bool by_program : {true, false}) {
        const int folder = open("/etc/config", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (by_program)
            sim::fault("etc", "*", {{"lock", "data_profile"}});
        else
            ASSERT_EQ(flock(folder, LOCK_EX), 0);
        const auto start = Clock::now();
        const std::string log = log_of([&] {
            std::vector<std::thread> threads;
            for (int i = 0; i < 3; i++)
                threads.emplace_back([&, i] {
                    Tavrik_DataProfile got = kProfile;
                    EXPECT_EQ(i ? Tavrik_DataCall_SetProfile(&kProfile) : Tavrik_DataCall_GetProfile(3, &got), -1);
                    const auto took = Clock::now() - start;
                    EXPECT_GE(took, std::chrono::milliseconds(4995));
                    EXPECT_LT(took, std::chrono::seconds(30));
                });
            for (std::thread &thread : threads)
                thread.join();
        });
        const char *const why =
            by_program ? "uci: /etc/config/data_profile is locked\n" : "uci: another user does not come to an end\n";
        EXPECT_NE(log.find(why), std::string::npos) << log;
        close(folder);
        sim::call("clear");
        set(&kProfile, 0);
    }
}

TEST_F(Profile, IsSetByManyThreads) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_SYSLOG);
    std::vector<std::thread> threads;
    for (unsigned index = 0; index < 8; index++)
        threads.emplace_back([index] {
            for (int round = 0; round < 25; round++) {
                const std::string apn = std::to_string(round);
                const Tavrik_DataProfile given = profile(index + 1, 1, apn.c_str(), 2, "u", "p");
                Tavrik_DataProfile got = {};
                EXPECT_EQ(Tavrik_DataCall_SetProfile(&given), 0);
                EXPECT_EQ(Tavrik_DataCall_GetProfile(int(index) + 1, &got), 0);
                EXPECT_EQ(text(got), text(given));
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(shell("uci show data_profile | grep -c apn=.24").output, "8\n");
}

TEST_F(Profile, ElementsAreSetInMemory) {
    put(section("3", kOptions));
    const auto element = [](uci_context *context, const char *name, const char *option, const char *value) {
        return set_uci_element(context, "data_profile", name, option, value);
    };
    uci_context *const context = uci_alloc_context();
    uci_package *package = nullptr;
    ASSERT_EQ(uci_load(context, "data_profile", &package), 0);
    EXPECT_EQ(element(context, "3", "apn", "new"), 0);
    EXPECT_EQ(element(context, "3", "password", ""), 0);
    EXPECT_EQ(element(context, "4", nullptr, "other"), 0);
    EXPECT_EQ(element(context, "9", "apn", "no section"), UCI_ERR_INVAL);
    EXPECT_EQ(set_uci_element(context, "missing", "3", "apn", "new"), UCI_ERR_NOTFOUND);
    const std::string log = log_of([&] {
        EXPECT_EQ(element(nullptr, "3", "apn", "new"), -1);
        EXPECT_EQ(set_uci_element(context, nullptr, "3", "apn", "new"), -1);
        EXPECT_EQ(element(context, nullptr, "apn", "new"), -1);
        EXPECT_EQ(element(context, "3", "apn", nullptr), -1);
    });
    const std::string line = "set_uci_element: Parameter input error\n";
    EXPECT_EQ(log, line + line + line + line);
    EXPECT_EQ(read_file(kFile), section("3", kOptions));
    EXPECT_EQ(uci_commit(context, &package, false), 0);
    uci_free_context(context);
    EXPECT_EQ(shell("uci show data_profile.3.apn; uci -q get data_profile.3.password; uci show data_profile.4").output,
              "data_profile.3.apn='new'\ndata_profile.4=other\n");

    uci_context *const own[] = {uci_alloc_context(),
                                uci_alloc_context()}; // in which libuci allows one thread at a time
    std::vector<std::thread> threads;
    for (uci_context *const one : own)
        threads.emplace_back([&element, one] {
            for (int round = 0; round < 500; round++)
                EXPECT_EQ(element(one, "3", "apn", std::to_string(round).c_str()), 0);
        });
    for (std::thread &thread : threads)
        thread.join();
    for (uci_context *const one : own)
        uci_free_context(one);
}

std::string contexts() {
    memset(g_idx_cid, 0, sizeof g_idx_cid);
    g_idx_cid[2].cid = 77; // stays
    Tavrik_profile_idx_cid_Init();
    std::string rows;
    for (int i = 0; i < TAVRIK_IDX_CID_COUNT; i++)
        if (g_idx_cid[i].cid)
            rows += std::to_string(i) + ":" + std::to_string(g_idx_cid[i].cid) + " ";
    return rows;
}

TEST_F(Profile, FindsTheContextsOfTheModem) {
    const std::string none = "debug Tavrik_profile_idx_cid_Init: no pdp alive\n",
                      failed = sim::refused + "warn Tavrik_profile_idx_cid_Init: Failed to define pdp AT+CGCONTRDP=?\n",
                      error = "Tavrik_profile_idx_cid_Init: error response\n";
    const auto line = [](const char *text) { return "\r\n+CGCONTRDP:" + std::string(text) + "\r\n\r\nOK\r\n"; };
    const struct {
        const char *what;
        std::string answer, wanted, log;
    } rows[] = {
        {"none", "\r\nOK\r\n", "2:77 ", none},
        {"error", "\r\nERROR\r\n", "2:77 ", failed + none},
        {"list and error", "\r\n+CGCONTRDP: (4)\r\nERROR\r\n", "2:77 3:4 ", failed},
        {"empty", line(" ()"), "2:77 ", ""},
        {"two", line(" (1,5)"), "0:1 2:77 4:5 ", ""},
        {"range", line(" (1-5)"), "0:1 2:77 ", ""},
        {"all", line(" (1,2,3,4,5,6,7,8,9,10,11,12,13,14,15)"),
         "0:1 1:2 2:3 3:4 4:5 5:6 6:7 7:8 8:9 9:10 10:11 11:12 12:13 13:14 14:15 ", ""},
        {"fifteen are read", line(" (5,5,5,5,5,5,5,5,5,5,5,5,5,5,6,7)"), "2:77 4:5 5:6 ", ""},
        {"outside", line(" (0,16,2,-1,99)"), "1:2 2:77 ", ""},
        {"large", line(" (4294967295,4294967297,18446744073709551617,2)"), "1:2 2:77 ", ""},
        {"third of its own", line(" (3)"), "2:3 ", ""},
        {"no text ends", line(" (1,x,5)"), "0:1 2:77 ", ""},
        {"spaces", line("  ( 1 , 5 ,, 7)"), "0:1 2:77 4:5 6:7 ", ""},
        {"not opened", line(" 1,5)"), "2:77 ", error},
        {"not closed", line(" (1,5"), "2:77 ", error},
        {"closed before", line(" )1,5"), "2:77 ", error},
        {"echo", "AT+CGCONTRDP=?\r" + line(" (1)"), "0:1 2:77 ", ""},
        {"longer than its copy", line((" (1," + std::string(130, ' ') + "5)").c_str()), "0:1 2:77 ", ""},
        {"longer than the buffer", line((" (1," + std::string(300, '0') + "5)").c_str()), "2:77 ",
         "Tavrik_AT_Send: The received data length is insufficient\n"
         "warn Tavrik_profile_idx_cid_Init: Failed to define pdp AT+CGCONTRDP=?\n" +
             none},
    };
    for (const auto &row : rows)
        check({{row.what,
                {{"fault", {{"match", "AT+CGCONTRDP=?"}, {"raw", row.answer}}}},
                contexts,
                {"AT+CGCONTRDP=?"},
                row.wanted,
                row.log}});
}

TEST_F(Profile, NumbersPdpTypes) {
    const std::pair<const char *, int> known[] = {{"IP", 4}, {"ip", 4}, {"IPV6", 6}, {"ipv4v6", 10}, {"Ipv4V6", 10}};
    for (const auto &row : known)
        EXPECT_EQ(log_of([&] { EXPECT_EQ(data_convert_ip_proto(row.first), row.second) << row.first; }), "");
    for (const char *type : {"", "IPV4", "IP ", "PPP"})
        EXPECT_EQ(log_of([&] { EXPECT_EQ(data_convert_ip_proto(type), 0); }),
                  std::string("data_convert_ip_proto: unexcept IP TYPE[") + type + "]\n");
    EXPECT_EQ(log_of([] { EXPECT_EQ(data_convert_ip_proto(nullptr), 0); }), "");
}

} // namespace
