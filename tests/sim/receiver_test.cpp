// The simulated receiver without its port: what it says, and the commands that it obeys.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "model/drive.h"
#include "model/receiver.h"

using namespace tavrik::sim;
using nlohmann::json;

namespace {

std::vector<std::string> split(const std::string &text, char at) {
    std::vector<std::string> parts(1);
    for (const char c : text)
        if (c == at)
            parts.emplace_back();
        else
            parts.back() += c;
    return parts;
}

// Fields of each sentence, by its type; checks the frame of all.
std::multimap<std::string, std::vector<std::string>> sentences(const std::string &said) {
    std::multimap<std::string, std::vector<std::string>> found;
    for (const std::string &line : split(said, '\n')) {
        if (line.empty())
            continue;
        EXPECT_TRUE(line.front() == '$' && line.back() == '\r' && line[line.size() - 4] == '*' && line.size() <= 83)
            << line;
        int sum = 0;
        for (size_t i = 1; i < line.size() - 4; i++)
            sum ^= line[i];
        EXPECT_EQ(sum, strtol(line.c_str() + line.size() - 3, nullptr, 16)) << line;
        auto fields = split(line.substr(1, line.size() - 5), ',');
        found.emplace(fields[0].substr(2), fields);
    }
    return found;
}

double degrees(const std::string &value, const std::string &side) {
    const size_t whole = value.find('.') - 2;
    const double angle = std::stod(value.substr(0, whole)) + std::stod(value.substr(whole)) / 60;
    return side == "S" || side == "W" ? -angle : angle;
}

// Five minutes, over the end of a year and round the circle: time, place, speed and satellites fit each other.
TEST(Receiver, DrivesAPlausibleRound) {
    Receiver receiver;
    receiver.power(true, 0);
    double north = 0, east = 0;
    int west = 0;
    for (int second = 0; second < 300; second++) {
        auto said = sentences(receiver.say(second * 1000));
        ASSERT_EQ(said.count("RMC") + said.count("GGA") + said.count("VTG"), 3u);
        const auto rmc = said.find("RMC")->second, gga = said.find("GGA")->second, vtg = said.find("VTG")->second;
        ASSERT_TRUE(rmc.size() == 14 && gga.size() == 15 && vtg.size() == 10) << second;
        char time[16];
        const int clock = (86370 + second) % 86400;
        snprintf(time, sizeof time, "%02d%02d%02d.000", clock / 3600, clock / 60 % 60, clock % 60);
        EXPECT_EQ(rmc[1] + rmc[9], time + std::string(second < 30 ? "311225" : "010126"));
        EXPECT_EQ(std::vector(rmc.begin() + 3, rmc.begin() + 7), std::vector(gga.begin() + 2, gga.begin() + 6));
        EXPECT_EQ(rmc[2] + gga[6] + vtg[9], "A1A");
        const double y = degrees(rmc[3], rmc[4]) * 111320, x = degrees(rmc[5], rmc[6]) * 111320 * std::cos(0.8985);
        west += rmc[6] == "W";
        if (second) {
            EXPECT_NEAR(std::hypot(y - north, x - east), std::stod(rmc[7]) * 1852 / 3600, 0.1) << second;
            const double way = std::fmod(std::atan2(x - east, y - north) * 180 / M_PI + 360, 360);
            EXPECT_LT(std::fabs(std::remainder(way - std::stod(rmc[8]), 360)), 2) << second;
        }
        north = y;
        east = x;
        // Every satellite in use is among those in view, and heard.
        std::map<std::string, std::map<std::string, std::string>> seen; // strength by talker and id
        for (auto [row, end] = said.equal_range("GSV"); row != end; ++row) {
            const auto &fields = row->second;
            for (size_t i = 4; i + 4 < fields.size(); i += 4)
                seen[fields[0].substr(0, 2)][fields[i]] = fields[i + 3];
            EXPECT_EQ(fields.size(), 5 + 4 * std::min(4, std::stoi(fields[3]) - 4 * (std::stoi(fields[2]) - 1)));
        }
        int used = 0;
        for (auto [row, end] = said.equal_range("GSA"); row != end; ++row) {
            const auto &fields = row->second;
            ASSERT_EQ(fields.size(), 19u);
            static const char *const talkers[] = {"", "GP", "GL", "GA", "GB"};
            for (size_t i = 3; i < 15 && !fields[i].empty(); i++, used++)
                EXPECT_NE(seen[talkers[std::stoi(fields[18])]][fields[i]], "") << fields[i];
        }
        EXPECT_EQ(std::to_string(used), gga[7]);
        EXPECT_EQ(seen.size(), 4u);
    }
    EXPECT_NEAR(west, 130, 2); // a round takes 226 s, and starts in the east
}

TEST(Receiver, ObeysCommands) {
    const std::string stop("\xf1\xd9\x06\x41\x05\0\0\0\0\0\x03\x4f\x64", 13);
    std::string spoilt = stop;
    spoilt.back()++;
    Receiver receiver;
    receiver.set({{"hot_ms", 500}, {"cold_ms", 2000}}, 0);
    receiver.power(true, 1000);
    const auto quality = [&](int64_t now) {
        auto said = sentences(receiver.say(now));
        const auto gga = said.find("GGA")->second, rmc = said.find("RMC")->second;
        EXPECT_EQ(gga[2].empty(), gga[6] == "0");
        EXPECT_EQ(rmc[2] + rmc[12], gga[6] == "0" ? "VN" : "AA");
        EXPECT_EQ(gga.size() + rmc.size(), 29u);
        return gga[6];
    };
    EXPECT_EQ(quality(1499) + quality(1500), "01");
    receiver.obey("$RESET,3\r\n", 5000);
    EXPECT_EQ(quality(6999) + quality(7000), "01");
    receiver.obey("$RESET,1\r\n", 8000);
    EXPECT_EQ(quality(8499) + quality(8500), "01");
    receiver.obey("$RESET,2\r\n", 9000);
    receiver.obey("$MSGCFG,0,0x12\r\n", 9000);
    auto said = sentences(receiver.say(9000));
    EXPECT_TRUE(said.count("GSA") == 4 && said.count("VTG") == 1 && said.size() == 5);
    receiver.obey(spoilt, 9000);
    EXPECT_TRUE(receiver.on());
    receiver.obey(stop, 9000);
    EXPECT_FALSE(receiver.on());
    EXPECT_EQ(receiver.next(9000), -1);

    const std::pair<std::string, size_t> lengths[] = {
        {"", 0},           {"$RESET,1\r", 0}, {"$RESET,1\r\n$", 10}, {stop, 13},  {stop.substr(0, 12), 0},
        {stop + stop, 13}, {"ab" + stop, 2},  {"a\n" + stop, 2},     {"\xf1", 0}, {"\xf1\n", 2},
    };
    for (auto &[input, length] : lengths)
        EXPECT_EQ(Receiver::command_length(input), length) << input;
}

TEST(Receiver, PlaysAFileByItsTimes) {
    char path[] = "/tmp/track.XXXXXX";
    close(mkstemp(path));
    std::ofstream(path) << "$GPTXT,start*00\n$GNGGA,100000.0,1*00\r\n$GNRMC,100000.0,A*00\n\n$GPGSV,1*00\n"
                           "$GNRMC,100000.5,V*00\nnoise\n$GNGLL,1,N,2,E,100000.5,A*00\n$GNGLL,1,N,2,E,100001.0,A*00";
    const std::vector<std::string> epochs = {
        "$GPTXT,start*00\r\n$GNGGA,100000.0,1*00\r\n$GNRMC,100000.0,A*00\r\n$GPGSV,1*00\r\n",
        "$GNRMC,100000.5,V*00\r\nnoise\r\n$GNGLL,1,N,2,E,100000.5,A*00\r\n", "$GNGLL,1,N,2,E,100001.0,A*00\r\n"};
    for (const bool loop : {false, true}) {
        Receiver receiver;
        receiver.set({{"track", path}, {"hz", 10}, {"loop", loop}, {"play", true}}, 0);
        for (int round = 0; round < 2; round++) {
            for (int i = 0; i < 3; i++) {
                const int64_t now = round * 1000 + i * 100 + 7;
                EXPECT_EQ(receiver.next(now), 0);
                EXPECT_EQ(receiver.say(now), epochs[size_t(i)]);
                EXPECT_EQ(receiver.next(now), i < 2 || loop ? 93 : -1);
            }
            if (!loop) { // switched off and on it begins anew
                receiver.power(false, 0);
                receiver.power(true, 0);
            }
        }
    }
    unlink(path);
    Receiver receiver;
    const json before = receiver.get();
    for (const json &bad : {json{{"track", path}}, json{{"track", "/dev/null"}}, json{{"hz", 0}, {"play", true}},
                            json{{"hz", 101}}, json{{"play", 1}}, json{{"play", true}, {"speed", 1}}}) {
        EXPECT_THROW(receiver.set(bad, 0), std::invalid_argument) << bad;
        EXPECT_EQ(receiver.get(), before) << bad;
    }
}

} // namespace
