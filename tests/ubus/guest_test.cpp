// The library is a guest: signals, children and descriptors of the program are as they would be without it.
#include "ril_call.h"
#include "support/sim.h"

#include <atomic>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <random>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

// For the thread sanitizer: while uloop's handler stands, two threads may be in it at once, and it writes a plain int.
extern "C" const char *__tsan_default_suppressions() {
    return "race:uloop_handle_sigint";
}

namespace {

// The suite takes few rounds; TAVRIK_LONG=1 takes as many as it takes to be sure.
const bool kLong = getenv("TAVRIK_LONG");

struct Dispositions {
    struct sigaction of[5];
    static constexpr int kSignals[5] = {SIGINT, SIGTERM, SIGQUIT, SIGCHLD, SIGPIPE};
    Dispositions() {
        for (int i = 0; i < 5; i++)
            sigaction(kSignals[i], nullptr, &of[i]);
    }
    bool operator==(const Dispositions &other) const {
        for (int i = 0; i < 5; i++)
            if (of[i].sa_handler != other.of[i].sa_handler ||
                ((of[i].sa_flags ^ other.of[i].sa_flags) & ~0x04000000)) // SA_RESTORER, the C library's own
                return false;
        return true;
    }
};

std::vector<int> descriptors() {
    std::vector<int> all;
    DIR *folder = opendir("/proc/self/fd");
    while (dirent *entry = readdir(folder))
        if (entry->d_name[0] != '.' && atoi(entry->d_name) != dirfd(folder))
            all.push_back(atoi(entry->d_name));
    closedir(folder);
    return all;
}

// Another process of this program, in the one case that only makes sense there. TAVRIK_EMULATOR is what a program of
// another machine is started with.
pid_t start_case(const char *name) {
    const char *const emulator = getenv("TAVRIK_EMULATOR");
    char program[PATH_MAX] = "";
    if (readlink("/proc/self/exe", program, sizeof program - 1) < 0)
        return -1;
    const std::string command = std::string("exec ") + (emulator ? emulator : "") + " '" + program +
                                "' --gtest_filter=" + name +
                                " --gtest_also_run_disabled_tests --gtest_output=json:/dev/null";
    const char *const arguments[] = {"sh", "-c", command.c_str(), nullptr};
    pid_t pid = -1;
    posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char *const *>(arguments), environ);
    return pid;
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
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 2; t++)
        threads.emplace_back([t] {
            for (unsigned i = 0;; i++)
                answered(0x40000000u | t << 20 | i % 1000, 3000);
        });
    for (;;) {
        if (system("true") < 0)
            abort();
        usleep(5000);
    }
}

#undef system

TEST(Guest, DiesBySigint) {
    std::mt19937 random(std::random_device{}());
    for (int round = 0; round < (kLong ? 100 : 10); round++) {
        const pid_t pid = start_case("Guest.DISABLED_Victim");
        ASSERT_GT(pid, 0);
        usleep(30000 + random() % 150000);
        int status = 0, waited = 0;
        const auto start = std::chrono::steady_clock::now();
        while ((waited = waitpid(pid, &status, WNOHANG)) == 0 && seconds_since(start) < 30) {
            kill(pid, SIGINT);
            usleep(3000);
        }
        if (waited != pid) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << "round " << round << ", status " << status;
        if (kLong)
            printf("round %d: dead after %.0f ms\n", round, seconds_since(start) * 1e3);
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
    const pid_t pid = start_case("Guest.DISABLED_FirstCallIntoAStoppedDaemon");
    const auto start = std::chrono::steady_clock::now();
    int status = 0, waited = 0;
    while ((waited = waitpid(pid, &status, WNOHANG)) == 0 && seconds_since(start) < 30)
        usleep(3000);
    kill(daemon, SIGCONT);
    if (!waited) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    EXPECT_TRUE(waited == pid && WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << "status " << status;
}

TEST(Guest, BesideSystem) {
    const Dispositions before;
    const int rounds = kLong ? 10000 : 300;
    std::atomic<int> wrong_calls{0}, wrong_children{0};
    std::thread calls([&] {
        for (int i = 0; i < rounds; i++)
            wrong_calls += !answered(unsigned(1000 + i), 5000);
    });
    for (int i = 0; i < rounds; i++) {
        const int status = system("exit 7");
        wrong_children += !WIFEXITED(status) || WEXITSTATUS(status) != 7;
    }
    calls.join();
    EXPECT_EQ(wrong_calls, 0);
    EXPECT_EQ(wrong_children, 0);
    EXPECT_TRUE(answered(1, 5000)); // takes away what the last system() may have brought back
    EXPECT_TRUE(Dispositions() == before);
}

TEST(Guest, DispositionsThroughTheLoopsLife) {
    const Dispositions before;
    sigset_t mask_before, mask_after;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask_before);
    for (int round = 0; round < 20; round++) {
        ASSERT_EQ(tavrik_ubus_init(), 0);
        ASSERT_EQ(tavrik_ubus_thread_init(), 0);
        ASSERT_TRUE(answered(5, 3000));
        EXPECT_TRUE(Dispositions() == before);
        tavrik_ubus_thread_deinit();
        ASSERT_EQ(tavrik_ubus_thread_init(), 0); // revokes the stop, or starts anew
        tavrik_ubus_deinit();
        EXPECT_TRUE(Dispositions() == before);
    }
    pthread_sigmask(SIG_SETMASK, nullptr, &mask_after);
    for (int number = 1; number < SIGRTMAX; number++)
        EXPECT_EQ(sigismember(&mask_before, number), sigismember(&mask_after, number)) << number;
}

TEST(Guest, DescriptorsAreFewAndClosedOnExec) {
    ASSERT_TRUE(answered(1, 3000));
    tavrik_ubus_deinit();
    const size_t before = descriptors().size();
    std::vector<std::thread> threads;
    for (int t = 0; t < 12; t++)
        threads.emplace_back([] {
            for (unsigned i = 0; i < 50; i++)
                EXPECT_TRUE(answered(i + 1000, 5000));
        });
    for (std::thread &thread : threads)
        thread.join();
    for (int fd : descriptors()) {
        char target[256] = {}, link[64];
        snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        if (fd > 2 && !(fcntl(fd, F_GETFD) & FD_CLOEXEC) && readlink(link, target, sizeof target - 1) > 0) {
            EXPECT_FALSE(strstr(target, "socket") || strstr(target, "event")) << target;
        }
    }
    EXPECT_LE(descriptors().size(), before + 12); // contexts kept for reuse, and uloop's own
    tavrik_ubus_deinit();
    EXPECT_EQ(descriptors().size(), before);
}

TEST(Guest, LivesWhenAServerDies) {
    struct sigaction pipe;
    sigaction(SIGPIPE, nullptr, &pipe);
    ASSERT_EQ(pipe.sa_handler, SIG_DFL);
    char response[512];
    ASSERT_EQ(Tavrik_AT_Init(), 0);
    ASSERT_EQ(Tavrik_AT_Send("AT", "OK", response, sizeof response, 2000), 0);
    ASSERT_TRUE(answered(1, 3000));
    sim::call("fault", {{"service", "at"}, {"stop", true}});
    EXPECT_EQ(Tavrik_AT_Send("AT", "OK", response, sizeof response, 2000), -1);
    EXPECT_EQ(Tavrik_AT_Send("AT", "OK", response, sizeof response, 2000), -1);
    Tavrik_AT_Deinit();
    EXPECT_EQ(Tavrik_AT_Init(), -1);
    sim::call("clear");
    EXPECT_EQ(Tavrik_AT_Init(), 0);
    EXPECT_EQ(Tavrik_AT_Send("AT", "OK", response, sizeof response, 2000), 0);

    sim::call("fault", {{"service", "bus"}, {"stop", true}});
    EXPECT_FALSE(answered(1, 1000));
    EXPECT_FALSE(answered(1, 1000));
    sim::call("clear");
    const auto start = std::chrono::steady_clock::now();
    while (!answered(1, 1000) && seconds_since(start) < 30) {
    }
    EXPECT_TRUE(answered(1, 1000));
    sigaction(SIGPIPE, nullptr, &pipe);
    EXPECT_EQ(pipe.sa_handler, SIG_DFL);
}

} // namespace
