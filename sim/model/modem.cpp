#include "model/modem.h"

#include <charconv>
#include <climits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <variant>

namespace tavrik::sim {

using nlohmann::json;

namespace {

struct Field {
    std::string_view name;
    std::variant<std::string ModemState::*, int32_t ModemState::*, bool ModemState::*> member;
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
};

} // namespace

bool Modem::has(std::string_view field) {
    return find(field) != nullptr;
}

json Modem::get() const {
    json all = json::object();
    for (const Field &field : fields)
        std::visit([&](auto member) { all[std::string(field.name)] = state_.*member; }, field.member);
    return all;
}

std::string Modem::text(std::string_view name) const {
    const Field *field = find(name);
    if (!field)
        return {};
    if (auto *text = std::get_if<std::string ModemState::*>(&field->member))
        return state_.**text;
    if (auto *number = std::get_if<int32_t ModemState::*>(&field->member))
        return std::to_string(state_.**number);
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
    state_ = std::move(changed);
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
