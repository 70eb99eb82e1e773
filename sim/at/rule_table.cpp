#include "at/rule_table.h"

#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

namespace tavrik::sim {

using nlohmann::json;

extern const char *const built_in_rules[]; // each a JSON array; the last one is null

namespace {

constexpr uint64_t max_later_ms = uint64_t(1000) * 24 * 3600 * 1000;

// A text with places to fill: the literal part in front of each, and the rest.
struct Template {
    struct Place {
        std::string before;
        std::string name;
    };
    std::vector<Place> places;
    std::string rest;

    explicit Template(const std::string &text) {
        size_t from = 0;
        for (size_t open; (open = text.find('{', from)) != std::string::npos;) {
            size_t close = text.find('}', open);
            if (close == std::string::npos)
                throw std::invalid_argument("\"{\" without \"}\" in \"" + text + "\"");
            places.push_back({text.substr(from, open - from), text.substr(open + 1, close - open - 1)});
            from = close + 1;
        }
        rest = text.substr(from);
    }
};

using Captures = std::vector<std::pair<std::string_view, std::string_view>>;

char upper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// Literal parts of a pattern stand for both cases.
bool begins_with(std::string_view text, std::string_view prefix) {
    if (text.size() < prefix.size())
        return false;
    for (size_t i = 0; i < prefix.size(); i++)
        if (upper(text[i]) != upper(prefix[i]))
            return false;
    return true;
}

// A place takes the text up to the next occurrence of the literal part behind it; the last part ends the command.
bool match(const Template &pattern, std::string_view command, Captures *captures) {
    for (size_t i = 0; i < pattern.places.size(); i++) {
        if (!begins_with(command, pattern.places[i].before))
            return false;
        command.remove_prefix(pattern.places[i].before.size());
        bool last = i + 1 == pattern.places.size();
        std::string_view behind = last ? pattern.rest : pattern.places[i + 1].before;
        size_t length = 0;
        if (last) {
            if (command.size() < behind.size())
                return false;
            length = command.size() - behind.size();
        } else {
            while (length < command.size() && !begins_with(command.substr(length), behind))
                length++;
        }
        captures->emplace_back(pattern.places[i].name, command.substr(0, length));
        command.remove_prefix(length);
    }
    return command.size() == pattern.rest.size() && begins_with(command, pattern.rest);
}

std::string fill(const Template &text, const Captures &captures, const Modem &modem) {
    std::string result;
    for (const Template::Place &place : text.places) {
        result += place.before;
        bool captured = false;
        for (auto &[name, value] : captures)
            if (!captured && name == place.name) {
                result += value;
                captured = true;
            }
        if (!captured)
            result += modem.text(place.name);
    }
    return result += text.rest;
}

} // namespace

struct RuleTable::Rule {
    Template command;
    std::vector<std::pair<std::string, std::string>> when;
    std::vector<std::pair<std::string, Template>> set;
    std::vector<std::pair<std::string, Template>> act;
    std::vector<Template> lines;
    std::optional<Template> final;
    std::optional<Template> reply; // in place of lines and final
    std::vector<std::pair<int64_t, Template>> later;
};

namespace {

std::string text_of(const json &value) {
    if (value.is_boolean())
        return value.get<bool>() ? "1" : "0";
    return value.is_string() ? value.get<std::string>() : value.dump();
}

const std::string &string_in(const json &value) {
    if (!value.is_string())
        throw std::invalid_argument("not a text");
    return value.get_ref<const std::string &>();
}

void check_kind(bool right, const char *what) {
    if (!right)
        throw std::invalid_argument(std::string("not ") + what);
}

void check_field(const std::string &name) {
    if (!Modem::has(name))
        throw std::invalid_argument("unknown field \"" + name + "\"");
}

// Every place of `text` can be filled by the command or by the modem.
void check_places(const Template &text, const Template &command) {
    for (const Template::Place &place : text.places) {
        bool known = Modem::shows(place.name);
        for (const Template::Place &captured : command.places)
            known = known || captured.name == place.name;
        if (!known)
            throw std::invalid_argument("unknown field \"" + place.name + "\"");
    }
}

} // namespace

RuleTable::RuleTable() = default;
RuleTable::~RuleTable() = default;
RuleTable::RuleTable(RuleTable &&) noexcept = default;
RuleTable &RuleTable::operator=(RuleTable &&) noexcept = default;
RuleTable::RuleTable(const RuleTable &) = default;

RuleTable RuleTable::built_in() {
    RuleTable table;
    for (const char *const *rules = built_in_rules; *rules; rules++)
        table.add(json::parse(*rules));
    return table;
}

void RuleTable::add(const json &rules) {
    if (!rules.is_array())
        throw std::invalid_argument("rules: not an array");
    std::vector<Rule> added;
    std::string place;
    try {
        for (size_t i = 0; i < rules.size(); i++) {
            std::string number = "rules[" + std::to_string(i) + "]";
            place = number;
            check_kind(rules[i].is_object(), "an object");
            place = number + ".command";
            Rule rule{Template(string_in(rules[i].value("command", json()))), {}, {}, {}, {}, Template("OK"), {}, {}};
            auto template_in = [&](const json &value) {
                Template text(string_in(value));
                check_places(text, rule.command);
                return text;
            };
            for (auto &[key, value] : rules[i].items()) {
                place.assign(number).append(".").append(key);
                if (key == "when" || key == "set") {
                    check_kind(value.is_object(), "an object");
                    for (auto &[field, content] : value.items()) {
                        if (key == "set" || !Modem::shows(field))
                            check_field(field);
                        if (key == "when")
                            rule.when.emplace_back(field, text_of(content));
                        else
                            rule.set.emplace_back(field, template_in(text_of(content)));
                    }
                } else if (key == "act") {
                    check_kind(value.is_object(), "an object");
                    for (auto &[action, argument] : value.items()) {
                        if (!Modem::knows(action))
                            throw std::invalid_argument("unknown action \"" + action + "\"");
                        rule.act.emplace_back(action, template_in(text_of(argument)));
                    }
                } else if (key == "lines") {
                    check_kind(value.is_array(), "an array");
                    for (const json &line : value)
                        rule.lines.push_back(template_in(line));
                } else if (key == "final") {
                    if (value.is_null())
                        rule.final.reset();
                    else
                        rule.final = template_in(value);
                } else if (key == "reply") {
                    rule.reply = template_in(value);
                } else if (key == "later") {
                    check_kind(value.is_array(), "an array");
                    for (const json &one : value) {
                        check_kind(one.is_object() && one.contains("line"), "an object with \"line\"");
                        json after = one.value("after", json(0u));
                        check_kind(after.is_number_unsigned() && after.get<uint64_t>() <= max_later_ms,
                                   "a number of ms in \"after\"");
                        rule.later.emplace_back(after.get<int64_t>(), template_in(one["line"]));
                    }
                } else if (key != "command" && key != "about") {
                    throw std::invalid_argument("unknown key");
                }
            }
            added.push_back(std::move(rule));
        }
    } catch (const std::exception &error) {
        throw std::invalid_argument(place + ": " + error.what());
    }
    rules_.insert(rules_.begin(), std::make_move_iterator(added.begin()), std::make_move_iterator(added.end()));
}

RuleTable::Reply RuleTable::answer(std::string_view command, Modem &modem) const {
    Captures captures;
    for (const Rule &rule : rules_) {
        captures.clear();
        if (!match(rule.command, command, &captures))
            continue;
        bool fits = true;
        for (auto &[field, value] : rule.when)
            fits = fits && modem.text(field) == value;
        if (!fits)
            continue;
        if (!rule.set.empty()) {
            ModemState before = modem.state();
            try {
                for (auto &[field, value] : rule.set)
                    modem.set_text(field, fill(value, captures, modem));
            } catch (const std::invalid_argument &) {
                modem.state() = std::move(before);
                break; // a value that the modem does not take
            }
            modem.report(before);
        }
        bool acted = true;
        for (auto &[action, argument] : rule.act)
            acted = acted && modem.act(action, fill(argument, captures, modem));
        if (!acted)
            break;
        Reply reply;
        if (rule.reply) {
            reply.text = fill(*rule.reply, captures, modem);
        } else {
            if (!rule.lines.empty())
                reply.text = "\r\n";
            for (const Template &line : rule.lines)
                reply.text += fill(line, captures, modem) + "\r\n";
            if (rule.final)
                reply.text += "\r\n" + fill(*rule.final, captures, modem) + "\r\n";
        }
        for (auto &[after, line] : rule.later)
            reply.later.push_back({after, fill(line, captures, modem)});
        return reply;
    }
    return {"\r\nERROR\r\n", {}};
}

} // namespace tavrik::sim
