// The owner of a uci package, as profiles are stored with it: killed at each step, with each step failing, and several
// at once.
#include "support/shell.h"
#include "support/sim.h"

#include <sys/stat.h>

namespace {

constexpr char kFile[] = "/etc/config/data_profile";

std::string section(const char *name, const char *apn) {
    return "\nconfig profile_idx '" + std::string(name) + "'\n" +
           (*apn ? "\toption pdp_type '1'\n\toption apn '" + std::string(apn) +
                       "'\n\toption auth_type '0'\n\toption usr_name 'u'\n\toption password 'p'\n"
                 : "");
}

// Options that were set anew stand behind the others.
std::string updated(const char *name, const char *apn) {
    return "\nconfig profile_idx '" + std::string(name) + "'\n\toption pdp_type '1'\n\toption auth_type '0'\n" +
           "\toption usr_name 'u'\n\toption password 'p'\n\toption apn '" + apn + "'\n";
}

const std::string kBefore = section("3", "old") + "\n";
const struct Store {
    const char *what, *index;
    std::string after, between; // what else may be seen while it is under way
} kStores[] = {{"update", "3", updated("3", "new") + "\n", ""},
               {"new index", "4", section("3", "old") + section("4", "new") + "\n",
                section("3", "old") + section("4", "") + "\n"}};

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
        const std::string package = "package data_profile\n";
        EXPECT_EQ(uci.output.substr(0, package.size()), package);
        return uci.output.substr(package.size());
    }
    static int write(const Store &store, const std::string &with = "") {
        return shell(with + WRITER " " + store.index + " new 2>&1").code;
    }
    static std::string traced(const std::string &options) {
        return "ASAN_OPTIONS=detect_leaks=0 " STRACE " -f -q -o /tmp/trace -e trace=" + options + " ";
    }
    // One run of the writer under the tracer; false when nothing was injected any more.
    static bool trace(const Store &store, const std::string &calls, const std::string &what, int &code) {
        code = write(store, traced(calls + " -e inject=" + calls + ":" + what));
        const std::string log = read_file("/tmp/trace");
        return log.find("INJECTED") != std::string::npos || log.find("killed by") != std::string::npos;
    }
    // The first of such calls that is not the loader's.
    static int first(const std::string &calls) {
        return 1 + std::stoi(shell(traced(calls) + WRITER "; grep -c '(' /tmp/trace").output);
    }
    static void is_one_of(const std::string &text, const Store &store) {
        EXPECT_TRUE(text == kBefore || text == store.after || (!store.between.empty() && text == store.between))
            << text;
    }
};

// A program that the thread sanitizer watches has a thread more, and the tracer counts the calls of each by itself.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define NO_TRACER
#endif
#endif

#ifndef NO_TRACER
constexpr char kStaged[] = "/tmp/.uci/data_profile";

TEST_F(UciStore, SurvivesTheEndOfItsProcess) {
    if (!*STRACE)
        GTEST_SKIP() << "strace is missing (scripts/setup test)";
    for (const Store &store : kStores)
        for (const char *calls : {"?open,openat", "write", "ftruncate", "fsync", "?rename,?renameat,renameat2",
                                  "linkat", "?unlink,unlinkat", "?chmod,?fchmodat,fchmod", "fallocate", "flock"}) {
            const int from = first(calls);
            int n = from;
            for (int code;; n++) {
                SCOPED_TRACE(std::string(store.what) + ", " + calls + " " + std::to_string(n));
                fresh();
                if (!trace(store, calls, "signal=KILL:when=" + std::to_string(n), code))
                    break;
                ASSERT_LT(n, 200);
                is_one_of(seen(), store);
                is_one_of(read_file(kFile), store);
                struct stat st;
                EXPECT_TRUE(!stat(kFile, &st) && (st.st_mode & 0777) == 0600);
                EXPECT_TRUE(stat(kStaged, &st) || (st.st_mode & 0777) == 0600);
                if (n % 2) {
                    EXPECT_EQ(Tavrik_DataCall_Init(nullptr), 0);
                    EXPECT_EQ(Tavrik_DataCall_Destroy(), 0);
                    EXPECT_EQ(shell("ls -A /etc/config").output, "data_profile\ndhcp\nnetwork\nwireless\n");
                    EXPECT_TRUE(access(kStaged, F_OK) || !read_file(kStaged).empty());
                }
                // The next one finds nothing in its way.
                EXPECT_EQ(write(store), 0);
                EXPECT_EQ(read_file(kFile), store.after);
                EXPECT_NE(access(kStaged, F_OK), 0);
            }
            EXPECT_GT(n, from) << calls;
        }
}

TEST_F(UciStore, SurvivesWhatFails) {
    if (!*STRACE)
        GTEST_SKIP() << "strace is missing (scripts/setup test)";
    for (const Store &store : kStores)
        for (const auto &[calls, error] :
             {std::pair("?open,openat", "EMFILE"), std::pair("write", "ENOSPC"), std::pair("write", "EIO"),
              std::pair("ftruncate", "EIO"), std::pair("fsync", "EIO"), std::pair("?rename,?renameat,renameat2", "EIO"),
              std::pair("linkat", "EIO"), std::pair("?chmod,?fchmodat,fchmod", "EPERM"),
              std::pair("fallocate", "ENOSPC"), std::pair("fallocate", "EOPNOTSUPP")})
            for (const char *onwards : {"", "+"}) {
                const int from = first(calls);
                int n = from;
                for (int code;; n++) {
                    SCOPED_TRACE(std::string(store.what) + ", " + calls + " " + error + " " + std::to_string(n) +
                                 onwards);
                    fresh();
                    if (!trace(store, calls, "error=" + std::string(error) + ":when=" + std::to_string(n) + onwards,
                               code))
                        break;
                    ASSERT_LT(n, 200);
                    EXPECT_TRUE(code == 0 || code == 1) << code;
                    if (code == 0) {
                        EXPECT_EQ(seen(), store.after);
                        EXPECT_EQ(read_file(kFile), store.after);
                    } else {
                        EXPECT_TRUE(seen() == kBefore || seen() == store.between) << seen();
                        EXPECT_EQ(read_file(kFile), seen());
                    }
                    EXPECT_EQ(write(store), 0);
                    EXPECT_EQ(read_file(kFile), store.after);
                }
                EXPECT_GT(n, from) << calls;
            }
}

#endif

TEST_F(UciStore, RefusesWhatCannotBeRead) {
    if (!*STRACE)
        GTEST_SKIP() << "strace is missing (scripts/setup test)";
    int code;
    EXPECT_TRUE(trace(kStores[0], "read", std::string("error=EIO -P ") + kFile, code));
    EXPECT_EQ(code, 1);
    EXPECT_EQ(read_file(kFile), kBefore);
}

TEST_F(UciStore, LosesNothingToOthers) {
    const Ran ran = shell("for i in 1 2 3 4; do " WRITER " $i 500 & all=\"$all $!\"; done\n"
                          "for one in $all; do wait $one || exit $?; done");
    EXPECT_EQ(ran.code, 0) << ran.output;
    printf("%s", ran.output.c_str());
    EXPECT_EQ(shell("uci show data_profile | grep -c \"apn='500'\"").output, "4\n");
}

// The program gives its lock back before its file is in place: whoever writes meanwhile may be undone. What is sure is
// that the package loads, with all sections, and that the writers come to an end.
TEST_F(UciStore, StandsBesideUci) {
    write_file(kFile, section("1", "") + section("2", "") + section("3", ""));
    const Ran ran = shell("(i=0; while [ $i -lt 200 ]; do i=$((i+1)); uci set data_profile.3.apn=$i &&"
                          " uci commit data_profile; done) & uci=$!\n" WRITER " 1 200 & " WRITER " 2 200; wait $uci");
    printf("%s", ran.output.c_str());
    EXPECT_EQ(ran.code, 0) << ran.output;
    EXPECT_EQ(shell("uci show data_profile | grep -c =profile_idx").output, "3\n");
}

} // namespace
