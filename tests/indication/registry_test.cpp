// Who is registered, who is counted, and when the thread runs.
#include "indication/events.h"
#include "support/descriptors.h"
#include "support/shell.h"

#include <dlfcn.h>

using namespace ind;

namespace {

// One of each kind.
const char *const kLines[] = {"+CMT: 1\r\n00", "+CLCC: 1,0,0,0,0", "+ZCONSTAT: 1,1",    "*ECALLDATA: 1",
                              "+CREG: 1",      "+CPIN: READY",     "+CESQ: 1,1,1,1,1,1"};

size_t indication_threads() {
    return count(shell("cat /proc/" + std::to_string(getpid()) + "/task/*/comm").output, "sdkind0306\n");
}

TEST_F(Indication, what_is_refused) {
    for (const int category : {-1, -2147483647 - 1, 7, 8})
        EXPECT_EQ(tavrik_indication_register(category, kCallbacks[0]), -1) << category;
    EXPECT_EQ(tavrik_indication_register(0, nullptr), -1);
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
    EXPECT_EQ(add(TAVRIK_IND_NETWORK), 0);                                                    // nothing was left locked
    EXPECT_EQ(tavrik_indication_register(TAVRIK_IND_NETWORK, kCallbacks[TAVRIK_IND_SIM]), 0); // and is ignored
    on_at_indication_report("+CREG: 1");
    EXPECT_EQ(names(), "nw1");
}

TEST_F(Indication, each_family_and_the_count) {
    const struct {
        int added; // before, or -1
        const char *deregister;
        int count;
        const char *left; // events of the lines that have a callback still
    } cases[] = {
        {-1, "tavrik_indication_smsderegister", 6, "call1,data,ecall,nw1,sim1,signal"},
        {-1, "tavrik_indication_uimderegister", 5, "call1,data,ecall,nw1,signal"},
        {-1, "tavrik_indication_nwderegister", 3, "call1,data,ecall"},
        {-1, "tavrik_indication_ecallderegister", 2, "call1,data"},
        // one that has no callback any more counts all the same, and the last one takes everything along
        {-1, "tavrik_indication_ecallderegister", 1, "call1,data"},
        {-1, "tavrik_indication_ecallderegister", 0, ""},
        {TAVRIK_IND_VOICE, "tavrik_indication_voicecallderegister", 0, ""},
        {TAVRIK_IND_DATA, "tavrik_indication_datacallderegister", 0, ""},
        {TAVRIK_IND_CELL, "tavrik_indication_nwderegister", -1, ""}, // of two categories, always
    };
    add_all();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.deregister);
        EXPECT_EQ(c.added < 0 ? 0 : add(c.added), 0);
        const auto deregister = reinterpret_cast<int (*)()>(dlsym(RTLD_DEFAULT, c.deregister));
        EXPECT_EQ(sim::log_of([&] { EXPECT_EQ(deregister(), 0); }),
                  std::string("info ") + c.deregister + ": indication_register_number:" + std::to_string(c.count) +
                      "\n");
        for (const char *line : kLines)
            on_at_indication_report(line);
        EXPECT_EQ(names(), c.left);
        EXPECT_EQ(Tavrik_Indication_State(), c.count ? TAVRIK_INDICATION_CONNECTED : TAVRIK_INDICATION_NONE);
        EXPECT_TRUE(c.count || !indication_threads());
    }
}

TEST_F(Indication, server_down) {
    unlink(kPath);
    const std::string log = sim::log_of([] { EXPECT_EQ(add(TAVRIK_IND_SIM), -1); });
    EXPECT_EQ(log, "start_indication_thread: create socket failed\n"
                   "tavrik_indication_register: indication thread id < 0\n");
    EXPECT_EQ(start_indication_thread(), 0u);
    FakeAtServer again(8, kPath);
    EXPECT_EQ(add(TAVRIK_IND_NETWORK), 0);
    ASSERT_TRUE(again.accept_client());
    again.answer("+CPIN: READY\r\n+CREG: 1\r\n");
    EXPECT_EQ(names("nw1"), "sim1,nw1"); // the first registration holds
}

TEST_F(Indication, one_thread_or_none) {
    const int spare = dup(0);
    const std::string log = sim::log_of([&] {
        const NoDescriptors socket_only;
        close(spare);
        EXPECT_EQ(start_indication_thread(), 0u);
    });
    EXPECT_EQ(log, "start_indication_thread: pthread_create failed\n");
    ASSERT_TRUE(server.accept_client());
    EXPECT_TRUE(closed());
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);

    const unsigned long thread = start_indication_thread();
    ASSERT_NE(thread, 0u);
    EXPECT_EQ(start_indication_thread(), thread);
    EXPECT_EQ(add(TAVRIK_IND_SIM), 0);
    for (int ms = 0; ms < 20000 && !indication_threads(); ++ms)
        usleep(1000); // it names itself
    EXPECT_EQ(indication_threads(), 1u);
    int other = 0;
    EXPECT_EQ(receive_ind_data_from_at_channel(nullptr), nullptr);
    EXPECT_EQ(receive_ind_data_from_at_channel(&other), nullptr);
}

TEST_F(Indication, handlers) {
    static std::string handled;
    handled.clear();
    add_all();
    for (int slot = -1; slot <= 7; ++slot)
        EXPECT_EQ(add_ind_cb(slot,
                             [](int event, void *record) {
                                 handled += std::to_string(event);
                                 if (event == 0)
                                     free(record);
                             }),
                  0);
    for (const bool removed : {false, true}) {
        if (removed)
            remove_ind_cb();
        for (const char *line : kLines)
            EXPECT_EQ(on_at_indication_report(line), 0); // then dropped, and nothing leaks
        EXPECT_EQ(names(), "");
        EXPECT_EQ(handled, "0123568");
    }
    EXPECT_EQ(add(TAVRIK_IND_SIM), 0); // brings its handler back, and the callback is there still
    for (const char *line : kLines)
        on_at_indication_report(line);
    EXPECT_EQ(names(), "sim1");
}

} // namespace
