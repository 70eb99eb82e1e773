#include "control/args.h"

namespace tavrik::sim {

using nlohmann::json;

namespace {

[[noreturn]] void refuse(const char *key, const std::string &what) {
    throw std::invalid_argument("\"" + std::string(key) + "\" is " + what);
}

int hex_digit(char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
}

size_t position(const char *key, const json &value) {
    if (!value.is_number_unsigned() || !value.get<uint64_t>())
        refuse(key, "a position from 1 on, a rising list of them, or {\"every\": n}");
    return value.get<size_t>();
}

} // namespace

const json *Args::take(const char *key) {
    taken_.insert(key);
    auto found = object_.find(key);
    return found == object_.end() ? nullptr : &*found;
}

std::optional<int64_t> Args::number(const char *key, int64_t min, int64_t max) {
    const json *value = take(key);
    if (!value)
        return {};
    bool good = value->is_number_integer() && !(value->is_number_unsigned() && value->get<uint64_t>() > INT64_MAX);
    if (!good || value->get<int64_t>() < min || value->get<int64_t>() > max)
        refuse(key, "a whole number from " + std::to_string(min) + " to " + std::to_string(max));
    return value->get<int64_t>();
}

int Args::milliseconds(const char *key, int fallback) {
    return static_cast<int>(number(key, 0, INT_MAX / 2).value_or(fallback));
}

std::optional<std::string> Args::text(const char *key) {
    const json *value = take(key);
    if (!value)
        return {};
    if (!value->is_string())
        refuse(key, "a text");
    return value->get<std::string>();
}

std::optional<std::string> Args::text_or_number(const char *key) {
    const json *value = take(key);
    if (value && value->is_number_integer())
        return value->dump();
    return text(key);
}

std::optional<std::string> Args::hex(const char *key) {
    std::optional<std::string> digits = text(key);
    if (!digits)
        return {};
    std::string bytes;
    for (size_t i = 0; i < digits->size(); i += 2) {
        int high = hex_digit((*digits)[i]);
        int low = i + 1 < digits->size() ? hex_digit((*digits)[i + 1]) : -1;
        if (high < 0 || low < 0)
            refuse(key, "an even number of hex digits");
        bytes += static_cast<char>(high << 4 | low);
    }
    return bytes;
}

std::optional<std::string> Args::bytes(const char *text_key) {
    std::optional<std::string> plain = text(text_key);
    std::optional<std::string> coded = hex("hex");
    if (plain && coded)
        throw std::invalid_argument("\"" + std::string(text_key) + "\" and \"hex\" exclude each other");
    return coded ? coded : plain;
}

bool Args::flag(const char *key) {
    const json *value = take(key);
    if (value && !value->is_boolean())
        refuse(key, "true or false");
    return value && value->get<bool>();
}

Cuts Args::cuts(const char *key) {
    Cuts cuts;
    const json *value = take(key);
    if (!value)
        return cuts;
    if (value->is_object() && value->size() == 1 && value->contains("every")) {
        cuts.every = position(key, (*value)["every"]);
    } else if (value->is_array()) {
        for (const json &one : *value) {
            cuts.at.push_back(position(key, one));
            if (cuts.at.size() > 1 && cuts.at.end()[-2] >= cuts.at.back())
                refuse(key, "not rising");
        }
    } else {
        cuts.at.push_back(position(key, *value));
    }
    return cuts;
}

void Args::finish() const {
    for (auto &[key, value] : object_.items())
        if (!taken_.count(key))
            throw std::invalid_argument("unknown argument \"" + key + "\"");
}

json parse_json(const std::string &text) {
    constexpr int max_depth = 64;
    return json::parse(text, [](int depth, json::parse_event_t, json &) {
        if (depth > max_depth)
            throw std::invalid_argument("nested too deeply");
        return true;
    });
}

std::string to_hex(const std::string &bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

bool wildcard_match(std::string_view pattern, std::string_view text) {
    // A part that did not fit is tried again one further behind the last star.
    size_t p = 0, t = 0, star = std::string_view::npos, resume = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            resume = t;
        } else if (p < pattern.size() && pattern[p] == text[t]) {
            p++, t++;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            t = ++resume;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*')
        p++;
    return p == pattern.size();
}

} // namespace tavrik::sim
