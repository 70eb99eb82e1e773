// Deregistering while callbacks run: what waits for what, and what does not.
#include "indication/events.h"

extern "C" {
#include <libubox/uloop.h>
}

#include <atomic>
#include <future>
#include <sys/wait.h>
#include <thread>

// For the thread sanitizer: a child starts a thread here.
extern "C" const char *__tsan_default_options() {
    return "die_after_fork=0";
}

using namespace ind;
using namespace std::chrono_literals;

namespace {

int64_t now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Milliseconds that a call takes.
template <class Call>
int64_t duration(Call call) {
    const int64_t start = now_ms();
    call();
    return now_ms() - start;
}

class Event {
  public:
    void set() { promise_.set_value(); }
    void wait() { EXPECT_EQ(future_.wait_for(20s), std::future_status::ready); }

  private:
    std::promise<void> promise_;
    std::shared_future<void> future_ = promise_.get_future().share();
};

class Teardown : public Indication {};

TEST_F(Teardown, waits_for_a_running_callback) {
    for (const bool everything : {false, true}) {
        add_all();
        Event inside;
        std::atomic<bool> ended{false};
        g_inside = [&](const std::string &) {
            inside.set();
            usleep(200000);
            ended = true;
        };
        server.answer("+CREG: 1\r\n+CREG: 2\r\n");
        inside.wait();
        EXPECT_EQ(everything ? tavrik_indication_deregister() : tavrik_indication_nwderegister(), 0);
        EXPECT_TRUE(ended);
        g_inside = nullptr;
        on_at_indication_report("+CREG: 3");
        EXPECT_EQ(events(), Texts{"nw 1 1f 0 0"});
        tavrik_indication_deregister();
    }
}

// A callback may end its own registration, or everything, and begin anew.
TEST_F(Teardown, inside_the_callback) {
    add_all();
    g_inside = [](const std::string &event) {
        if (event[0] == 'n')
            tavrik_indication_nwderegister();
    };
    server.answer("+CREG: 1\r\n+CREG: 2\r\n+CPIN: READY\r\n");
    EXPECT_EQ(events("sim 6 64: 1 1 -2147483648 READY").size(), 2u);

    g_inside = [](const std::string &event) {
        if (event[0] != 's')
            return;
        tavrik_indication_deregister();
        EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
        EXPECT_EQ(add(TAVRIK_IND_NETWORK), 0);
        EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_CONNECTED);
        usleep(100000); // the new thread's callbacks wait for this one
    };
    server.answer("+CPIN: SIM PIN\r\n+CPIN: READY\r\n");
    ASSERT_TRUE(server.accept_client());
    server.answer("+CREG: 1\r\n");
    EXPECT_EQ(events("nw 1 1f 0 0"), (Texts{"sim 6 64: 2 1 -2147483648 SIM PIN", "nw 1 1f 0 0"}));

    g_inside = [](const std::string &) { tavrik_indication_uimderegister(); }; // the last one
    server.answer("+CREG: 2\r\n+CREG: 3\r\n");
    EXPECT_EQ(events("nw 2 1f 0 0"), Texts{"nw 2 1f 0 0"});
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
}

TEST_F(Teardown, left_behind) {
    for (const bool everything : {false, true}) {
        add_all();
        Event inside, release, back;
        g_inside = [&](const std::string &event) {
            if (event[0] != 'n')
                return;
            inside.set();
            release.wait();
            EXPECT_EQ(tavrik_indication_nwderegister(), 0); // nothing to wait for
            on_at_indication_report("+CPIN: SIM PUK");      // delivers nothing more
            back.set();
        };
        server.answer("+CREG: 1\r\n+CREG: 2\r\n+CLCC: 1,0,0,0,0\r\n+CPIN: READY\r\n+CPIN: RE");
        inside.wait();
        int64_t took = 0;
        const std::string log = logged(
            [&] { took = duration(everything ? tavrik_indication_deregister : tavrik_indication_nwderegister); });
        EXPECT_GE(took, 1995);
        EXPECT_EQ(count(log, "callback does not end, left behind\n"), 1u) << log;
        if (everything) {
            EXPECT_EQ(events(), Texts());
            EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
            char byte;
            EXPECT_EQ(recv(server.client(), &byte, 1, 0), 0); // the connection does not hang on
            ASSERT_EQ(add(TAVRIK_IND_SIM), 0);
            ASSERT_TRUE(server.accept_client());
        } else {
            // the others go on behind the line that hangs, over the same connection
            EXPECT_EQ(events("sim 6 64: 1 1 -2147483648 READY"),
                      (Texts{"call 1: 1 1 3 ", "sim 6 64: 1 1 -2147483648 READY"}));
            EXPECT_LT(duration(tavrik_indication_nwderegister), 1000); // not waited for again
            ASSERT_EQ(add(TAVRIK_IND_CELL), 0);
        }
        server.answer("+CREG: 3\r\n+CPIN: SIM PIN\r\n");
        EXPECT_EQ(events("sim 6 64: 2 1 -2147483648 SIM PIN").size(), 1u);
        release.set();
        back.wait();
        EXPECT_EQ(events("nw 1 1f 0 0").size(), 1u); // the callback's own end
        server.answer("+CREG: 4\r\n+CPIN: READY\r\n");
        EXPECT_EQ(events("sim 6 64: 1 1 -2147483648 READY").size(), 1u);
        g_inside = nullptr;
        tavrik_indication_deregister();
    }
}

// The thread that is left behind cannot be replaced: nothing runs, until somebody registers again.
TEST_F(Teardown, left_behind_without_a_successor) {
    add_all();
    Event inside, release, back;
    g_inside = [&](const std::string &event) {
        if (event[0] != 'n')
            return;
        inside.set();
        release.wait();
        back.set();
    };
    server.answer("+CREG: 1\r\n+CPIN: READY\r\n");
    inside.wait();
    const std::string log = logged([] {
        const FewDescriptors none(3);
        EXPECT_EQ(tavrik_indication_nwderegister(), 0);
    });
    EXPECT_EQ(count(log, "callback does not end, left behind\n"), 1u) << log;
    EXPECT_EQ(count(log, "no indication thread for the other callbacks\n"), 1u) << log;
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
    char byte;
    EXPECT_EQ(recv(server.client(), &byte, 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(add(TAVRIK_IND_SIM), 0);
    ASSERT_TRUE(server.accept_client());
    server.answer("+CPIN: SIM PIN\r\n");
    EXPECT_EQ(events("sim 6 64: 2 1 -2147483648 SIM PIN").size(), 1u);
    release.set();
    back.wait();
    EXPECT_EQ(events("nw 1 1f 0 0").size(), 1u);
}

// Two callbacks on two threads, each of which ends the other's registration, and stays until both have done it.
TEST_F(Teardown, of_each_other) {
    for (const bool everything : {false, true}) {
        add_all();
        Event network_inside, sim_inside, network_done, sim_done, network_ended;
        std::atomic<int64_t> longest{0};
        g_inside = [&](const std::string &event) {
            const bool network = event[0] == 'n';
            (network ? network_inside : sim_inside).set();
            (network ? sim_inside : network_inside).wait();
            const int64_t took = duration(everything ? tavrik_indication_deregister
                                          : network  ? tavrik_indication_uimderegister
                                                     : tavrik_indication_nwderegister);
            longest = std::max(longest.load(), took);
            (network ? network_done : sim_done).set();
            (network ? sim_done : network_done).wait();
            if (network)
                network_ended.set();
        };
        server.answer("+CREG: 1\r\n");
        std::thread other([] { on_at_indication_report("+CPIN: READY"); });
        other.join();
        network_ended.wait();
        EXPECT_LT(longest, 1500);
        g_inside = nullptr;
        tavrik_indication_deregister();
    }
}

// A callback ends the last registration, and so waits for the loop thread's end, while that ends the callback's family.
std::function<void()> g_on_loop;

TEST_F(Teardown, with_the_loop_thread) {
    for (const bool loop_first : {false, true}) {
        ASSERT_EQ(add(TAVRIK_IND_NETWORK), 0);
        if (loop_first) { // two for the loop thread, one for the callback
            ASSERT_EQ(add(TAVRIK_IND_CELL), 0);
            ASSERT_EQ(add(TAVRIK_IND_SIM), 0);
        }
        ASSERT_TRUE(server.accept_client());
        Event callback_inside, loop_inside, ended;
        int64_t took = 0, loop_took = 0;
        g_on_loop = [&] {
            loop_inside.set();
            callback_inside.wait();
            usleep(loop_first ? 0 : 100000);
            loop_took = duration(loop_first ? tavrik_indication_nwderegister : tavrik_indication_deregister);
        };
        g_inside = [&](const std::string &) {
            callback_inside.set();
            loop_inside.wait();
            usleep(loop_first ? 100000 : 0);
            took = duration(tavrik_indication_smsderegister);
            ended.set();
        };
        uloop_timeout timeout = {};
        timeout.cb = [](uloop_timeout *) { g_on_loop(); };
        ASSERT_EQ(tavrik_ubus_init(), 0);
        tavrik_ubus_lock();
        uloop_timeout_set(&timeout, 0);
        tavrik_ubus_unlock();
        ASSERT_EQ(tavrik_ubus_thread_init(), 0);
        server.answer("+CREG: 1\r\n");
        ended.wait();
        tavrik_indication_deregister();
        tavrik_ubus_deinit();
        EXPECT_LT(took, 1500);
        EXPECT_LT(loop_took, 1500);
    }
}

// A callback registered meanwhile is none of those that a deregistration waits for, however long it takes.
Event *g_next_inside, *g_deregistered;

TEST_F(Teardown, does_not_wait_for_the_next_registration) {
    add_all();
    Event inside, next_inside, deregistered;
    g_next_inside = &next_inside;
    g_deregistered = &deregistered;
    g_inside = [&](const std::string &event) {
        if (event != "nw 1 1f 0 0")
            return;
        inside.set();
        next_inside.wait();
    };
    server.answer("+CREG: 1\r\n");
    inside.wait();
    std::thread next([&] {
        static std::atomic<bool> ran;
        for (ran = false; !ran; usleep(100)) { // ignored, and the old one called, while that has its place
            tavrik_indication_register(TAVRIK_IND_NETWORK,
                                       reinterpret_cast<Tavrik_IndicationCb>(+[](const Tavrik_NwEvent *) {
                                           ran = true;
                                           g_next_inside->set();
                                           g_deregistered->wait();
                                       }));
            on_at_indication_report("+CREG: 2");
        }
    });
    int64_t took = 0;
    const std::string log = logged([&] { took = duration(tavrik_indication_nwderegister); });
    deregistered.set();
    next.join();
    EXPECT_LT(took, 1500);
    EXPECT_EQ(count(log, "left behind"), 0u) << log;
}

// A callback that reports a line itself, and hangs in that: its thread is left behind as a whole.
TEST_F(Teardown, left_behind_inside_another) {
    add_all();
    Event inside, release;
    g_inside = [&](const std::string &event) {
        if (event[0] == 'n') {
            on_at_indication_report("+CPIN: READY");
        } else if (event[0] == 's') {
            inside.set();
            release.wait();
        }
    };
    server.answer("+CREG: 1\r\n+CLCC: 1,0,0,0,0\r\n");
    inside.wait();
    EXPECT_EQ(tavrik_indication_uimderegister(), 0);
    EXPECT_EQ(events("call 1: 1 1 3 "), Texts{"call 1: 1 1 3 "});
    release.set();
    EXPECT_EQ(events("nw 1 1f 0 0").size(), 2u);
}

// Everything is removed while a registration still waits for the server: no thread is left over.
TEST_F(Teardown, while_connecting) {
    FakeAtServer busy(0, kPath);
    const int first = at_socket_init(kPath); // fills the backlog
    Event registering;
    std::thread other([&] {
        registering.set();
        EXPECT_EQ(add(TAVRIK_IND_SIM), 0);
    });
    registering.wait();
    usleep(100000);
    EXPECT_LT(duration(tavrik_indication_deregister), 1000);
    ASSERT_TRUE(busy.accept_client());
    other.join();
    at_socket_deinit(first);
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
}

// A child of the process has no indication thread and no part in its parent's connection, and can begin anew.
TEST_F(Teardown, in_a_child) {
    for (const bool in_callback : {false, true}) {
        add_all();
        int hold[2];
        ASSERT_EQ(pipe(hold), 0);
        pid_t child = -1;
        const bool threads_in_child = !getenv("TAVRIK_EMULATOR"); // an emulator has none there
        const auto fork_child = [&] {
            child = fork();
            if (child)
                return;
            close(hold[1]);
            bool good = Tavrik_Indication_State() == TAVRIK_INDICATION_NONE && tavrik_indication_deregister() == 0;
            char byte;
            good &= read(hold[0], &byte, 1) == 1; // the parent has done its part
            if (threads_in_child) {
                good &= add(TAVRIK_IND_SIM) == 0 && Tavrik_Indication_State() == TAVRIK_INDICATION_CONNECTED;
                good &= tavrik_indication_uimderegister() == 0;
            }
            good &= Tavrik_Indication_State() == TAVRIK_INDICATION_NONE;
            _exit(good ? 0 : 1);
        };
        g_inside = [&](const std::string &event) {
            if (event[0] == 's')
                fork_child();
        };
        if (in_callback)
            server.answer("+CPIN: READY\r\n");
        else
            fork_child();
        server.answer("+CREG: 1\r\n");
        events("nw 1 1f 0 0");
        close(hold[0]);
        tavrik_indication_deregister();
        pollfd end = {server.client(), POLLIN, 0};
        char byte;
        EXPECT_EQ(poll(&end, 1, 20000), 1);
        EXPECT_EQ(recv(server.client(), &byte, 1, MSG_DONTWAIT), 0);
        EXPECT_EQ(write(hold[1], "", 1), 1);
        close(hold[1]);
        int status;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        if (threads_in_child) {
            ASSERT_TRUE(server.accept_client());
        }
    }
}

TEST_F(Teardown, starts_again) {
    for (int round = 0; round < 200; ++round) {
        add_all();
        server.answer("+CREG: 1\r\n");
        ASSERT_EQ(events("nw 1 1f 0 0").size(), 1u);
        const bool hang_up = round % 20 == 0;
        if (hang_up)
            server.hang_up();
        tavrik_indication_deregister();
        if (!hang_up) {
            char byte;
            ASSERT_EQ(recv(server.client(), &byte, 1, 0), 0); // its end of the connection is closed
        }
    }
}

} // namespace
