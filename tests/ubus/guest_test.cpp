// The library is a guest: signals, children and descriptors of the program are as they would be without it.
#include "ril_call.h"
#include "support/sim.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <random>
#include <spawn.h>
#include <sys/wait.h>

// For the thread sanitizer: while uloop's handler stands, two threads may be in it at once, and it writes a plain int.
extern "C" const char *__tsan_default_suppressions() {
    return "race:uloop_handle_sigint";
}

namespace {

// The suite takes few rounds; TAVRIK_LONG=1 takes as many as it takes to be sure.
const bool kLong = getenv("TAVRIK_LONG");

// Of all that the library or uloop might touch, and the calling thread's mask.
std::string dispositions() {
    std::string all;
    for (const int number : {SIGINT, SIGTERM, SIGQUIT, SIGCHLD, SIGPIPE}) {
        struct sigaction now;
        sigaction(number, nullptr, &now);
        all += std::to_string(uintptr_t(now.sa_handler)) + " " + std::to_string(now.sa_flags & ~0x04000000) +
               "\n"; // SA_RESTORER, the C library's own
    }
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    for (int number = 1; number < SIGRTMAX; number++)
        all += char('0' + sigismember(&mask, number));
    return all;
}

// Another process of this program, in the one case that only makes sense there. TAVRIK_EMULATOR is what a program of
// another machine is started with.
pid_t start_case(const std::string &name) {
    const char *const emulator = getenv("TAVRIK_EMULATOR");
    const std::string command = std::string("exec ") + (emulator ? emulator : "") + " '" +
                                std::filesystem::read_symlink("/proc/self/exe").string() + "' --gtest_filter=" + name +
                                " --gtest_also_run_disabled_tests --gtest_output=json:/dev/null";
    const char *const arguments[] = {"sh", "-c", command.c_str(), nullptr};
    pid_t pid = -1;
    EXPECT_EQ(posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char *const *>(arguments), environ), 0);
    return pid;
}

// Waits for the end of a process, to which it sends a signal every three milliseconds. Is SIGINT what ended it?
bool dies_by_sigint(pid_t pid, int signal) {
    const auto start = std::chrono::steady_clock::now();
    int status = 0, waited;
    while ((waited = waitpid(pid, &status, WNOHANG)) == 0 && seconds_since(start) < 30) {
        kill(pid, signal);
        usleep(3000);
    }
    if (!waited) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    if (kLong)
        printf("dead after %.0f ms\n", seconds_since(start) * 1e3);
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGINT;
}

// The thread sanitizer has dispositions of its own beside the kernel's, of which system() knows nothing: a handler that
// it brings back there stands unseen, and swallows all signals.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define system(command) usleep(1000)
#endif
#endif

// Never ends by itself: two threads in RIL calls, one in system(), and the loop thread.
TEST(Guest, DISABLED_Victim) {
    Tavrik_Basic_Init(nullptr, nullptr);
    tavrik_ubus_thread_init();
    in_threads(3, [](unsigned thread) {
        unsigned i = 0;
        while (thread < 2)
            answered(0x40000000u | thread << 20 | i++ % 1000, 3000);
        while (system("true") >= 0)
            usleep(5000);
        abort();
    });
}

#undef system

TEST(Guest, DiesBySigint) {
    std::mt19937 random(std::random_device{}());
    for (int round = 0; round < (kLong ? 100 : 10); round++) {
        const pid_t pid = start_case("Guest.DISABLED_Victim");
        usleep(30000 + random() % 150000);
        ASSERT_TRUE(dies_by_sigint(pid, SIGINT)) << "round " << round;
    }
}

TEST(Guest, DISABLED_FirstCallIntoAStoppedDaemon) {
    if (answered(7, 300))
        return;
    tavrik_ubus_lock(); // nobody is left behind inside libubus
    tavrik_ubus_unlock();
    raise(SIGINT);
}

// Until the daemon goes on the process is as it was: its own signals end it.
TEST(Guest, SignalsWhileTheDaemonIsStopped) {
    const int daemon = sim::call("state")["pids"]["bus"];
    ASSERT_GT(daemon, 1);
    kill(daemon, SIGSTOP);
    EXPECT_TRUE(dies_by_sigint(start_case("Guest.DISABLED_FirstCallIntoAStoppedDaemon"), 0));
    kill(daemon, SIGCONT);
}

TEST(Guest, BesideSystem) {
    const std::string before = dispositions();
    std::atomic<int> wrong{0};
    in_threads(2, [&](unsigned thread) {
        for (unsigned i = 0; i < (kLong ? 10000 : 300); i++)
            wrong += thread ? !answered(1000 + i, 5000) : system("exit 7") != 7 << 8;
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(answered(1, 5000)); // takes away what the last system() may have brought back
    EXPECT_EQ(dispositions(), before);
}

TEST(Guest, DispositionsThroughTheLoopsLife) {
    const std::string before = dispositions();
    for (int round = 0; round < 20; round++) {
        ASSERT_EQ(tavrik_ubus_init(), 0);
        ASSERT_EQ(tavrik_ubus_thread_init(), 0);
        ASSERT_TRUE(answered(5, 3000));
        EXPECT_EQ(dispositions(), before);
        tavrik_ubus_thread_deinit();
        ASSERT_EQ(tavrik_ubus_thread_init(), 0); // revokes the stop, or starts anew
        tavrik_ubus_deinit();
        EXPECT_EQ(dispositions(), before);
    }
}

TEST(Guest, DescriptorsAreFewAndClosedOnExec) {
    ASSERT_TRUE(answered(1, 3000));
    tavrik_ubus_deinit();
    const auto before = count_in("/proc/self/fd");
    in_threads(12, [](unsigned) {
        for (unsigned i = 0; i < 50; i++)
            EXPECT_TRUE(answered(i + 1000, 5000));
    });
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(entry, gone).string();
        const int fd = std::stoi(entry.path().filename());
        if (fd > 2 && (target.find("socket") + 1 || target.find("event") + 1)) {
            EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << target;
        }
    }
    EXPECT_LE(count_in("/proc/self/fd"), before + 12); // contexts kept for reuse, and uloop's own
    tavrik_ubus_deinit();
    EXPECT_EQ(count_in("/proc/self/fd"), before);
}

TEST(Guest, LivesWhenAServerDies) {
    const auto at_send = [] {
        char response[512];
        return Tavrik_AT_Send("AT", "OK", response, sizeof response, 2000);
    };
    const std::string before = dispositions();
    ASSERT_EQ(Tavrik_AT_Init(), 0);
    ASSERT_EQ(at_send(), 0);
    ASSERT_TRUE(answered(1, 3000));
    sim::call("fault", {{"service", "at"}, {"stop", true}});
    EXPECT_EQ(at_send(), -1);
    EXPECT_EQ(at_send(), -1);
    Tavrik_AT_Deinit();
    EXPECT_EQ(Tavrik_AT_Init(), -1);
    sim::call("clear");
    EXPECT_EQ(Tavrik_AT_Init(), 0);
    EXPECT_EQ(at_send(), 0);
    sim::call("fault", {{"service", "bus"}, {"stop", true}});
    EXPECT_FALSE(answered(1, 1000));
    EXPECT_FALSE(answered(1, 1000));
    sim::call("clear");
    for (int tries = 0; tries < 30 && !answered(1, 1000);)
        tries++;
    EXPECT_TRUE(answered(1, 1000));
    EXPECT_EQ(dispositions(), before);
}

} // namespace
