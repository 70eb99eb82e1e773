#include "model/receiver.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "control/args.h"
#include "model/drive.h"

namespace tavrik::sim {

using nlohmann::json;

namespace {

constexpr std::string_view sync("\xf1\xd9", 2);

// The time that a sentence tells, empty when it tells none.
std::string_view time_in(std::string_view line) {
    if (line.size() < 7 || line[0] != '$' || line[6] != ',')
        return {};
    const std::string_view type = line.substr(3, 3);
    const int field = type == "RMC" || type == "GGA" || type == "GNS" || type == "ZDA" ? 1 : type == "GLL" ? 5 : 0;
    size_t begin = 0;
    for (int i = 0; i < field && begin < line.size(); i++)
        begin = std::min(line.find(',', begin), line.size() - 1) + 1;
    return field ? line.substr(begin, std::min(line.find(',', begin), line.size()) - begin) : std::string_view();
}

// The lines of a file, those of one time together.
std::vector<std::string> load(const std::string &path) {
    std::ifstream file(path);
    std::vector<std::string> epochs;
    std::string time;
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.empty())
            continue;
        const std::string_view told = time_in(line);
        if (epochs.empty() || (!told.empty() && !time.empty() && told != time))
            epochs.emplace_back();
        if (!told.empty())
            time = told;
        epochs.back() += line + "\r\n";
    }
    if (epochs.empty())
        throw std::invalid_argument(path + ": no track");
    return epochs;
}

} // namespace

void Receiver::set(const json &object, int64_t now) {
    Args args(object);
    Settings settings = settings_;
    const auto number = [&](const char *key, int64_t min, int64_t max, auto &field) {
        if (const auto given = args.number(key, min, max))
            field = static_cast<std::decay_t<decltype(field)>>(*given);
    };
    number("hz", 1, 100, settings.hz);
    number("utc_ms", 0, INT64_C(4102444800000), settings.utc_ms);
    number("messages", 0, 0x1F, settings.messages);
    number("hot_ms", 0, INT32_MAX, settings.hot_ms);
    number("cold_ms", 0, INT32_MAX, settings.cold_ms);
    if (object.contains("loop"))
        settings.loop = args.flag("loop");
    const bool plays = object.contains("play"), play = args.flag("play");
    const std::optional<std::string> track = args.text("track");
    args.finish();
    if (track) {
        settings.epochs = *track == "drive" ? std::vector<std::string>() : load(*track);
        settings.track = *track;
        next_epoch_ = 0;
    }
    settings_ = std::move(settings);
    last_turn_ = -1;
    if (plays)
        power(play, now);
    changed();
}

json Receiver::get() const {
    return {{"track", settings_.track},
            {"hz", settings_.hz},
            {"utc_ms", settings_.utc_ms},
            {"messages", settings_.messages},
            {"hot_ms", settings_.hot_ms},
            {"cold_ms", settings_.cold_ms},
            {"loop", settings_.loop},
            {"play", on_},
            {"epochs", settings_.epochs.size()},
            {"next", next_epoch_}};
}

void Receiver::reset() {
    settings_ = {};
    on_ = false;
    fix_ms_ = 0;
    last_turn_ = -1;
    next_epoch_ = 0;
    changed();
}

void Receiver::power(bool on, int64_t now) {
    if (std::exchange(on_, on) == on)
        return;
    fix_ms_ = now + settings_.hot_ms;
    next_epoch_ = 0;
    changed();
}

size_t Receiver::command_length(std::string_view input) {
    if (input.substr(0, 2) == sync) {
        if (input.size() < 6)
            return 0;
        const size_t length =
            8 + static_cast<unsigned char>(input[4]) + 256 * static_cast<size_t>(static_cast<unsigned char>(input[5]));
        return input.size() < length ? 0 : length;
    }
    const size_t line = input.find('\n'), message = input.find(sync);
    const size_t end = std::min(line == std::string_view::npos ? line : line + 1, message);
    return end == std::string_view::npos ? 0 : end;
}

void Receiver::obey(std::string_view command, int64_t now) {
    constexpr std::string_view stop("\xf1\xd9\x06\x41\x05\0\0\0\0\0\x03\x4f\x64", 13);
    constexpr std::string_view message_mask = "$MSGCFG,0,0x";
    if (command.substr(0, 2) == sync) {
        if (command == stop)
            power(false, now);
        return;
    }
    const std::string line(command.substr(0, command.find_first_of("\r\n")));
    if (line == "$RESET,1" || line == "$RESET,3")
        fix_ms_ = now + (line.back() == '1' ? settings_.hot_ms : settings_.cold_ms);
    else if (line.rfind(message_mask, 0) == 0)
        settings_.messages = static_cast<uint32_t>(strtoul(line.c_str() + message_mask.size(), nullptr, 16)) & 0x1F;
}

int64_t Receiver::next(int64_t now) const {
    if (!on_ || (!settings_.epochs.empty() && next_epoch_ == settings_.epochs.size()))
        return -1;
    return turn(now) == last_turn_ ? (last_turn_ + 1) * (1000 / settings_.hz) - now : 0;
}

std::string Receiver::say(int64_t now) {
    last_turn_ = turn(now);
    if (settings_.epochs.empty()) {
        const int64_t moment = last_turn_ * (1000 / settings_.hz);
        return drive_sentences(settings_.utc_ms + moment, moment, now >= fix_ms_, settings_.messages);
    }
    std::string said = settings_.epochs[next_epoch_++];
    if (settings_.loop && next_epoch_ == settings_.epochs.size())
        next_epoch_ = 0;
    return said;
}

} // namespace tavrik::sim
