// Deregistering while callbacks run: what waits for what, and what does not.
#include "indication/events.h"
#include "support/descriptors.h"
#include "support/words.h"

extern "C" {
#include <libubox/uloop.h>
}

#include <atomic>
#include <random>
#include <sstream>
#include <sys/wait.h>
#include <thread>

// For the thread sanitizer: a child starts a thread here.
extern "C" const char *__tsan_default_options() {
    return "die_after_fork=0";
}

using namespace ind;

namespace {

// In words, see there. Lines are called as the events that come of them, and so are the callbacks.
struct Case {
    const char *what, *words;
};

const Case kCases[] = {
    {"a running callback is waited for", "open send:nw1,nw2 in? nw out. line:nw3 got:nw1 | nw1 in! sleep:200 out!"},
    {"so it is with everything else", "open send:nw1,nw2 in? all out. line:nw3 got:nw1 | nw1 in! sleep:200 out!"},
    {"it may end itself", "open send:nw1,nw2,sim1 got:nw1,sim1 | nw1 nw"},
    {"it may end everything and begin anew, and what comes then waits for its end",
     "open send:sim2,sim1 accept send:nw1 got:sim2,nw1 | sim2 all state:0 add:4 state:1 sleep:100"},
    {"the last one may end itself", "add:4 accept send:nw2,nw3 got:nw2 state:0 | nw2 uim"},
    {"behind one that hangs the others go on over the same connection; it delivers nothing more, nor is it waited for",
     "open send:nw1,nw2,call1,sim1,half in? nw:late got:call1,sim1 nw add:6 send:nw3,sim2 got:sim2 out! back? got:nw1 "
     "send:nw4,sim1 got:sim1 | nw1 in! out? nw line:sim3 back!"},
    {"one that hangs when everything ends keeps no connection",
     "open send:nw1,nw2,sim1 in? all:late got: state:0 closed add:5 accept send:nw3,sim2 got:sim2 out! back? got:nw1 "
     "send:nw4,sim1 got:sim1 | nw1 in! out? nw line:sim3 back!"},
    {"where no thread can take its place nothing runs, until somebody registers again",
     "open send:nw1,sim1 in? nw:alone state:0 closed add:5 accept send:sim2 got:sim2 out! got:nw1 | nw1 in! out?"},
    {"one that reported a line itself, and hangs in that, is left behind as a whole",
     "open send:nw1,call1 in? uim:late got:call1 out! got:sim1,nw1 | nw1 line:sim1 | sim1 in! out?"},
    {"two may end each other", "open send:nw1 line:sim1 end? | nw1 n! s? uim nw_done! sim_done? end! | "
                               "sim1 s! n? nw sim_done! nw_done?"},
    {"two may end everything", "open send:nw1 line:sim1 end? | nw1 n! s? all nw_done! sim_done? end! | "
                               "sim1 s! n? all sim_done! nw_done?"},
    {"one waits for the end of the loop thread, which ends the callback's family",
     "add:4 accept loop send:nw1 end? | nw1 n! l? sms end! | loop l! n? sleep:100 all"},
    {"and the other way round",
     "add:4 add:5 add:6 accept loop send:nw1 end? | nw1 n! l? sleep:100 sms end! | loop l! n? nw"},
    {"a registration that still waits for the server starts no thread when everything is removed",
     "full thread sleep:100 all accept accept join state:0 | thread add:5"},
    {"one that was registered meanwhile is not waited for",
     "open send:nw1 in? thread nw ended! join | nw1 in! next? | thread free add:4 line:nw2 | nw2 next! ended?"},
    {"a child has no thread and no part in the connection, and can begin anew",
     "open send:nw1 got:nw1 fork send:nw2 got:nw2 all closed child | fork state:0 all go | anew add:5 state:1 uim "
     "state:0"},
    {"so has one that was forked in a callback", "open send:sim1,nw1 got:sim1,nw1 all closed child | sim1 fork | fork "
                                                 "state:0 all go | anew add:5 state:1 uim state:0"},
};

class Teardown : public Indication, public testing::WithParamInterface<Case> {
  protected:
    Teardown() : Indication(0) {}
    // What was left behind may still close its descriptors, when the next case counts on there being none.
    ~Teardown() override {
        for (int i = 0; i < 2000 && entries_of("/proc/self/task") > threads_; i++)
            usleep(10000);
        EXPECT_LE(entries_of("/proc/self/task"), threads_);
    }
    static std::string lines(const std::string &names) {
        static const char *const kCards[] = {"READY", "SIM PIN", "SIM PUK"};
        std::string text, name;
        for (std::istringstream all(names); std::getline(all, name, ',');)
            text += name[0] == 'n'   ? "+CREG: " + name.substr(2) + "\r\n"
                    : name[0] == 's' ? std::string("+CPIN: ") + kCards[name[3] - '1'] + "\r\n"
                    : name[0] == 'c' ? "+CLCC: 1,0,0,0,0\r\n"
                                     : "+CPIN: RE";
        return text;
    }
    // "late": that leaves a callback behind, not before its time; "alone": with no descriptor free.
    static void deregister(int (*function)(), const std::string &how) {
        const NoDescriptors none(how == "alone");
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(function(), 0);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(how.empty() ? 0 : 1995));
    }
    void start_loop() {
        static Teardown *test;
        test = this;
        timer_.cb = [](uloop_timeout *) { test->words_.play("loop"); };
        ASSERT_EQ(tavrik_ubus_init(), 0);
        tavrik_ubus_lock();
        uloop_timeout_set(&timer_, 0);
        tavrik_ubus_unlock();
        ASSERT_EQ(tavrik_ubus_thread_init(), 0);
    }
    void fork_child() {
        ASSERT_EQ(pipe(hold_), 0);
        if ((child_ = fork()))
            return;
        close(hold_[1]);
        words_.play("fork");
        if (!getenv("TAVRIK_EMULATOR")) // it has no threads in a child
            words_.play("anew");
        _exit(HasFailure());
    }
    void end_child() {
        close(hold_[0]);
        close(hold_[1]);
        int status;
        EXPECT_EQ(waitpid(child_, &status, 0), child_);
        EXPECT_EQ(status, 0);
    }

    using Argument = Words::Argument;
    Words words_{
        GetParam().words,
        {
            {"open", [this](Argument) { add_all(); }},
            {"accept", [this](Argument) { EXPECT_TRUE(server.accept_client()); }},
            {"closed", [this](Argument) { EXPECT_TRUE(closed()); }},
            {"send", [this](Argument names) { server.answer(lines(names)); }},
            {"line", [](Argument name) { at_indication_data_handler(lines(name).data(), int(lines(name).size())); }},
            {"got", [](Argument all) { EXPECT_EQ(names(all.substr(all.rfind(',') + 1)), all); }},
            {"add", [](Argument category) { EXPECT_EQ(add(std::stoi(category)), 0); }},
            {"state", [](Argument state) { EXPECT_EQ(Tavrik_Indication_State(), std::stoi(state)); }},
            {"nw", [](Argument how) { deregister(tavrik_indication_nwderegister, how); }},
            {"uim", [](Argument how) { deregister(tavrik_indication_uimderegister, how); }},
            {"sms", [](Argument how) { deregister(tavrik_indication_smsderegister, how); }},
            {"all", [](Argument how) { deregister(tavrik_indication_deregister, how); }},
            {"sleep", [](Argument ms) { usleep(unsigned(std::stoi(ms)) * 1000); }},
            {"loop", [this](Argument) { start_loop(); }},
            {"thread", [this](Argument) { thread_ = std::thread([this] { words_.play("thread"); }); }},
            {"join", [this](Argument) { thread_.join(); }},
            {"full", [](Argument) { EXPECT_GE(at_socket_init(kPath), 0); }}, // so is the backlog now
            {"fork", [this](Argument) { fork_child(); }},
            {"child", [this](Argument) { end_child(); }},
            {"go", [this](Argument) { EXPECT_EQ(read(hold_[0], hold_, 1), 0); }}, // the parent has done its part
            {"free",
             [](Argument) {
                 for (; on_at_indication_report("+CREG: 9"), !events().empty();)
                     usleep(100);
             }},
        }};
    const long threads_ = entries_of("/proc/self/task");
    std::thread thread_;
    uloop_timeout timer_ = {};
    int hold_[2];
    pid_t child_ = -1;
};

TEST_P(Teardown, in_words) {
    SCOPED_TRACE(GetParam().what);
    g_inside = [this](const std::string &event) { words_.play(event.substr(0, event.find(' '))); };
    const std::string log = sim::log_of([this] {
        words_.play("test");
        tavrik_indication_deregister();
        tavrik_ubus_deinit();
    });
    const size_t alone = count(GetParam().words, ":alone");
    EXPECT_EQ(count(log, ": callback does not end, left behind\n"), count(GetParam().words, ":late") + alone) << log;
    EXPECT_EQ(count(log, ": no indication thread for the other callbacks\n"), alone) << log;
}

INSTANTIATE_TEST_SUITE_P(, Teardown, testing::ValuesIn(kCases));

// Each family belongs to one thread, which alone registers it; anybody deregisters it. While its owner holds it for
// deregistered nothing of it may run.
struct Family {
    const char *event; // how it starts
    int category;
    int (*deregister)(void);
    std::atomic<bool> may_run{false};
} g_families[] = {{"sms", TAVRIK_IND_SMS, tavrik_indication_smsderegister},
                  {"call", TAVRIK_IND_VOICE, tavrik_indication_voicecallderegister},
                  {"data", TAVRIK_IND_DATA, tavrik_indication_datacallderegister},
                  {"nw", TAVRIK_IND_NETWORK, tavrik_indication_nwderegister},
                  {"sim", TAVRIK_IND_SIM, tavrik_indication_uimderegister}};
std::atomic<int> g_calls, g_late, g_rounds;

unsigned random_below(unsigned limit) {
    static thread_local std::minstd_rand random(std::random_device{}());
    return unsigned(random()) % limit;
}

void inside(const std::string &event) {
    for (const Family &family : g_families) {
        if (event.find(family.event) != 0)
            continue;
        ++g_calls;
        g_late += !family.may_run;
        if (random_below(8) == 0)
            g_families[random_below(5)].deregister();
        if (random_below(50) == 0)
            tavrik_indication_deregister();
        if (random_below(20) == 0)
            add(TAVRIK_IND_ECALL);
        if (random_below(20) == 0)
            tavrik_ubus_thread_init();
        char answer[TAVRIK_AT_RESPONSE_SIZE];
        if (random_below(10) == 0)
            Tavrik_AT_Send("AT+ECHO=1", "OK", answer, sizeof answer, 2000);
        Tavrik_Indication_State();
        g_late += !family.may_run; // the owner cannot have come back meanwhile
    }
}

TEST_F(Indication, storm) {
    Tavrik_AT_Init();
    g_inside = inside;
    const std::string log = sim::log_of([&] {
        std::vector<std::thread> threads;
        std::atomic<bool> done{false};
        threads.emplace_back([&] {
            const std::string lines =
                "+CREG: 1\r\n+CPIN: READY\r\n+CLCC: 1,0,0,0,0\r\n+ZCONSTAT: 1,1\r\n*ECALLDATA: 1\r\n"
                "+CMT: ,24\r\n07911326040000F0040B911346610089F60000208062917314080CC8F71D14969741F977FD07\r\n";
            while (!done) {
                pollfd waiting = {server.listener(), POLLIN, 0};
                if (poll(&waiting, 1, 1) > 0)
                    server.accept_client();
                if (server.client() >= 0)
                    send(server.client(), lines.data(), lines.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            }
        });
        for (Family &family : g_families)
            threads.emplace_back([&] {
                for (; !done; ++g_rounds) {
                    family.may_run = true;
                    add(family.category);
                    usleep(random_below(3000));
                    random_below(10) ? family.deregister() : tavrik_indication_deregister();
                    family.may_run = false;
                    usleep(random_below(1000));
                }
            });
        sleep(3);
        done = true;
        for (std::thread &thread : threads)
            thread.join();
        tavrik_indication_deregister();
        tavrik_ubus_deinit();
    });
    EXPECT_EQ(g_late, 0);
    EXPECT_EQ(count(log, "left behind"), 0u);
    EXPECT_GT(g_calls, 100);
    EXPECT_GT(g_rounds, 100);
    Tavrik_AT_Deinit();
}

} // namespace
