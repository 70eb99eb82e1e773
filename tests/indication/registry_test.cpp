// Who is registered, who is counted, and when the thread runs.
#include "indication/events.h"

#include <dirent.h>
#include <fstream>

using namespace ind;

namespace {

class RegistryTest : public Indication {};

int threads_named(const std::string &name) {
    int found = 0;
    DIR *tasks = opendir("/proc/self/task");
    while (const dirent *task = readdir(tasks)) {
        std::string comm;
        std::getline(std::ifstream(std::string("/proc/self/task/") + task->d_name + "/comm") >> std::ws, comm);
        found += comm == name;
    }
    closedir(tasks);
    return found;
}

TEST_F(RegistryTest, what_is_refused) {
    for (const int category : {-1, -2147483647 - 1, 7, 8})
        EXPECT_EQ(tavrik_indication_register(category, kCallbacks[0]), -1) << category;
    EXPECT_EQ(tavrik_indication_register(0, nullptr), -1);
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
    EXPECT_EQ(add(TAVRIK_IND_SMS), 0); // nothing was left locked
}

TEST_F(RegistryTest, second_callback_is_ignored) {
    ASSERT_EQ(add(TAVRIK_IND_NETWORK), 0);
    EXPECT_EQ(tavrik_indication_register(TAVRIK_IND_NETWORK, kCallbacks[TAVRIK_IND_SIM]), 0);
    on_at_indication_report("+CREG: 1");
    EXPECT_EQ(events(), Texts{"nw 1 1f 0 0"});
    const std::string log = logged([] { tavrik_indication_nwderegister(); }); // two off one
    EXPECT_NE(log.find("indication_register_number:-1\n"), std::string::npos) << log;
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_CONNECTED);
    on_at_indication_report("+CREG: 1");
    EXPECT_EQ(events(), Texts());
}

using Deregister = int (*)(void);

TEST_F(RegistryTest, each_family_and_the_count) {
    const struct {
        Deregister call;
        const char *number;
        std::string name;
        Texts left; // of the lines below, the events
    } cases[] = {
        {tavrik_indication_smsderegister,
         ":6",
         "tavrik_indication_smsderegister",
         {"call", "data", "ecall", "nw", "sim", "signal"}},
        {tavrik_indication_uimderegister,
         ":5",
         "tavrik_indication_uimderegister",
         {"call", "data", "ecall", "nw", "signal"}},
        {tavrik_indication_nwderegister, ":3", "tavrik_indication_nwderegister", {"call", "data", "ecall"}},
        {tavrik_indication_ecallderegister, ":2", "tavrik_indication_ecallderegister", {"call", "data"}},
        // one that has no callback any more counts all the same, and the last one takes everything along
        {tavrik_indication_ecallderegister, ":1", "tavrik_indication_ecallderegister", {"call", "data"}},
        {tavrik_indication_ecallderegister, ":0", "tavrik_indication_ecallderegister", {}},
    };
    const std::pair<Deregister, const char *> others[] = {
        {tavrik_indication_voicecallderegister, "tavrik_indication_voicecallderegister"},
        {tavrik_indication_datacallderegister, "tavrik_indication_datacallderegister"}};
    for (const auto &[last, name] : others) {
        add_all();
        for (const auto &c : cases) {
            const std::string log = logged([&] { EXPECT_EQ(c.call(), 0); });
            EXPECT_NE(log.find("[sdklog info:" + c.name + ":"), std::string::npos) << log;
            EXPECT_NE(log.find(std::string("indication_register_number") + c.number + "\n"), std::string::npos) << log;
            for (const char *line : {"+CMT: 1\r\n00", "+CLCC: 1,0,0,0,0", "+ZCONSTAT: 1,1", "*ECALLDATA: 1", "+CREG: 1",
                                     "+CPIN: READY", "+CESQ: 1,1,1,1,1,1"})
                on_at_indication_report(line);
            Texts kinds;
            for (const std::string &event : events())
                kinds.push_back(event.substr(0, event.find(' ')));
            EXPECT_EQ(kinds, c.left) << c.name;
        }
        EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
        EXPECT_EQ(threads_named("sdkind0306"), 0);
        EXPECT_EQ(add(TAVRIK_IND_VOICE), 0);
        const std::string log = logged([last = last] { EXPECT_EQ(last(), 0); });
        EXPECT_NE(log.find(std::string("[sdklog info:") + name), std::string::npos) << log;
        EXPECT_NE(log.find("indication_register_number:0\n"), std::string::npos) << log;
        EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
    }
}

TEST_F(RegistryTest, server_down) {
    unlink(kPath);
    const std::string log = logged([] { EXPECT_EQ(add(TAVRIK_IND_SIM), -1); });
    EXPECT_NE(log.find("[sdklog err:start_indication_thread:"), std::string::npos) << log;
    EXPECT_NE(log.find("create socket failed\n"), std::string::npos) << log;
    EXPECT_NE(log.find("[sdklog err:tavrik_indication_register:"), std::string::npos) << log;
    EXPECT_NE(log.find("indication thread id < 0\n"), std::string::npos) << log;
    EXPECT_EQ(start_indication_thread(), 0u);
    {
        FakeAtServer again(8, kPath);
        EXPECT_EQ(add(TAVRIK_IND_NETWORK), 0);
        ASSERT_TRUE(again.accept_client());
        again.answer("+CPIN: READY\r\n+CREG: 1\r\n"); // the first registration holds
        EXPECT_EQ(events("nw 1 1f 0 0").size(), 2u);
    }
}

TEST_F(RegistryTest, no_thread_to_be_had) {
    unsigned long thread = 1;
    const std::string log = logged([&] {
        const int next = dup(0);
        close(next);
        const FewDescriptors socket_only(next + 1);
        thread = start_indication_thread();
    });
    EXPECT_EQ(thread, 0u);
    EXPECT_EQ(count(log, "[sdklog err:start_indication_thread:"), 1u) << log;
    EXPECT_EQ(count(log, "pthread_create failed\n"), 1u) << log;
    ASSERT_TRUE(server.accept_client());
    char byte;
    EXPECT_EQ(recv(server.client(), &byte, 1, 0), 0); // the connection is closed
    EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
}

TEST_F(RegistryTest, one_thread) {
    const unsigned long thread = start_indication_thread();
    ASSERT_NE(thread, 0u);
    EXPECT_EQ(start_indication_thread(), thread);
    EXPECT_EQ(add(TAVRIK_IND_SIM), 0);
    for (int ms = 0; ms < 20000 && !threads_named("sdkind0306"); ++ms)
        usleep(1000); // it names itself
    EXPECT_EQ(threads_named("sdkind0306"), 1);
    int other = 0;
    EXPECT_EQ(receive_ind_data_from_at_channel(nullptr), nullptr);
    EXPECT_EQ(receive_ind_data_from_at_channel(&other), nullptr);
}

TEST_F(RegistryTest, handlers) {
    add_all();
    static Texts handled;
    handled.clear();
    for (const int slot : {-1, 7})
        EXPECT_EQ(add_ind_cb(slot, [](int, void *) { handled.push_back("never"); }), 0);
    for (int slot = 0; slot < 7; ++slot)
        add_ind_cb(slot, [](int event, void *record) {
            handled.push_back(std::to_string(event));
            if (event == 0)
                free(record);
        });
    const char *lines[] = {"+CMT: 1\r\n00", "+CLCC: 1,0,0,0,0",   "*ECALLDATA: 1", "+CREG: 1",
                           "+CPIN: READY",  "+CESQ: 1,1,1,1,1,1", "+ZCONSTAT: 1,1"};
    for (const char *line : lines)
        on_at_indication_report(line);
    EXPECT_EQ(handled, (Texts{"0", "1", "3", "5", "6", "8", "2"}));
    EXPECT_EQ(events(), Texts());

    remove_ind_cb();
    for (const char *line : lines)
        EXPECT_EQ(on_at_indication_report(line), 0); // dropped, and nothing leaks
    EXPECT_EQ(handled.size(), 7u);
    EXPECT_EQ(add(TAVRIK_IND_SIM), 0); // brings its handler back, and the callback is there still
    for (const char *line : lines)
        on_at_indication_report(line);
    EXPECT_EQ(events().size(), 1u);
}

} // namespace
