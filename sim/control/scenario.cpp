#include "control/scenario.h"

#include "control/args.h"

#include <cmath>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tavrik::sim {

using nlohmann::json;

namespace {

Scenario::Call read_call(const json &call, std::string place, Context &context) {
    if (!call.is_object() || !call.contains("verb") || !call["verb"].is_string())
        throw std::invalid_argument("not an object with a \"verb\"");
    Scenario::Call read{std::move(place), {}, {}};
    for (auto &[key, value] : call.items()) {
        if (key == "at") {
            if (!value.is_number() || value.get<double>() < 0 || value.get<double>() > 1e9)
                throw std::invalid_argument("\"at\" is a number of seconds");
            read.at_ms = std::llround(value.get<double>() * 1000);
        } else if (key != "verb" && key != "args" && key != "about") {
            throw std::invalid_argument("unknown key \"" + key + "\"");
        }
    }
    read.action = prepare(context, call["verb"].get<std::string>(), call.value("args", json::object()));
    return read;
}

} // namespace

Scenario Scenario::load(const std::string &path, Context &context) {
    std::ifstream file(path);
    std::stringstream text;
    if (!file || !(text << file.rdbuf()))
        throw std::runtime_error(path + ": cannot be read");
    Scenario scenario;
    std::string place;
    try {
        json content = parse_json(text.str());
        if (!content.is_object())
            throw std::invalid_argument("not an object");
        for (auto &[key, value] : content.items()) {
            place = key + ": ";
            if (key == "state") {
                Modem().set(value);
                scenario.state = value;
            } else if (key == "rules") {
                place.clear(); // the table names it
                RuleTable().add(value);
                scenario.rules = value;
            } else if (key == "calls") {
                if (!value.is_array())
                    throw std::invalid_argument("not an array");
                for (size_t i = 0; i < value.size(); i++) {
                    std::string number = "calls[" + std::to_string(i) + "]";
                    place = number + ": ";
                    scenario.calls.push_back(read_call(value[i], number, context));
                }
            } else if (key != "about") {
                throw std::invalid_argument("unknown key");
            }
        }
    } catch (const std::exception &error) {
        throw std::runtime_error(path + ": " + place + error.what());
    }
    return scenario;
}

} // namespace tavrik::sim
