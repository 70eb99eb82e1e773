// Callbacks for every category that write what they get into one list, and the server that feeds them.
#pragma once

#include "core/fake_at_server.h"
#include "support/sim.h"

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <functional>
#include <mutex>

namespace ind {

using Texts = std::vector<std::string>;

inline std::mutex g_mutex;
inline std::condition_variable g_more;
inline Texts g_events;
// Runs in each callback, on the thread that calls it, before the event is noted.
inline std::function<void(const std::string &event)> g_inside;

inline __attribute__((format(printf, 1, 2))) void note(const char *format, ...) {
    char text[400];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (g_inside)
        g_inside(text);
    const std::lock_guard lock(g_mutex);
    g_events.push_back(text);
    g_more.notify_all();
}

// The events since the last call, as soon as the last one starts with `last` (any number of them when that is empty).
inline Texts events(const std::string &last = "") {
    std::unique_lock lock(g_mutex);
    g_more.wait_for(lock, std::chrono::seconds(20),
                    [&] { return last.empty() || (!g_events.empty() && g_events.back().find(last) == 0); });
    return std::exchange(g_events, {});
}

// Their first words.
inline std::string names(const std::string &last = "") {
    std::string all;
    for (const std::string &event : events(last))
        all += (all.empty() ? "" : ",") + event.substr(0, event.find(' '));
    return all;
}

inline void on_sms(int event, void *data) {
    auto *message = static_cast<SmsMessage *>(data);
    note("sms %d %s %s", event, message->number, message->text);
    free(message);
}
inline void on_call(const Tavrik_CallList *calls) {
    const Tavrik_Call &call = calls->calls[0];
    note("call%d %d %d %d %.32s", calls->count, call.call_id, call.direction, call.state, call.number);
}
inline void on_data(const Tavrik_DataEvent *event) {
    note("data %u: %d %d %d %d %d %s", event->kind, event->cid, event->profile_idx, event->state, event->cause,
         event->ip_type, event->ifname);
}
inline void on_ecall(int32_t value, const char *const *text) {
    note("ecall %d %s", value, *text ? *text : "(none)");
}
inline void on_network(const Tavrik_NwEvent *event) {
    note("nw%u %x %x %x", event->state, event->source_access, event->area, event->cell);
}
inline void on_sim(const Tavrik_SimEvent *event) {
    note("sim%d %u %u %d %d %s", event->state, event->kind, event->size, event->source, event->value, event->text);
}
inline void on_cell(const void *event) {
    const auto &s = *static_cast<const Tavrik_SignalEvent *>(event);
    const auto &c = *static_cast<const Tavrik_CellEvent *>(event);
    if (s.kind == 8)
        note("signal %u: %u %u %u %u %u %u", s.size, s.rxlev, s.ber, s.rscp, s.ecno, s.rsrq, s.rsrp);
    else
        note("cell %u %u: %d %u.%u/%u %x %x %u b%u w%u p%u %d %d %d", c.kind, c.size, c.act, c.mcc, c.mnc, c.mnc_digits,
             c.area, c.cell, c.arfcn, c.band, c.bandwidth, c.phys_id, c.level, c.quality, c.sinr);
}

template <class Callback>
Tavrik_IndicationCb any(Callback callback) {
    return reinterpret_cast<Tavrik_IndicationCb>(callback);
}
inline const Tavrik_IndicationCb kCallbacks[] = {any(on_sms),     any(on_call), any(on_data), any(on_ecall),
                                                 any(on_network), any(on_sim),  any(on_cell)};

inline int add(int category) {
    return tavrik_indication_register(category, kCallbacks[category]);
}

inline size_t count(const std::string &text, const std::string &part) {
    size_t found = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size())
        ++found;
    return found;
}

// A case starts and ends with nothing registered.
class Indication : public testing::Test {
  protected:
    static constexpr char kPath[] = "/tmp/atcmdsdkind";

    explicit Indication(int backlog = 8) : server(backlog, kPath) { Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT); }
    ~Indication() override {
        tavrik_indication_deregister();
        EXPECT_EQ(Tavrik_Indication_State(), TAVRIK_INDICATION_NONE);
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID);
        g_inside = nullptr;
        events();
    }
    // All categories, on a connection that the server has accepted.
    void add_all() {
        for (int category = 0; category <= 6; ++category)
            ASSERT_EQ(add(category), 0);
        ASSERT_TRUE(server.accept_client());
    }
    // Has the library closed the connection?
    bool closed() const {
        char byte;
        pollfd end = {server.client(), POLLIN, 0};
        return poll(&end, 1, 20000) == 1 && recv(end.fd, &byte, 1, 0) == 0;
    }

    FakeAtServer server;
};

} // namespace ind
