#include "model/reports.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace tavrik::sim {

namespace {

constexpr const char removed[] = "SIM REMOVED";

std::string hex(int32_t number, int digits) {
    char text[16];
    snprintf(text, sizeof text, "%0*X", digits, static_cast<unsigned>(number));
    return text;
}

std::string area_hex(const ModemState &state) {
    return hex(state.area, 4);
}

// The card behind an interface that is off is as good as removed.
std::string cpin(const ModemState &state) {
    return state.mode == 5 ? removed : state.sim;
}

// What a question that needs an open card fails with; 0 when it does not.
int32_t card_error_number(const ModemState &state) {
    const std::string text = cpin(state);
    if (state.sim_error)
        return state.sim_error;
    return text == removed ? 10 : text == "SIM PIN" ? 11 : text == "SIM PUK" ? 12 : 0;
}

std::string card_error(const ModemState &state) {
    return std::to_string(card_error_number(state));
}

const struct {
    int32_t number;
    const char *words;
} cme_errors[] = {
    {10, "SIM not inserted"}, {11, "SIM PIN required"}, {12, "SIM PUK required"},    {13, "SIM failure"},
    {14, "SIM busy"},         {15, "SIM wrong"},        {508, "(U)SIM PUK blocked"},
};

std::string sim_failure(const ModemState &state) {
    const int32_t number = card_error_number(state);
    if (!state.cmee || !number) // nothing is wrong with the card, but with the command
        return "ERROR";
    for (auto &row : cme_errors)
        if (state.cmee == 2 && row.number == number)
            return std::string("+CME ERROR: ") + row.words;
    return "+CME ERROR: " + std::to_string(number);
}

const char *type_of(const std::string &number) {
    return number.rfind('+', 0) == 0 ? "145" : "129";
}

std::string number_type(const ModemState &state) {
    return type_of(state.number);
}

bool on_air(const ModemState &state) {
    return state.mode == 1;
}

bool registered(int32_t stat) {
    return stat == 1 || stat == 5;
}

// A registration as it is reported: without a radio there is none, and only a registered modem knows its cell.
std::string registration(const ModemState &state, int32_t n, int32_t stat) {
    if (!on_air(state))
        stat = 0;
    std::string text = std::to_string(stat);
    if (n == 2 && registered(stat))
        text += ",\"" + area_hex(state) + "\",\"" + hex(state.cell, 8) + "\"," + std::to_string(state.act);
    return text;
}

std::string creg_now(const ModemState &state) {
    return registration(state, state.creg_n, state.creg);
}
std::string cgreg_now(const ModemState &state) {
    return registration(state, state.cgreg_n, state.cgreg);
}
std::string cereg_now(const ModemState &state) {
    return registration(state, state.cereg_n, state.cereg);
}

const char *technology(const ModemState &state) {
    switch (state.act) {
    case 0:
    case 1:
    case 3:
        return "GSM";
    case 2:
    case 4:
    case 5:
    case 6:
        return "WCDMA";
    case 7:
        return "LTE";
    }
    return "LTE NB-IOT";
}

bool in_service(const ModemState &state) {
    return on_air(state) && (registered(state.creg) || registered(state.cgreg) || registered(state.cereg));
}

std::string service(const ModemState &state) {
    return in_service(state) ? technology(state) : "NO SERVICE";
}

std::string reject_lines(const ModemState &state) {
    std::string lines = "*REJCAUSE: ";
    for (char c : state.reject_causes)
        lines += c == ';' ? "\r\n*REJCAUSE: " : std::string(1, c);
    return lines;
}

std::string clcc(const Call &call) {
    return "+CLCC: " + std::to_string(call.id) + (call.incoming ? ",1," : ",0,") + std::to_string(call.state) +
           ",0,0,\"" + call.number + "\"," + type_of(call.number);
}

std::string clcc_lines(const ModemState &state) {
    std::string lines;
    for (const Call &call : state.calls)
        lines += (lines.empty() ? "" : "\r\n") + clcc(call);
    return lines;
}

std::string pdp_lines(const ModemState &state) {
    std::string lines;
    for (const PdpContext &pdp : state.pdp)
        lines += (lines.empty() ? "" : "\r\n") + ("+CGDCONT: " + std::to_string(pdp.cid)) + ",\"" + pdp.type + "\",\"" +
                 pdp.apn + "\"";
    return lines;
}

std::string ecall_line(const ModemState &state) {
    static const char *const texts[] = {"",           "dialling", "connected",  "sending MSD", "MSD acknowledged",
                                        "T5 expired", "",         "T7 expired", "T2 expired"};
    std::string line = std::to_string(state.ecall);
    if (state.ecall > 0 && state.ecall < 9 && *texts[state.ecall])
        line += ",\"" + std::string(texts[state.ecall]) + "\"";
    return line;
}

const struct {
    const char *name;
    View view;
} views[] = {
    {"area_hex", area_hex},   {"card_error", card_error},     {"cereg_now", cereg_now},
    {"cgreg_now", cgreg_now}, {"clcc_lines", clcc_lines},     {"cpin", cpin},
    {"creg_now", creg_now},   {"number_type", number_type},   {"service", service},
    {"pdp_lines", pdp_lines}, {"reject_lines", reject_lines}, {"sim_failure", sim_failure},
};

std::string presence(const ModemState &state) {
    return state.sim == removed ? "0" : "1";
}

// Which cell serves, without what is measured of it.
std::string cell_identity(const ModemState &state) {
    if (!in_service(state))
        return "";
    std::string text = state.mcc + "," + state.mnc + "," + area_hex(state) + "," + hex(state.cell, 7);
    for (int32_t number : {state.arfcn, state.band, state.bandwidth, state.phys_id})
        text += "," + std::to_string(number);
    return technology(state) + (": " + text);
}

std::string cell_line(const ModemState &state) {
    std::string text = cell_identity(state);
    if (text.empty())
        return "";
    const std::string name = text.substr(0, text.find(':'));
    text = text.substr(name.size());
    if (name == "GSM")
        return "+EEMGINFOSVC" + text + "," + std::to_string(state.rxlev);
    if (name == "WCDMA")
        return "+EEMUMTSSVC" + text + "," + std::to_string(state.rscp) + "," + std::to_string(state.ecno);
    return "+EEMLTESVC" + text + "," + std::to_string(state.rsrp) + "," + std::to_string(state.rsrq) + "," +
           std::to_string(state.sinr);
}

std::string signal(const ModemState &state) {
    std::string text = std::to_string(state.rxlev);
    for (int32_t number : {state.ber, state.rscp, state.ecno, state.rsrq, state.rsrp})
        text += "," + std::to_string(number);
    return text;
}

std::set<std::string> listed(const std::string &names) {
    const std::vector<std::string> all = contexts_in(names);
    return {all.begin(), all.end()};
}

} // namespace

View find_view(std::string_view name) {
    for (auto &row : views)
        if (row.name == name)
            return row.view;
    return nullptr;
}

std::vector<std::string> reports(const ModemState &old, const ModemState &after) {
    ModemState before = old; // told with the settings of now: a setting alone is no news
    before.creg_n = after.creg_n;
    before.cgreg_n = after.cgreg_n;
    before.cereg_n = after.cereg_n;

    std::vector<std::string> lines;
    auto tell = [&](View view, const char *prefix) {
        if (view(before) != view(after))
            lines.push_back(prefix + view(after));
    };
    tell(presence, "+SIMCARD: ");
    tell(cpin, "+CPIN: ");
    if (after.creg_n)
        tell(creg_now, "+CREG: ");
    if (after.cgreg_n)
        tell(cgreg_now, "+CGREG: ");
    if (after.cereg_n)
        tell(cereg_now, "+CEREG: ");
    if (cell_identity(before) != cell_identity(after) && in_service(after))
        lines.push_back(cell_line(after));
    tell(signal, "+CESQ: ");
    const std::set<std::string> were_up = listed(before.contexts), are_up = listed(after.contexts);
    for (const std::string &context : were_up)
        if (!are_up.count(context))
            lines.push_back("+ZCONSTAT: 0," + context);
    for (const std::string &context : are_up)
        if (!were_up.count(context))
            lines.push_back("+ZCONSTAT: 1," + context);

    auto has = [](const ModemState &state, const Call &call, bool as_it_is) {
        for (const Call &other : state.calls)
            if (other.id == call.id && (!as_it_is || clcc(other) == clcc(call)))
                return true;
        return false;
    };
    for (const Call &call : after.calls)
        if (!has(before, call, true))
            lines.push_back(clcc(call));
    if (after.ecall) // when it is over, the end of its call tells that
        tell(ecall_line, "*ECALLDATA: ");
    for (const Call &call : before.calls)
        if (!has(after, call, false))
            lines.push_back("+CALLDISCONNECT: " + std::to_string(call.id) + "," + std::to_string(after.fail_cause));
    return lines;
}

} // namespace tavrik::sim
