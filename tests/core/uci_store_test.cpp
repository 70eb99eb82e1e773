// The owner of a uci package, as profiles are stored with it: killed at each step, with each step failing, and several
// at once.
#include "support/shell.h"
#include "support/sim.h"

#include <sys/stat.h>

namespace {

constexpr char kFile[] = "/etc/config/data_profile", kStaged[] = "/tmp/.uci/data_profile";

std::string section(const std::string &name, const std::string &options) {
    return "\nconfig profile_idx '" + name + "'\n" + options;
}
const std::string kType = "\toption pdp_type '1'\n", kOld = "\toption apn 'old'\n", kNew = "\toption apn 'new'\n",
                  kRest = "\toption auth_type '0'\n\toption usr_name 'u'\n\toption password 'p'\n",
                  kFirst = section("3", kType + kOld + kRest), kBefore = kFirst + "\n";
const struct Store {
    std::string index, after, between;                                    // what else may be seen while it is under way
} kStores[] = {{"3", section("3", kType + kRest + kNew) + "\n", kBefore}, // an option that is set anew goes behind
               {"4", kFirst + section("4", kType + kNew + kRest) + "\n", kFirst + section("4", "") + "\n"}};

class UciStore : public testing::Test {
  protected:
    UciStore() {
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_SYSLOG); // to nobody
        fresh();
    }
    ~UciStore() override { sim::call("reset"); }
    static void fresh() {
        shell("rm -f /etc/config/.data_profile.* /tmp/.uci/*");
        write_file(kFile, kBefore);
        chmod(kFile, 0600);
    }
    // What the library and uci read: the file with what is staged. It always loads.
    static std::string seen() {
        const Ran uci = shell("uci export data_profile");
        EXPECT_EQ(uci.code, 0);
        return uci.output.substr(std::min(uci.output.size(), strlen("package data_profile\n")));
    }
    static int write(const Store &store, const std::string &with = "") {
        return shell(with + WRITER " " + store.index + " new 2>&1").code;
    }
    static std::string traced(const std::string &options) {
        return "ASAN_OPTIONS=detect_leaks=0 " STRACE " -f -q -o /tmp/trace -e trace=" + options + " ";
    }
    // Injects a fault into the n-th of such calls of the writer, n = 1, 2, ... (loading it takes the first ones) until
    // it is through. `check` gets what it ended with; the next one finds nothing in its way.
    template <class Check>
    static void at_each(const std::string &calls, const std::string &fault, const char *onwards, Check check) {
        for (const Store &store : kStores) {
            const int first = 1 + std::stoi(shell(traced(calls) + WRITER "; grep -c '(' /tmp/trace").output);
            std::string log = "INJECTED";
            int n = first;
            for (; log.find("INJECTED") != std::string::npos || log.find("killed by") != std::string::npos; ++n) {
                const std::string when = calls + ":" + fault + ":when=" + std::to_string(n) + onwards;
                SCOPED_TRACE(store.index + " " + when);
                ASSERT_LT(n, 200);
                fresh();
                const int code = write(store, traced(calls + " -e inject=" + when));
                log = read_file("/tmp/trace");
                check(store, code);
                EXPECT_EQ(write(store), 0);
                EXPECT_EQ(read_file(kFile), store.after);
                EXPECT_NE(access(kStaged, F_OK), 0);
            }
            EXPECT_GT(n, first + 1);
        }
    }
};

class Traced : public UciStore {
    void SetUp() override {
        if (!*STRACE)
            GTEST_SKIP() << "strace is missing (scripts/setup test), or would count calls of a sanitizer's thread";
    }
};

TEST_F(Traced, SurvivesTheEndOfItsProcess) {
    for (const char *calls : {"?open,openat", "write", "ftruncate", "fsync", "?rename,?renameat,renameat2", "linkat",
                              "?unlink,unlinkat", "?chmod,?fchmodat,fchmod", "fallocate", "flock"})
        at_each(calls, "signal=KILL", "", [odd = false](const Store &store, int) mutable {
            for (const std::string &text : {seen(), read_file(kFile)})
                EXPECT_TRUE(text == kBefore || text == store.between || text == store.after) << text;
            struct stat st;
            EXPECT_TRUE(!stat(kFile, &st) && (st.st_mode & 0777) == 0600);
            EXPECT_TRUE(stat(kStaged, &st) || (st.st_mode & 0777) == 0600);
            if ((odd = !odd))
                return;
            EXPECT_EQ(Tavrik_DataCall_Init(nullptr), 0);
            EXPECT_EQ(Tavrik_DataCall_Destroy(), 0);
            EXPECT_EQ(shell("ls -A /etc/config").output, "data_profile\ndhcp\nnetwork\nwireless\n");
            EXPECT_TRUE(access(kStaged, F_OK) || !read_file(kStaged).empty());
        });
}

TEST_F(Traced, SurvivesWhatFails) {
    for (const std::string fault : {"?open,openat EMFILE", "write ENOSPC", "write EIO", "ftruncate EIO", "fsync EIO",
                                    "?rename,?renameat,renameat2 EIO", "linkat EIO", "?chmod,?fchmodat,fchmod EPERM",
                                    "fallocate ENOSPC", "fallocate EOPNOTSUPP"})
        for (const char *onwards : {"", "+"})
            at_each(fault.substr(0, fault.find(' ')), "error=" + fault.substr(fault.find(' ') + 1), onwards,
                    [](const Store &store, int code) {
                        const std::string file = read_file(kFile);
                        EXPECT_EQ(file, seen());
                        EXPECT_TRUE(code == 0   ? file == store.after
                                    : code == 1 ? file == kBefore || file == store.between
                                                : false)
                            << code << file;
                    });
}

TEST_F(Traced, RefusesWhatCannotBeRead) {
    EXPECT_EQ(write(kStores[0], traced(std::string("read -e inject=read:error=EIO -P ") + kFile)), 1);
    EXPECT_EQ(read_file(kFile), kBefore);
}

TEST_F(UciStore, LosesNothingToOthers) {
    const Ran ran = shell("for i in 1 2 3 4; do " WRITER " $i 500 & all=\"$all $!\"; done\n"
                          "for one in $all; do wait $one || exit $?; done");
    EXPECT_EQ(ran.code, 0) << ran.output;
    EXPECT_EQ(shell("uci show data_profile | grep -c \"apn='500'\"").output, "4\n") << ran.output;
}

// The program gives its lock back before its file is in place: whoever writes meanwhile may be undone. What is sure is
// that the package loads, with all sections, and that the writers come to an end.
TEST_F(UciStore, StandsBesideUci) {
    write_file(kFile, section("1", "") + section("2", "") + section("3", ""));
    const Ran ran = shell("(i=0; while [ $i -lt 200 ]; do i=$((i+1)); uci set data_profile.3.apn=$i &&"
                          " uci commit data_profile; done) & uci=$!\n" WRITER " 1 200 & " WRITER " 2 200; wait $uci");
    EXPECT_EQ(ran.code, 0) << ran.output;
    EXPECT_EQ(shell("uci show data_profile | grep -c =profile_idx").output, "3\n");
}

} // namespace
