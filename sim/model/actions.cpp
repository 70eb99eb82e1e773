// What the modem does beyond remembering what it was told: calls, and the steps of an eCall.
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <optional>

#include "model/modem.h"

namespace tavrik::sim {

namespace {

enum { active = 0, dialling = 2, alerting = 3, ringing = 4, waiting = 5 };
// Of an eCall.
enum { idle, calling, connected, sending, acknowledged, t5_expired, t7_expired = 7, t2_expired };

constexpr char emergency_number[] = "112";
constexpr char updating[] = "updating";
constexpr int32_t normal_clearing = 16, timer_expired = 102;

// Changes the state, and reports what is different then.
template <class Change>
void change(Modem &modem, Change apply) {
    const ModemState before = modem.state();
    apply(modem.state());
    modem.report(before);
}

// Later, or never.
void later(Modem &modem, int64_t ms, std::function<void()> action) {
    if (ms >= 0 && modem.plan)
        modem.plan(ms, std::move(action));
}

// A setting in seconds, as ms; never when it is no number.
int64_t ms_of(const std::string &setting) {
    int64_t seconds = -1;
    auto end = setting.data() + setting.size();
    auto parsed = std::from_chars(setting.data(), end, seconds);
    return parsed.ec == std::errc() && parsed.ptr == end && seconds >= 0 && seconds <= UINT32_MAX ? seconds * 1000 : -1;
}

Call *find_if(ModemState &state, const std::function<bool(const Call &)> &fits) {
    auto found = std::find_if(state.calls.begin(), state.calls.end(), fits);
    return found == state.calls.end() ? nullptr : &*found;
}

Call *of_serial(ModemState &state, uint64_t serial) {
    return find_if(state, [serial](const Call &call) { return serial && call.serial == serial; });
}

Call &add_call(ModemState &state, int32_t how, const std::string &number) {
    Call call;
    while (find_if(state, [&](const Call &other) { return other.id == call.id; }))
        call.id++;
    call.state = how;
    call.incoming = how == ringing || how == waiting;
    call.number = number;
    call.serial = ++state.last_serial;
    return state.calls.emplace_back(std::move(call));
}

// One step of an eCall, and those that follow it in time.
void turn(Modem &modem, int32_t to);

void turn_after(Modem &modem, int64_t ms, int32_t to) {
    later(modem, ms, [&modem, to, step = modem.state().ecall_step] {
        if (modem.state().ecall_step == step)
            turn(modem, to);
    });
}

void turn(Modem &modem, int32_t to) {
    ModemState &state = modem.state();
    state.ecall_step++;
    change(modem, [to](ModemState &now) { now.ecall = to; });
    if (to == connected) {
        turn_after(modem, state.ecall_start_ms, sending);
        turn_after(modem, ms_of(state.ecall_t5), t5_expired);
    } else if (to == sending) {
        turn_after(modem, state.ecall_ack_ms, acknowledged);
        turn_after(modem, ms_of(state.ecall_t7), t7_expired);
    }
}

// Ends the calls that fit. False when there are none.
bool end_calls(Modem &modem, int32_t cause, const std::function<bool(const Call &)> &fits) {
    if (!find_if(modem.state(), fits))
        return false;
    bool ecall = false;
    change(modem, [&](ModemState &state) {
        Call *its = of_serial(state, state.ecall_serial);
        ecall = its && fits(*its);
        state.calls.erase(std::remove_if(state.calls.begin(), state.calls.end(), fits), state.calls.end());
        state.fail_cause = cause;
        if (ecall) {
            state.ecall = idle;
            state.ecall_serial = 0;
            state.ecall_step++;
        }
    });
    if (ecall && modem.state().ecall_only) // then the module is in the network for this call alone
        later(modem, ms_of(modem.state().ecall_t10), [&modem, step = modem.state().ecall_step] {
            if (modem.state().ecall_step == step)
                change(modem, [](ModemState &state) { state.creg = state.cgreg = state.cereg = 0; });
        });
    return true;
}

void move_call(Modem &modem, uint64_t serial, int32_t to) {
    Call *call = of_serial(modem.state(), serial);
    if (!call || (call->state != dialling && call->state != alerting))
        return;
    change(modem, [&](ModemState &) { call->state = to; });
    if (to != active || serial != modem.state().ecall_serial)
        return;
    later(modem, ms_of(modem.state().ecall_t2), [&modem, serial] {
        if (!of_serial(modem.state(), serial))
            return;
        turn(modem, t2_expired);
        end_calls(modem, timer_expired, [serial](const Call &one) { return one.serial == serial; });
    });
    turn(modem, connected);
}

bool dial(Modem &modem, const std::string &number) {
    if (modem.state().mode != 1)
        return false;
    uint64_t serial = 0;
    change(modem, [&](ModemState &state) { serial = add_call(state, dialling, number).serial; });
    later(modem, modem.state().alert_ms, [&modem, serial] { move_call(modem, serial, alerting); });
    later(modem, modem.state().answer_ms, [&modem, serial] { move_call(modem, serial, active); });
    return true;
}

bool ring(Modem &modem, const std::string &number) {
    if (modem.state().mode != 1)
        return false;
    change(modem, [&](ModemState &state) { add_call(state, state.calls.empty() ? ringing : waiting, number); });
    return true;
}

bool answer(Modem &modem, const std::string &) {
    Call *call = find_if(modem.state(), [](const Call &one) { return one.state == ringing; });
    if (call)
        change(modem, [&](ModemState &) { call->state = active; });
    return call;
}

// The number of one, or all.
bool hang_up(Modem &modem, const std::string &id) {
    return end_calls(modem, normal_clearing,
                     [&](const Call &call) { return id.empty() || std::to_string(call.id) == id; });
}

// By the other side: "CAUSE" for all calls, or "CAUSE,ID".
bool drop(Modem &modem, const std::string &how) {
    const size_t comma = how.find(',');
    return end_calls(modem, atoi(how.c_str()), [&](const Call &call) {
        return comma == std::string::npos || std::to_string(call.id) == how.substr(comma + 1);
    });
}

bool tone(Modem &modem, const std::string &digit) {
    if (!find_if(modem.state(), [](const Call &call) { return call.state == active; }))
        return false;
    modem.state().dtmf += digit;
    return true;
}

bool start_ecall(Modem &modem, const std::string &type) {
    ModemState &state = modem.state();
    if (of_serial(state, state.ecall_serial) || !dial(modem, type == "0" ? state.ecall_number : emergency_number))
        return false;
    state.ecall_serial = state.last_serial;
    turn(modem, calling);
    return true;
}

bool end_ecall(Modem &modem, const std::string &) {
    const uint64_t serial = modem.state().ecall_serial;
    return end_calls(modem, normal_clearing, [&](const Call &call) { return serial && call.serial == serial; });
}

bool push_msd(Modem &modem, const std::string &) {
    const Call *call = of_serial(modem.state(), modem.state().ecall_serial);
    if (!call || call->state != active)
        return false;
    turn(modem, sending);
    return true;
}

// One at a time.
bool upgrade(Modem &modem, const std::string &) {
    ModemState &state = modem.state();
    if (state.ota == updating)
        return false;
    state.ota = updating;
    later(modem, state.ota_ms, [&modem, serial = ++state.ota_serial] {
        if (modem.state().ota_serial == serial)
            modem.state().ota = modem.state().ota_end;
    });
    return true;
}

std::optional<int32_t> cid_in(const std::string &text) {
    int32_t cid = 0;
    auto end = text.data() + text.size();
    auto parsed = std::from_chars(text.data(), end, cid);
    return parsed.ec == std::errc() && parsed.ptr == end && cid >= 1 && cid <= last_pdp_cid ? std::optional(cid)
                                                                                            : std::nullopt;
}

// Cid, type and access point, a line each.
bool define(Modem &modem, const std::string &how) {
    const size_t first = how.find('\n'), second = how.find('\n', first + 1);
    const std::optional<int32_t> cid = cid_in(how.substr(0, first));
    if (!cid || second == std::string::npos)
        return false;
    PdpContext pdp{*cid, how.substr(first + 1, second - first - 1), how.substr(second + 1)};
    if (pdp.type != "IP" && pdp.type != "IPV6" && pdp.type != "IPV4V6")
        return false;
    change(modem, [&](ModemState &state) {
        auto place = std::lower_bound(state.pdp.begin(), state.pdp.end(), *cid,
                                      [](const PdpContext &one, int32_t number) { return one.cid < number; });
        if (place != state.pdp.end() && place->cid == *cid)
            *place = std::move(pdp);
        else
            state.pdp.insert(place, std::move(pdp));
    });
    return true;
}

// One that is up stays.
bool undefine(Modem &modem, const std::string &text) {
    const std::optional<int32_t> cid = cid_in(text);
    const std::vector<std::string> up = contexts_in(modem.state().contexts);
    if (!cid || std::count(up.begin(), up.end(), std::to_string(*cid)))
        return false;
    change(modem, [&](ModemState &state) {
        state.pdp.erase(
            std::remove_if(state.pdp.begin(), state.pdp.end(), [&](const PdpContext &one) { return one.cid == *cid; }),
            state.pdp.end());
    });
    return true;
}

// Down is where one that was never up is already.
bool move_context(Modem &modem, const std::string &text, bool up) {
    const std::optional<int32_t> cid = cid_in(text);
    const ModemState &state = modem.state();
    const bool can = !up || (state.mode == 1 && state.attached && find_pdp(state, cid.value_or(0)));
    if (!cid || !can)
        return false;
    change(modem, [&](ModemState &now) { now.contexts = with_context(now.contexts, std::to_string(*cid), up); });
    return true;
}

bool activate(Modem &modem, const std::string &cid) {
    return move_context(modem, cid, true);
}

bool deactivate(Modem &modem, const std::string &cid) {
    return move_context(modem, cid, false);
}

const struct {
    std::string_view name;
    bool (*run)(Modem &modem, const std::string &argument);
} actions[] = {
    {"activate", activate},   {"deactivate", deactivate}, {"define", define},
    {"undefine", undefine},   {"answer", answer},         {"dial", dial},
    {"drop", drop},           {"ecall", start_ecall},     {"ecall_end", end_ecall},
    {"ecall_push", push_msd}, {"hang_up", hang_up},       {"ring", ring},
    {"tone", tone},           {"upgrade", upgrade},
};

} // namespace

std::vector<std::string> contexts_in(const std::string &contexts) {
    std::vector<std::string> all;
    for (size_t from = 0, end; from < contexts.size(); from = end + 1) {
        end = std::min(contexts.find(',', from), contexts.size());
        all.push_back(contexts.substr(from, end - from));
    }
    return all;
}

std::string with_context(const std::string &contexts, const std::string &name, bool up) {
    std::string all;
    for (const std::string &other : contexts_in(contexts))
        if (!other.empty() && other != name)
            all += (all.empty() ? "" : ",") + other;
    return up ? all + (all.empty() ? "" : ",") + name : all;
}

const PdpContext *find_pdp(const ModemState &state, int32_t cid) {
    for (const PdpContext &pdp : state.pdp)
        if (pdp.cid == cid)
            return &pdp;
    return nullptr;
}

bool Modem::knows(std::string_view action) {
    return std::any_of(std::begin(actions), std::end(actions), [&](auto &row) { return row.name == action; });
}

bool Modem::act(std::string_view action, const std::string &argument) {
    for (auto &row : actions)
        if (row.name == action)
            return row.run(*this, argument);
    return false;
}

} // namespace tavrik::sim
