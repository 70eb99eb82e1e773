// tavrikctl monitor: every event, a line each.
#include "command.h"
#include "level.h"
#include "message.h"
#include "names.h"
#include "output.h"
#include "watch.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <tavrik_sdk.h>

namespace tavrikctl {
namespace {

void put(Output &output, const Tavrik_Call &call) {
    output.event("call");
    output.field("call", "id", call.call_id);
    if (!call_state_name(call.state).empty())
        output.field("state", "state", call_state_name(call.state));
    if (call.direction)
        output.field("direction", "direction", call_direction_name(call.direction));
    if (*call.number)
        output.field("number", "number", std::string(call.number, strnlen(call.number, sizeof call.number)));
}

void put(Output &output, const Tavrik_DataEvent &event) {
    output.event("data");
    output.field("cid", "context", event.cid);
    if (event.profile_idx != TAVRIK_UNKNOWN_S32)
        output.field("profile", "profile", event.profile_idx);
    output.field("state", "state", event.state ? "up" : "down");
    if (event.cause != TAVRIK_UNKNOWN_S32)
        output.field("cause", "cause", event.cause);
    if (event.ip_type != TAVRIK_UNKNOWN_S32)
        output.field("ip_type", "IP type", event.ip_type);
    output.field("interface", "interface", event.ifname);
}

void put(Output &output, const Tavrik_NwEvent &event) {
    static const char *const kDomains[] = {"", "CS", "PS", "EPS"};
    // <AcT> of 3GPP TS 27.007 clause 7.2
    static const char *const kAccess[] = {"GSM", "GSM compact", "UTRAN", "EGPRS", "HSDPA", "HSUPA", "HSPA", "E-UTRAN"};
    const int source = event.source_access >> 4, access = event.source_access & 15;
    output.event("registration");
    if (source >= 1 && source <= 3)
        output.field("domain", "domain", kDomains[source]);
    output.field("state", "state", registration_name(event.state));
    if (access < 8)
        output.field("access", "access", kAccess[access]);
    else if (access != 15)
        output.field("access", "access", std::to_string(access));
    if (event.area)
        output.field("area", "area", event.area);
    if (event.cell)
        output.field("cell", "cell", event.cell);
}

void put(Output &output, const Tavrik_SimEvent &event) {
    output.event("sim");
    output.field("status", "status", sim_state_name(event.state));
    output.field("source", "source", event.source == 1 ? "+CPIN" : "+SIMCARD");
    if (event.value != TAVRIK_UNKNOWN_S32)
        output.field("value", "value", event.value);
    output.field("text", "text", std::string(event.text, strnlen(event.text, sizeof event.text)));
}

// A network code is digits, those in front too.
std::string digits(unsigned code, size_t count) {
    const std::string text = std::to_string(code);
    return std::string(count - std::min(count, text.size()), '0') + text;
}

void put(Output &output, const Tavrik_CellEvent &event) {
    output.event("cell");
    output.field("technology", "technology", technology_name(event.act));
    output.field("mcc", "MCC", digits(event.mcc, 3));
    output.field("mnc", "MNC", digits(event.mnc, event.mnc_digits));
    output.field("area", "area", event.area);
    output.field("cell", "cell", event.cell);
    if (event.arfcn != TAVRIK_UNKNOWN_U32)
        output.field("arfcn", "channel", event.arfcn);
    if (event.band != TAVRIK_UNKNOWN_U16)
        output.field("band", "band", event.band);
    if (event.bandwidth != TAVRIK_UNKNOWN_U8)
        output.field("bandwidth", "bandwidth", event.bandwidth);
    if (event.phys_id != TAVRIK_UNKNOWN_U16)
        output.field("phys_id", "physical id", event.phys_id);
    put_level(output, event.act == 2 ? Level::rxlev : event.act == 3 ? Level::rscp : Level::rsrp, event.level);
    if (event.act == 2)
        put_index(output, "rxqual", "RXQUAL", event.quality, 7);
    else
        put_level(output, event.act == 3 ? Level::ecno : Level::rsrq, event.quality);
    if (event.sinr != TAVRIK_UNKNOWN_S16)
        output.field("sinr", "SINR", event.sinr);
}

void put(Output &output, const Tavrik_SignalEvent &event) {
    output.event("signal");
    put_level(output, Level::rxlev, event.rxlev);
    put_index(output, "ber", "BER", event.ber, 7);
    put_level(output, Level::rscp, event.rscp);
    put_level(output, Level::ecno, event.ecno);
    put_level(output, Level::rsrq, event.rsrq);
    put_level(output, Level::rsrp, event.rsrp);
}

void put_ecall(Output &output, const void *record) {
    struct Report {
        int32_t value;
        const char *text;
    } const &report = *static_cast<const Report *>(record);
    output.event("ecall");
    output.field("value", "value", report.value);
    if (report.text)
        output.field("text", "text", report.text);
}

// What the verb waits for, and what the indication thread prints meanwhile.
struct Monitor {
    std::mutex mutex;
    std::condition_variable changed;
    Output *output = nullptr;
    long long left = 0; // events to print
    bool written = true;
} g_monitor;

// Prints the record that `fill` makes, unless there are enough.
template <class Fill>
void print(Fill fill) {
    const std::lock_guard<std::mutex> lock(g_monitor.mutex);
    if (!g_monitor.left || !g_monitor.written)
        return;
    fill(*g_monitor.output);
    --g_monitor.left;
    g_monitor.written = g_monitor.output->end();
    if (!g_monitor.left || !g_monitor.written)
        g_monitor.changed.notify_one();
}

void on_sms(int event, void *record) {
    if (event != 0)
        return;
    const std::unique_ptr<SmsMessage, decltype(&free)> owner(static_cast<SmsMessage *>(record), free);
    Message message;
    if (receive(*owner, message))
        print([&](Output &output) {
            output.event(message.detail.type == TAVRIK_SMS_REPORT ? "sms report" : "sms");
            put(output, message);
        });
}

void on_event(int event, void *record) {
    print([=](Output &output) {
        switch (event) {
        case 1:
            return put(output, static_cast<const Tavrik_CallList *>(record)->calls[0]);
        case 3:
            return put_ecall(output, record);
        case 5:
            return put(output, *static_cast<const Tavrik_NwEvent *>(record));
        case 6:
            return put(output, *static_cast<const Tavrik_SimEvent *>(record));
        case 7:
            return put(output, *static_cast<const Tavrik_CellEvent *>(record));
        case 8:
            return put(output, *static_cast<const Tavrik_SignalEvent *>(record));
        default: // 2 and 4
            return put(output, *static_cast<const Tavrik_DataEvent *>(record));
        }
    });
}

bool monitor(const Arguments &arguments, Output &output) {
    return watch("monitor", {0, 1, 2, 3, 4, 5, 6}, arguments, output);
}

} // namespace

bool watch(const std::string &verb, std::initializer_list<int> slots, const Arguments &arguments, Output &output) {
    using namespace std::chrono;
    g_monitor.output = &output;
    g_monitor.left = arguments.has("--count") ? arguments.number("--count") : LLONG_MAX;
    const auto began = steady_clock::now();
    const auto until = began + seconds(arguments.has("--for") ? arguments.number("--for") : INT_MAX);
    // All handlers stand before the thread starts: with a callback for each category in turn, what comes while the
    // first has one and the last has not would be lost.
    for (const int slot : slots)
        add_ind_cb(slot, slot == 0 ? on_sms : on_event);
    if (!start_indication_thread()) {
        remove_ind_cb();
        return fail(verb + ": the indication channel cannot be opened");
    }
    bool lost = false;
    long long missing;
    {
        std::unique_lock<std::mutex> lock(g_monitor.mutex);
        while (g_monitor.left && g_monitor.written && !lost && steady_clock::now() < until) {
            // A lost connection is told by no event.
            g_monitor.changed.wait_until(lock, std::min(until, steady_clock::now() + milliseconds(250)));
            lost = Tavrik_Indication_State() == TAVRIK_INDICATION_LOST;
        }
        missing = g_monitor.left;
        g_monitor.left = 0; // `output` ends before the thread may
    }
    tavrik_indication_deregister();
    if (!g_monitor.written)
        return fail(verb + ": cannot write an event");
    if (missing && lost)
        return fail(verb + ": the AT server has closed the indication channel");
    if (missing && arguments.has("--count"))
        return fail(verb + ": " + std::to_string(missing) + " events fewer than wanted");
    return true;
}

std::vector<Parameter> watch_options() {
    return {number_option("--for", "S", "End after so many seconds", 0, INT_MAX, ""),
            number_option("--count", "N", "End after so many events; with --for, fewer are a failure", 1, INT_MAX, "")};
}

Family monitor_family() {
    return {"monitor",
            "Events",
            {{"monitor", "",
              "Print events as they happen, a line each: registration, cells and signal, SIM card, messages, calls and "
              "contexts",
              watch_options(), monitor}}};
}

} // namespace tavrikctl
