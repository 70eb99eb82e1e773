// Chunks of the indication socket: cut into lines, recognised, parsed, and handed to callbacks.
#include "fuzz.h"

#include "indication/parsers.h"
#include "tavrik_sdk.h"

#include <cstdio>
#include <cstring>
#include <vector>

namespace {

using fuzz::check;

using Texts = std::vector<std::string>;

Texts g_events;

// Every byte that a callback may read.
template <class Record>
void note(const Record &record) {
    g_events.emplace_back(reinterpret_cast<const char *>(&record), sizeof record);
}

void on_sms(int event, void *data) {
    check(event == 0);
    const auto *message = static_cast<const SmsMessage *>(data);
    note(*message);
    free(data);
}
void on_call(const Tavrik_CallList *calls) {
    const Tavrik_Call &call = calls->calls[0];
    check(calls->count == 1 && call.state >= 1 && call.state <= 10 && call.direction >= 0 && call.direction <= 2);
    note(*calls);
}
void on_data(const Tavrik_DataEvent *event) {
    check((event->kind == 2 || event->kind == 4) && event->size == sizeof *event && (event->state | 1) == 1);
    check(event->cid >= 1 && event->cid <= 255 && strnlen(event->ifname, sizeof event->ifname) < sizeof event->ifname);
    note(*event);
}
void on_ecall(int32_t value, const char *const *text) {
    g_events.push_back(std::to_string(value) + (*text ? *text : "(none)"));
}
void on_network(const Tavrik_NwEvent *event) {
    check(event->source_access >> 4 >= 1 && event->source_access >> 4 <= 3);
    note(*event);
}
void on_sim(const Tavrik_SimEvent *event) {
    check(event->kind == 6 && event->size == sizeof *event && memchr(event->text, 0, sizeof event->text));
    note(*event);
}
void on_cell(const void *event) {
    uint32_t head[2];
    memcpy(head, event, sizeof head);
    if (head[0] == 8) {
        check(head[1] == sizeof(Tavrik_SignalEvent));
        note(*static_cast<const Tavrik_SignalEvent *>(event));
    } else {
        check(head[0] == 7 && head[1] == sizeof(Tavrik_CellEvent));
        note(*static_cast<const Tavrik_CellEvent *>(event));
    }
}

// Without a server registering fails, and is kept all the same.
bool add_all() {
    const Tavrik_IndicationCb callbacks[] = {
        reinterpret_cast<Tavrik_IndicationCb>(on_sms),     reinterpret_cast<Tavrik_IndicationCb>(on_call),
        reinterpret_cast<Tavrik_IndicationCb>(on_data),    reinterpret_cast<Tavrik_IndicationCb>(on_ecall),
        reinterpret_cast<Tavrik_IndicationCb>(on_network), reinterpret_cast<Tavrik_IndicationCb>(on_sim),
        reinterpret_cast<Tavrik_IndicationCb>(on_cell),
    };
    for (int category = 0; category < 7; ++category)
        tavrik_indication_register(category, callbacks[category]);
    g_idx_cid[2].cid = 3;
    check(on_at_indication_report(nullptr) == -1 && tavrik::on_voice_call_info_changed(nullptr) == -1);
    return true;
}

// A chunk is cut as one reads it: lines end in CR LF, a message takes the line behind it along, empty lines are none,
// and what has no end is dropped.
Texts lines_of(const std::string &chunk) {
    Texts lines;
    for (size_t from = 0, end; (end = chunk.find("\r\n", from)) != std::string::npos; from = end + 2) {
        if (!chunk.compare(from, 5, "+CMT:") && (end = chunk.find("\r\n", end + 2)) == std::string::npos)
            break;
        if (end > from)
            lines.push_back(chunk.substr(from, std::min<size_t>(end - from, 511)));
    }
    return lines;
}

// What comes of it from the same beginning: no eCall has been reported.
template <class Deliver>
Texts events_of(Deliver deliver) {
    on_at_indication_report("+CALLDISCONNECT: 1");
    g_events.clear();
    deliver();
    return std::move(g_events);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool added = add_all();
    check(added);
    const std::string chunk(reinterpret_cast<const char *>(data), size);
    const std::vector<char> exact(chunk.begin(), chunk.end()); // without room to spare
    const Texts whole = events_of([&] { at_indication_data_handler(exact.data(), int(exact.size())); });
    const Texts apart = events_of([&] {
        for (const std::string &line : lines_of(chunk))
            on_at_indication_report(line.c_str());
    });
    check(whole == apart);
    check(chunk.find("ACT ") != std::string::npos || tavrik::get_cid_from_cgev_line(chunk.c_str()) == -1);
    return 0;
}
