// Registrations and deregistrations from several threads and from inside callbacks, while lines arrive.
#include "indication/events.h"

#include <atomic>
#include <random>
#include <thread>

using namespace ind;

namespace {

constexpr int kFamilies = 5;
constexpr int kCategories[kFamilies] = {TAVRIK_IND_SMS, TAVRIK_IND_VOICE, TAVRIK_IND_DATA, TAVRIK_IND_NETWORK,
                                        TAVRIK_IND_SIM};
int (*const kDeregister[kFamilies])(void) = {tavrik_indication_smsderegister, tavrik_indication_voicecallderegister,
                                             tavrik_indication_datacallderegister, tavrik_indication_nwderegister,
                                             tavrik_indication_uimderegister};

// Each family belongs to one thread, which alone registers it; anybody deregisters it. While its owner holds it for
// deregistered nothing of it may run.
std::atomic<bool> g_may_run[kFamilies];
std::atomic<int> g_calls, g_late;

int random_below(int limit) {
    static thread_local std::minstd_rand random(std::random_device{}());
    return int(random() % unsigned(limit));
}

template <int family>
void on_record() {
    ++g_calls;
    g_late += !g_may_run[family];
    if (random_below(8) == 0)
        kDeregister[random_below(kFamilies)]();
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
    g_late += !g_may_run[family]; // the owner cannot have come back meanwhile
}

template <int family, class Record>
void on_event(const Record *) {
    on_record<family>();
}
void on_message(int, void *data) {
    free(data);
    on_record<0>();
}

template <class Callback>
Tavrik_IndicationCb any(Callback callback) {
    return reinterpret_cast<Tavrik_IndicationCb>(callback);
}
const Tavrik_IndicationCb kStormCallbacks[kFamilies] = {
    any(on_message), any(on_event<1, Tavrik_CallList>), any(on_event<2, Tavrik_DataEvent>),
    any(on_event<3, Tavrik_NwEvent>), any(on_event<4, Tavrik_SimEvent>)};

TEST_F(Indication, storm) {
    std::atomic<bool> done{false};
    Tavrik_AT_Init();
    std::thread feeder([&] {
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
    int rounds = 0;
    const std::string log = logged([&] {
        std::vector<std::thread> owners;
        std::atomic<int> all_rounds{0};
        for (int family = 0; family < kFamilies; ++family)
            owners.emplace_back([&, family] {
                while (!done) {
                    g_may_run[family] = true;
                    tavrik_indication_register(kCategories[family], kStormCallbacks[family]);
                    usleep(unsigned(random_below(3000)));
                    if (random_below(10) == 0)
                        tavrik_indication_deregister();
                    else
                        kDeregister[family]();
                    g_may_run[family] = false;
                    usleep(unsigned(random_below(1000)));
                    ++all_rounds;
                }
            });
        sleep(3);
        done = true;
        for (std::thread &owner : owners)
            owner.join();
        feeder.join();
        tavrik_indication_deregister();
        tavrik_ubus_deinit();
        rounds = all_rounds;
    });
    EXPECT_EQ(g_late, 0);
    EXPECT_EQ(count(log, "left behind"), 0u);
    EXPECT_GT(g_calls, 100);
    EXPECT_GT(rounds, 100);
    Tavrik_AT_Deinit();
}

} // namespace
