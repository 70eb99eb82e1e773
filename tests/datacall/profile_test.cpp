// Profiles in the uci package data_profile, compared with files and with what the uci program reads.
#include "data.h"

#include <chrono>
#include <climits>
#include <fcntl.h>
#include <future>
#include <sys/file.h>
#include <sys/stat.h>

extern "C" {
#include <uci.h>
}

namespace {

constexpr char kFile[] = "/etc/config/data_profile";
const std::string kNotCommitted = "Tavrik_DataCall_SetProfile: uci: /etc/config/data_profile not committed: ";
const std::string kOptions = " pdp_type=3 apn=internet auth_type=1 usr_name=me password=secret";
const std::string kThird = profile("3" + kOptions);
const Tavrik_DataProfile kProfile = {3, 3, "internet", 1, "me", "secret"};

std::string text(const Tavrik_DataProfile &p) {
    return std::to_string(p.profile_idx) + ": " + std::to_string(p.pdp_type) + " " + p.apn + " " +
           std::to_string(p.auth_type) + " " + p.usr_name + " " + p.password;
}

// Sets it, which leaves nothing else behind.
std::string set(const Tavrik_DataProfile *profile) {
    const std::string all = did(Tavrik_DataCall_SetProfile, profile);
    EXPECT_EQ(shell("ls -A /etc/config /tmp/.uci 2>&1 | grep -c data_profile").output, "1\n");
    return all;
}

void is_kept(const Tavrik_DataProfile &given) {
    Tavrik_DataProfile got = {};
    EXPECT_EQ(Tavrik_DataCall_GetProfile(given.profile_idx, &got), 0);
    EXPECT_EQ(text(got), text(given));
}

class Profile : public DataTest {
  protected:
    Profile() { put("data_profile", ""); }
};

TEST_F(Profile, IsWrittenAsUciHasIt) {
    const std::string made = "0 debug Tavrik_DataCall_SetProfile: LINE, set_value:",
                      error = "-1 Tavrik_DataCall_SetProfile: error parameter\n",
                      refused = "-1 " + kNotCommitted + "a change was refused\n",
                      others = section("interface lan dns+=1.1.1.1 dns+=1.0.0.1") + profile("2 apn=a"),
                      alpha = profile("alpha"), zero = profile("03") + profile("0"),
                      by_hand = "config profile_idx 3\n option apn internet # home\n option pdp_type 3\n"
                                " option auth_type 1\n option usr_name me\n option password secret",
                      damaged = "config profile_idx '3'\n\toption apn 'x";
    const std::tuple<std::string, Tavrik_DataProfile, std::string, std::string> rows[] = {
        {others, kProfile, others + kThird, made + "3\n"},
        {profile("3 apn=a own=kept") + others, kProfile, profile("3 own=kept" + kOptions) + others, "0 "},
        {by_hand, kProfile, by_hand, "0 "},
        {"", {15, 0, "", 0, "", "c"}, profile("15 pdp_type=0 auth_type=0 password=c"), made + "15\n"},
        {kThird, {3, 2, "", 0, "", ""}, profile("3 pdp_type=2 auth_type=0"), "0 "},
        {section("other 3 apn+=a apn+=b"), kProfile, section("other 3" + kOptions), "0 "},
        // 0 is any name without a number, and 3 is the same number in other words; neither is the one that is set.
        {alpha, {0, 0, "a", 0, "b", "c"}, alpha, refused},
        {zero, kProfile, zero, refused},
        {alpha + zero, {0, 3, "internet", 1, "me", "secret"}, alpha + profile("03") + profile("0" + kOptions), "0 "},
        {damaged, kProfile, damaged, "-1 Tavrik_DataCall_SetProfile: uci_load failed.\n"},
        {kThird, {16, 0, "a", 0, "", ""}, kThird, error},
        {kThird, {3, 4, "a", 0, "", ""}, kThird, error},
        {kThird, {3, UINT_MAX, "a", 0, "", ""}, kThird, error},
        {kThird, {3, 0, "a", 4, "", ""}, kThird, error},
        {kThird, {3, 0, "a", 0, "", "\x01"}, kThird, error},
    };
    for (const auto &[before, given, after, outcome] : rows) {
        SCOPED_TRACE(before + text(given));
        put("data_profile", before);
        chmod(kFile, 0600);
        EXPECT_EQ(set(&given), outcome);
        EXPECT_EQ(read_file(kFile), after + (after == before ? "" : "\n"));
        EXPECT_EQ(shell("stat -c '%a %h' /etc/config/data_profile").output, "600 1\n");
    }
    EXPECT_EQ(set(nullptr), error);
}

TEST_F(Profile, NeedsFileAndLock) {
    const auto all = [](bool no_descriptors) {
        const NoDescriptors none(no_descriptors);
        Tavrik_DataProfile got;
        return -Tavrik_DataCall_SetProfile(&kProfile) - Tavrik_DataCall_GetProfile(3, &got) -
               Tavrik_DataCall_DeleteProfile(3);
    };
    sim::call("uci", {{"package", "data_profile"}});
    std::string no_lock = "3 ", no_file = "3 ";
    for (const std::string name :
         {"Tavrik_DataCall_SetProfile", "Tavrik_DataCall_GetProfile", "Tavrik_DataCall_DeleteProfile"}) {
        no_lock += name + ": uci: Too many open files\n" + name + ": uci_alloc_context faild\n";
        no_file += name + ": uci_load failed.\n";
    }
    EXPECT_EQ(did(all, true), no_lock);
    EXPECT_EQ(did(all, false), no_file);
    EXPECT_NE(access(kFile, F_OK), 0);
}

TEST_F(Profile, IsDeleted) {
    const std::string left = profile("alpha") + profile("4" + kOptions);
    put("data_profile", kThird + left);
    for (const int index : {3, 3, 0, 16, -1}) // none is no failure
        EXPECT_EQ(did(Tavrik_DataCall_DeleteProfile, index), "0 ");
    sim::fault("etc", "*", {{"read_only", true}});
    EXPECT_EQ(Tavrik_DataCall_DeleteProfile(4), -1);
    EXPECT_EQ(read_file(kFile), left + "\n");
}

TEST_F(Profile, IsRead) {
    const std::string name = "0 debug Tavrik_DataCall_GetProfile: ", found = name + "section name:3\n",
                      missing = "warn Tavrik_DataCall_GetProfile: lookup option faild\n", a63(63, 'a'),
                      none = "0 Tavrik_DataCall_GetProfile: LINE, no such profile_idx\n", third = "3";
    const std::tuple<std::string, int, std::string, std::string> rows[] = {
        {kThird, 3, "3: 3 internet 1 me secret", found},
        {profile("03" + kOptions), 3, "3: 0  0  ", none},
        {kThird, 259, "3: 0  0  ", none},
        {kThird, -1, "255: 0  0  ", none},
        {profile(third), 3, "3: 9 old 9 old old", found + missing + missing + missing + missing + missing},
        {profile(third + " pdp_type=2 auth_type=1 usr_name=u password=p"), 3, "3: 2 old 1 u p", found + missing},
        {profile(third + kOptions + " apn+=a"), 3, "3: 3 old 1 me secret", found + missing}, // a list
        {profile(third + " apn=" + a63 + "aaa pdp_type=x auth_type=-1 usr_name=u password=p"), 3,
         "3: 0 " + a63 + " 4294967295 u p", found},
    };
    for (const auto &[file, index, wanted, outcome] : rows) {
        SCOPED_TRACE(file);
        put("data_profile", file);
        Tavrik_DataProfile got = {9, 9, "old", 9, "old", "old"};
        EXPECT_EQ(did(Tavrik_DataCall_GetProfile, index, &got), outcome);
        EXPECT_EQ(text(got), wanted);
    }
    EXPECT_EQ(did(Tavrik_DataCall_GetProfile, 3, nullptr), "-1 Tavrik_DataCall_GetProfile: error parameter\n");
}

TEST_F(Profile, KeepsEachByte) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_SYSLOG); // to nobody
    for (int byte = 1; byte < 256; byte++) {
        SCOPED_TRACE(byte);
        const std::string before = read_file(kFile);
        const char one = char(byte);
        const Tavrik_DataProfile given = {3, 1, {one, 'a', one, one, '=', '.', one}, 2, {one}, {'p', one}};
        if (byte < ' ' && !strchr("\t\n\r", byte)) {
            EXPECT_EQ(Tavrik_DataCall_SetProfile(&given), -1);
            EXPECT_EQ(read_file(kFile), before);
            continue;
        }
        EXPECT_EQ(Tavrik_DataCall_SetProfile(&given), 0);
        is_kept(given);
        EXPECT_EQ(shell("uci get data_profile.3.apn").output, std::string(given.apn) + "\n");
    }
    // Texts that fill their fields, without an end; uci writes a quote with four bytes.
    for (const char one : {'x', '\''}) {
        Tavrik_DataProfile full;
        memset(&full, one, sizeof full);
        full.profile_idx = full.pdp_type = full.auth_type = 2;
        set(&full);
        full.apn[63] = full.usr_name[63] = full.password[63] = 0;
        is_kept(full);
    }
}

// A commit brings into force what others have staged, as each commit of the package does; a failed one leaves it.
TEST_F(Profile, StandsBesideWhatOthersStage) {
    put("data_profile", profile("alpha") + profile("5" + kOptions));
    shell("uci set data_profile.5.apn=staged");
    const Tavrik_DataProfile refused = {};
    EXPECT_EQ(Tavrik_DataCall_SetProfile(&refused), -1);
    EXPECT_EQ(shell("uci changes").output, "data_profile.5.apn='staged'\n");
    set(&kProfile);
    EXPECT_EQ(shell("uci changes; uci get data_profile.5.apn").output, "staged\n");
}

TEST_F(Profile, IsAsBeforeWhenNothingCanBeWritten) {
    for (const char *place : {"etc", "tmp"})
        for (const char *effect : {"full", "read_only"})
            for (const uint8_t index : {3, 4}) {
                SCOPED_TRACE(std::string(place) + " " + effect + " " + std::to_string(index));
                put("data_profile", kThird);
                const Tavrik_DataProfile given = {index, 1, "other", 2, "you", "unknown"};
                sim::fault(place, "*", {{effect, true}});
                EXPECT_EQ(Tavrik_DataCall_SetProfile(&given), -1);
                EXPECT_EQ(read_file(kFile), kThird);
                is_kept(kProfile);
                sim::call("clear");
                set(&given);
                is_kept(given);
            }
}

// Held by a program that writes the package, and by another process with this library.
TEST_F(Profile, WaitsFiveSecondsForTheLock) {
    put("data_profile", kThird);
    const auto wait = [](bool set) {
        const auto start = std::chrono::steady_clock::now();
        Tavrik_DataProfile got = kProfile;
        EXPECT_EQ(set ? Tavrik_DataCall_SetProfile(&kProfile) : Tavrik_DataCall_GetProfile(3, &got), -1);
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_TRUE(took >= std::chrono::milliseconds(4995) && took < std::chrono::seconds(30));
    };
    for (const char *why :
         {"uci: /etc/config/data_profile is locked\n", "uci: another user does not come to an end\n"}) {
        const int folder = open("/etc/config", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (strstr(why, "locked"))
            sim::fault("etc", "*", {{"lock", "data_profile"}});
        else
            ASSERT_EQ(flock(folder, LOCK_EX), 0);
        const std::string log = sim::log_of([&] {
            const auto first = std::async(std::launch::async, wait, true),
                       second = std::async(std::launch::async, wait, true);
            wait(false);
        });
        EXPECT_NE(log.find(why), std::string::npos) << log;
        close(folder);
        sim::call("clear");
        EXPECT_EQ(set(&kProfile), "0 ");
    }
}

// Beside applications that set elements in contexts of their own: libuci allows one thread at a time.
TEST_F(Profile, IsSetByManyThreads) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_SYSLOG);
    uci_context *contexts[8];
    for (uci_context *&own : contexts)
        own = uci_alloc_context();
    std::vector<std::future<void>> threads;
    for (uint8_t index = 0; index < 8; index++)
        threads.push_back(std::async(std::launch::async, [index, own = contexts[index]] {
            for (char round = 'a'; round < 'z'; round++) {
                const Tavrik_DataProfile given = {index, 1, {round}, 2, "u", "p"};
                EXPECT_EQ(Tavrik_DataCall_SetProfile(&given), 0);
                is_kept(given);
                for (int i = 0; i < 40; i++)
                    EXPECT_EQ(set_uci_element(own, "network", "lan", "proto", given.apn), 0);
            }
        }));
    threads.clear(); // which waits for them
    for (uci_context *const own : contexts)
        uci_free_context(own);
    EXPECT_EQ(shell("uci show data_profile | grep -c apn=.y").output, "8\n");
}

TEST_F(Profile, ElementsAreSetInMemory) {
    put("data_profile", kThird);
    uci_context *const own = uci_alloc_context();
    uci_package *package = nullptr;
    ASSERT_EQ(uci_load(own, "data_profile", &package), 0);
    EXPECT_EQ(set_uci_element(own, "data_profile", "3", "apn", "new"), 0);
    EXPECT_EQ(set_uci_element(own, "data_profile", "3", "password", ""), 0);
    EXPECT_EQ(set_uci_element(own, "data_profile", "4", nullptr, "other"), 0);
    EXPECT_EQ(set_uci_element(own, "data_profile", "9", "apn", "no section"), UCI_ERR_INVAL);
    const std::string error = "-1 set_uci_element: Parameter input error\n";
    EXPECT_EQ(did(set_uci_element, nullptr, "data_profile", "3", "apn", "new"), error);
    EXPECT_EQ(did(set_uci_element, own, nullptr, "3", "apn", "new"), error);
    EXPECT_EQ(did(set_uci_element, own, "data_profile", nullptr, "apn", "new"), error);
    EXPECT_EQ(did(set_uci_element, own, "data_profile", "3", "apn", nullptr), error);
    EXPECT_EQ(read_file(kFile), kThird);
    EXPECT_EQ(uci_commit(own, &package, false), 0);
    uci_free_context(own);
    EXPECT_EQ(read_file(kFile), profile("3 pdp_type=3 auth_type=1 usr_name=me apn=new") + section("other 4") + "\n");
}

TEST_F(Profile, FindsTheContextsOfTheModem) {
    const std::string name = "Tavrik_profile_idx_cid_Init: ", none = "debug " + name + "no pdp alive\n",
                      ok = "\r\n\r\nOK\r\n", failed = "warn " + name + "Failed to define pdp AT+CGCONTRDP=?\n",
                      head = "\r\n+CGCONTRDP: ", error = name + "error response\n", blanks(130, ' '), zeros(300, '0');
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"\r\nOK\r\n", "2:77 ", none},
        {"\r\nERROR\r\n", "2:77 ", sim::refused + failed + none},
        {head + "(4)\r\nERROR\r\n", "2:77 3:4 ", sim::refused + failed},
        {"AT+CGCONTRDP=?\r" + head + "(1,5)" + ok, "0:1 2:77 4:5 ", ""},
        {head + "(1-5)" + ok, "0:1 2:77 ", ""}, // a range counts as its first
        {head + "()" + ok, "2:77 ", ""},
        {head + "(5,5,5,5,5,5,5,5,5,5,5,5,5,15,3,7)" + ok, "2:3 4:5 14:15 ", ""}, // fifteen are read
        {head + "(0,16,4294967297,18446744073709551617,-1,2)" + ok, "1:2 2:77 ", ""},
        {head + " ( 1 , 5 ,, 7,x,8)" + ok, "0:1 2:77 4:5 6:7 ", ""},
        {head + "1,5)" + ok, "2:77 ", error},
        {head + ")(1,5" + ok, "2:77 ", error},
        {head + "(1," + blanks + "5)" + ok, "0:1 2:77 ", ""}, // longer than its copy
        {head + "(1," + zeros + "5)" + ok, "2:77 ",
         "Tavrik_AT_Send: The received data length is insufficient\n" + failed + none},
    };
    for (const auto &[answer, wanted, log] : rows) {
        SCOPED_TRACE(answer);
        sim::fault("at", "AT+CGCONTRDP=?", {{"raw", answer}});
        memset(g_idx_cid, 0, sizeof g_idx_cid);
        g_idx_cid[2].cid = 77; // stays unless it is told
        EXPECT_EQ(did(Tavrik_profile_idx_cid_Init), log);
        EXPECT_EQ(contexts(), wanted);
        EXPECT_EQ(sim::sent(), Texts{"AT+CGCONTRDP=?"});
        sim::call("clear");
    }
}

TEST_F(Profile, NumbersPdpTypes) {
    EXPECT_EQ(did(data_convert_ip_proto, nullptr), "0 ");
    EXPECT_EQ(did(data_convert_ip_proto, "ip"), "4 ");
    EXPECT_EQ(did(data_convert_ip_proto, "IPV6"), "6 ");
    EXPECT_EQ(did(data_convert_ip_proto, "Ipv4V6"), "10 ");
    EXPECT_EQ(did(data_convert_ip_proto, "IPV4"), "0 data_convert_ip_proto: unexcept IP TYPE[IPV4]\n");
    EXPECT_EQ(did(data_convert_ip_proto, ""), "0 data_convert_ip_proto: unexcept IP TYPE[]\n");
}

} // namespace
