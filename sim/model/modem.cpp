#include "model/modem.h"

#include <charconv>
#include <climits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <variant>

#include "model/reports.h"

namespace tavrik::sim {

using nlohmann::json;

namespace {

struct Field {
    std::string_view name;
    std::variant<std::string ModemState::*, int32_t ModemState::*, bool ModemState::*, std::vector<Call> ModemState::*,
                 std::vector<PdpContext> ModemState::*>
        member;
    int32_t min = INT_MIN; // of a number
    int32_t max = INT_MAX; // of a number; the length of a text
};

const Field fields[] = {
    {"manufacturer", &ModemState::manufacturer},
    {"model", &ModemState::model},
    {"revision", &ModemState::revision},
    {"imei", &ModemState::imei},
    {"mode", &ModemState::mode},
    {"echo", &ModemState::echo},
    {"cmee", &ModemState::cmee, 0, 2},
    {"sim", &ModemState::sim},
    {"sim_error", &ModemState::sim_error, 0},
    {"iccid", &ModemState::iccid},
    {"imsi", &ModemState::imsi},
    {"number", &ModemState::number},
    {"number_name", &ModemState::number_name},
    {"sim_status_length", &ModemState::sim_status_length, 0, 65536},
    {"creg_n", &ModemState::creg_n, 0, 2},
    {"cgreg_n", &ModemState::cgreg_n, 0, 2},
    {"cereg_n", &ModemState::cereg_n, 0, 2},
    {"cireg_n", &ModemState::cireg_n, 0, 2},
    {"creg", &ModemState::creg, 0, 10},
    {"cgreg", &ModemState::cgreg, 0, 10},
    {"cereg", &ModemState::cereg, 0, 10},
    {"ims", &ModemState::ims, 0, 1},
    {"attached", &ModemState::attached},
    {"act", &ModemState::act, 0, 15},
    {"mcc", &ModemState::mcc},
    {"mnc", &ModemState::mnc},
    {"area", &ModemState::area, 0, 0xFFFFFF},
    {"cell", &ModemState::cell, 0, 0xFFFFFFF},
    {"arfcn", &ModemState::arfcn, 0},
    {"band", &ModemState::band, 0, UINT16_MAX},
    {"bandwidth", &ModemState::bandwidth, 0, UINT8_MAX},
    {"phys_id", &ModemState::phys_id, 0, UINT16_MAX},
    {"rxlev", &ModemState::rxlev, 0, UINT8_MAX},
    {"ber", &ModemState::ber, 0, UINT8_MAX},
    {"rscp", &ModemState::rscp, 0, UINT8_MAX},
    {"ecno", &ModemState::ecno, 0, UINT8_MAX},
    {"rsrq", &ModemState::rsrq, 0, UINT8_MAX},
    {"rsrp", &ModemState::rsrp, 0, UINT8_MAX},
    {"sinr", &ModemState::sinr, INT16_MIN, INT16_MAX},
    {"cqi", &ModemState::cqi, 0, INT16_MAX},
    {"band_mode", &ModemState::band_mode, 0, 15},
    {"bands", &ModemState::bands},
    {"band_last", &ModemState::band_last},
    {"cell_lock", &ModemState::cell_lock},
    {"reject_report", &ModemState::reject_report},
    {"reject_causes", &ModemState::reject_causes},
    {"powerind", &ModemState::powerind, 0, 31},
    {"pdp", &ModemState::pdp},
    {"contexts", &ModemState::contexts},
    {"link_up", &ModemState::link_up},
    {"calls", &ModemState::calls},
    {"alert_ms", &ModemState::alert_ms},
    {"answer_ms", &ModemState::answer_ms},
    {"fail_cause", &ModemState::fail_cause},
    {"dtmf", &ModemState::dtmf},
    {"ecall", &ModemState::ecall},
    {"ecall_start_ms", &ModemState::ecall_start_ms},
    {"ecall_ack_ms", &ModemState::ecall_ack_ms},
    {"ecall_msd", &ModemState::ecall_msd},
    {"ecall_only", &ModemState::ecall_only, 0, 1},
    {"ecall_number", &ModemState::ecall_number},
    {"ecall_mode", &ModemState::ecall_mode},
    {"ecall_t2", &ModemState::ecall_t2},
    {"ecall_t5", &ModemState::ecall_t5},
    {"ecall_t6", &ModemState::ecall_t6},
    {"ecall_t7", &ModemState::ecall_t7},
    {"ecall_t9", &ModemState::ecall_t9},
    {"ecall_t10", &ModemState::ecall_t10},
    {"ecall_dial", &ModemState::ecall_dial},
    {"ecall_redialcnt", &ModemState::ecall_redialcnt},
    {"ecall_redialtmr", &ModemState::ecall_redialtmr},
    {"ecall_smsmsdcnt", &ModemState::ecall_smsmsdcnt},
    {"ecall_sms", &ModemState::ecall_sms},
    {"ecall_smsnum", &ModemState::ecall_smsnum},
    {"ota", &ModemState::ota},
    {"ota_ms", &ModemState::ota_ms},
    {"ota_end", &ModemState::ota_end},
    {"ota_reply_ms", &ModemState::ota_reply_ms},
};

const Field *find(std::string_view name) {
    for (const Field &field : fields)
        if (field.name == name)
            return &field;
    return nullptr;
}

[[noreturn]] void refuse(const Field &field, const std::string &why) {
    throw std::invalid_argument("field \"" + std::string(field.name) + "\" " + why);
}

json json_of(const std::vector<Call> &calls) {
    json all = json::array();
    for (const Call &call : calls)
        all.push_back({{"id", call.id}, {"state", call.state}, {"incoming", call.incoming}, {"number", call.number}});
    return all;
}
json json_of(const std::vector<PdpContext> &contexts) {
    json all = json::array();
    for (const PdpContext &pdp : contexts)
        all.push_back({{"cid", pdp.cid}, {"type", pdp.type}, {"apn", pdp.apn}});
    return all;
}
template <class Value>
json json_of(const Value &value) {
    return value;
}

struct Store {
    ModemState &state;
    const Field &field;
    const json &value;

    void operator()(std::string ModemState::*member) const {
        if (!value.is_string())
            refuse(field, "is a text");
        state.*member = value.get<std::string>();
    }
    void operator()(int32_t ModemState::*member) const {
        if (!value.is_number_integer())
            refuse(field, "is a whole number");
        // Beyond int64 only a number that was read as unsigned can be.
        bool huge = value.is_number_unsigned() && value.get<uint64_t>() > INT_MAX;
        if (huge || value.get<int64_t>() < field.min || value.get<int64_t>() > field.max)
            refuse(field, "is from " + std::to_string(field.min) + " to " + std::to_string(field.max));
        state.*member = value.get<int32_t>();
    }
    void operator()(bool ModemState::*member) const {
        if (!value.is_boolean())
            refuse(field, "is true or false");
        state.*member = value.get<bool>();
    }
    // Members that are left out are as a new call has them.
    void operator()(std::vector<Call> ModemState::*member) const {
        if (!value.is_array())
            refuse(field, "is an array of calls");
        std::vector<Call> calls;
        for (const json &one : value) {
            Call call;
            if (!one.is_object())
                refuse(field, "holds objects");
            for (auto &[key, part] : one.items())
                if (key == "id" && part.is_number_integer())
                    call.id = part.get<int32_t>();
                else if (key == "state" && part.is_number_integer())
                    call.state = part.get<int32_t>();
                else if (key == "incoming" && part.is_boolean())
                    call.incoming = part.get<bool>();
                else if (key == "number" && part.is_string())
                    call.number = part.get<std::string>();
                else
                    refuse(field, "has no \"" + key + "\" like this");
            calls.push_back(std::move(call));
        }
        state.*member = std::move(calls);
    }
    void operator()(std::vector<PdpContext> ModemState::*member) const {
        if (!value.is_array())
            refuse(field, "is an array of contexts");
        std::vector<PdpContext> contexts;
        for (const json &one : value) {
            PdpContext pdp;
            if (!one.is_object())
                refuse(field, "holds objects");
            for (auto &[key, part] : one.items())
                if (key == "cid" && part.is_number_integer())
                    pdp.cid = part.get<int32_t>();
                else if (key == "type" && part.is_string())
                    pdp.type = part.get<std::string>();
                else if (key == "apn" && part.is_string())
                    pdp.apn = part.get<std::string>();
                else
                    refuse(field, "has no \"" + key + "\" like this");
            contexts.push_back(std::move(pdp));
        }
        state.*member = std::move(contexts);
    }
};

} // namespace

bool Modem::has(std::string_view field) {
    return find(field) != nullptr;
}

bool Modem::shows(std::string_view name) {
    return has(name) || find_view(name) != nullptr;
}

json Modem::get() const {
    json all = json::object();
    for (const Field &field : fields)
        std::visit([&](auto member) { all[std::string(field.name)] = json_of(state_.*member); }, field.member);
    return all;
}

std::string Modem::text(std::string_view name) const {
    const Field *field = find(name);
    if (!field) {
        View view = find_view(name);
        return view ? view(state_) : "";
    }
    if (auto *text = std::get_if<std::string ModemState::*>(&field->member))
        return state_.**text;
    if (auto *number = std::get_if<int32_t ModemState::*>(&field->member))
        return std::to_string(state_.**number);
    if (auto *calls = std::get_if<std::vector<Call> ModemState::*>(&field->member))
        return std::to_string((state_.**calls).size());
    if (auto *contexts = std::get_if<std::vector<PdpContext> ModemState::*>(&field->member))
        return std::to_string((state_.**contexts).size());
    return state_.*std::get<bool ModemState::*>(field->member) ? "1" : "0";
}

void Modem::set(const json &values) {
    if (!values.is_object())
        throw std::invalid_argument("the state is an object of fields");
    ModemState changed = state_;
    for (auto &[name, value] : values.items()) {
        const Field *field = find(name);
        if (!field)
            throw std::invalid_argument("unknown field \"" + name + "\"");
        std::visit(Store{changed, *field, value}, field->member);
    }
    std::swap(state_, changed);
    report(changed);
}

void Modem::reset() {
    state_ = {};
}

void Modem::reset(const json &given) {
    Modem fresh;
    fresh.set(given);
    state_ = std::move(fresh.state_);
}

void Modem::report(const ModemState &before) const {
    if (on_change)
        on_change();
    for (const std::string &line : reports(before, state_))
        unsolicited(line);
}

void Modem::set_text(std::string_view name, const std::string &text) {
    const Field *field = find(name);
    if (!field)
        throw std::invalid_argument("unknown field \"" + std::string(name) + "\"");
    json value = text;
    if (!std::holds_alternative<std::string ModemState::*>(field->member)) {
        int32_t number = 0;
        auto end = text.data() + text.size();
        if (auto parsed = std::from_chars(text.data(), end, number); parsed.ec != std::errc() || parsed.ptr != end)
            refuse(*field, "is a number");
        value = number;
        if (std::holds_alternative<bool ModemState::*>(field->member)) {
            if (number != 0 && number != 1)
                refuse(*field, "is 0 or 1");
            value = number == 1;
        }
    }
    std::visit(Store{state_, *field, value}, field->member);
}

} // namespace tavrik::sim
