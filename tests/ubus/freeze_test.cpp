// A bus daemon that stops at any place of an exchange holds nobody beyond the limit, and is forgiven when it goes on.
#include "freezing_proxy.h"
#include "ril_call.h"
#include "support/sim.h"

#include <csignal>
#include <mutex>

namespace {

constexpr char kBusPath[] = "/var/run/ubus/ubus.sock";
constexpr int kLimitMs = 300;
constexpr double kCeiling = 30;

// The slowest of `threads` calls that all fail.
double slowest_failure(int threads) {
    std::vector<std::thread> all;
    std::mutex mutex;
    double slowest = 0;
    for (int i = 0; i < threads; i++) {
        all.emplace_back([&, i] {
            const auto start = std::chrono::steady_clock::now();
            EXPECT_FALSE(answered(0x40000000u + unsigned(i), kLimitMs));
            const double took = seconds_since(start);
            std::lock_guard<std::mutex> lock(mutex);
            slowest = std::max(slowest, took);
        });
    }
    for (std::thread &thread : all)
        thread.join();
    return slowest;
}

TEST(Freeze, AtEachPlaceOfAnExchange) {
    const struct {
        const char *place;
        int whole;
        bool half;
    } places[] = {
        {"before the greeting", 0, false},
        {"in the greeting", 0, true},
        {"after the greeting", 1, false},
        {"in the look-up's data", 1, true},
        {"in the look-up's status", 2, true},
        {"in half a reply", 3, true},
        {"after a whole reply, no status", 4, false},
    };
    FreezingProxy proxy(kBusPath);
    printf("%-34s %8s %8s   (limit %d ms)\n", "the daemon stops", "1 call", "8 calls", kLimitMs);
    for (const auto &place : places) {
        SCOPED_TRACE(place.place);
        double took[2];
        for (int many = 0; many < 2; many++) {
            ASSERT_TRUE(answered(7, 3000));
            proxy.freeze_after(place.whole, place.half);
            took[many] = slowest_failure(many ? 8 : 1);
            EXPECT_TRUE(proxy.frozen());
            EXPECT_GE(took[many], kLimitMs / 1e3 - 0.005);
            EXPECT_LT(took[many], kCeiling);
            proxy.thaw();
            for (unsigned i = 0; i < 20; i++)
                EXPECT_TRUE(answered(100 + i, 5000));
        }
        printf("%-34s %6.0f ms %6.0f ms\n", place.place, took[0] * 1e3, took[1] * 1e3);
    }
}

TEST(Freeze, BacklogOfAStoppedDaemon) {
    const int daemon = sim::call("state")["pids"]["bus"];
    ASSERT_GT(daemon, 0);
    ASSERT_TRUE(answered(7, 3000));
    kill(daemon, SIGSTOP);
    std::vector<std::thread> threads;
    std::atomic<int> right{0};
    std::atomic<double> slowest{0};
    for (int t = 0; t < 10; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 500; i++) {
                const auto start = std::chrono::steady_clock::now();
                right += answered(7, 20);
                const double took = seconds_since(start);
                for (double seen = slowest; took > seen && !slowest.compare_exchange_weak(seen, took);) {
                }
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    kill(daemon, SIGCONT);
    EXPECT_EQ(right, 0);
    EXPECT_LT(slowest, kCeiling);
    printf("5000 calls of 20 ms into a stopped daemon: the slowest took %.0f ms\n", slowest * 1e3);
    int tries = 0; // it first works off the connections that piled up
    while (!answered(8, 1000) && ++tries < 30) {
    }
    for (unsigned i = 0; i < 20; i++)
        EXPECT_TRUE(answered(100 + i, 5000));
}

} // namespace
