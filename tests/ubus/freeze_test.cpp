// A bus daemon that stops at any place of an exchange holds nobody beyond the limit, and is forgiven when it goes on.
#include "freezing_proxy.h"
#include "ril_call.h"
#include "support/sim.h"

#include <atomic>
#include <csignal>

namespace {

constexpr double kCeiling = 30;

// The slowest of the calls, `calls` on each of `threads`, which all fail.
double slowest_failure(unsigned threads, int calls, int limit_ms) {
    std::atomic<double> slowest{0};
    in_threads(threads, [&](unsigned thread) {
        for (int i = 0; i < calls; i++) {
            const double took = seconds_of([&] { EXPECT_FALSE(answered(0x40000000u + thread, limit_ms)); });
            for (double seen = slowest; took > seen && !slowest.compare_exchange_weak(seen, took);)
                continue;
        }
    });
    EXPECT_LT(slowest, kCeiling);
    return slowest;
}

void expect_answers() {
    for (unsigned i = 0; i < 20; i++)
        EXPECT_TRUE(answered(100 + i, 5000));
}

TEST(Freeze, AtEachPlaceOfAnExchange) {
    constexpr int kLimitMs = 300;
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
    FreezingProxy proxy("/var/run/ubus/ubus.sock");
    printf("the daemon stops                     1 call  8 calls   (limit %d ms)\n", kLimitMs);
    for (const auto &place : places) {
        SCOPED_TRACE(place.place);
        printf("%-34s", place.place);
        for (const unsigned threads : {1u, 8u}) {
            ASSERT_TRUE(answered(7, 3000));
            proxy.freeze_after(place.whole, place.half);
            const double took = slowest_failure(threads, 1, kLimitMs);
            EXPECT_GE(took, kLimitMs / 1e3 - 0.005);
            EXPECT_TRUE(proxy.thaw());
            expect_answers();
            printf(" %5.0f ms", took * 1e3);
        }
        printf("\n");
    }
}

TEST(Freeze, BacklogOfAStoppedDaemon) {
    const int daemon = sim::call("state")["pids"]["bus"];
    ASSERT_GT(daemon, 0);
    ASSERT_TRUE(answered(7, 3000));
    kill(daemon, SIGSTOP);
    const double slowest = slowest_failure(10, 500, 20);
    kill(daemon, SIGCONT);
    printf("5000 calls of 20 ms into a stopped daemon: the slowest took %.0f ms\n", slowest * 1e3);
    for (int tries = 0; tries < 30 && !answered(8, 1000);) // it first works off the connections that piled up
        tries++;
    expect_answers();
}

} // namespace
