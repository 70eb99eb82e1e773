// Parts of the simulated modem that need no sandbox: the record's bounds, the receiver's drive and commands.
#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <sstream>

#include "control/record.h"
#include "model/receiver.h"

using namespace tavrik::sim;

TEST(Record, IsBoundedAndKeepsBytes) {
    Record record;
    record.add("at", 1, "AT+\xff");
    record.add_ril(538, "\x01\0\0", 4);
    EXPECT_EQ(record.read({}, 1)["entries"][0]["hex"], "41542bff");
    EXPECT_EQ(record.read({}, 2)["entries"][1]["data"], "01000000");
    for (size_t i = 0; i < Record::max_entries; i++)
        record.add("at", 1, "AT");
    Record::Filter late;
    late.after = record.last() - 2;
    late.text = "A*T*";
    EXPECT_EQ(record.count(late), 2u);
    const auto rest = record.read(late, 1);
    EXPECT_EQ(rest["dropped"], 2);
    EXPECT_EQ(rest["entries"][0]["n"], Record::max_entries + 1);
}

// Five minutes, over the end of a year and round the circle: time, place and speed fit each other.
TEST(Receiver, DrivesAPlausibleRound) {
    Receiver receiver;
    receiver.power(true, 0);
    double north = 0, east = 0;
    int west = 0;
    for (int second = 0; second < 300; second++) {
        std::istringstream lines(receiver.say(second * 1000));
        for (std::string line; std::getline(lines, line);) {
            char sum = 0, got[32], wanted[32], sides[2];
            for (size_t i = 1; i < line.size() - 4; i++)
                sum = char(sum ^ line[i]);
            EXPECT_EQ(sum, std::stoi(line.substr(line.size() - 3), nullptr, 16)) << line;
            double y, y_minutes, x, x_minutes, knots, course;
            if (sscanf(line.c_str(), "$GNRMC,%10s,A,%2lf%lf,%c,%3lf%lf,%c,%lf,%lf,%s", got, &y, &y_minutes, sides, &x,
                       &x_minutes, sides + 1, &knots, &course, got + 10) != 10)
                continue;
            const int clock = (86370 + second) % 86400;
            snprintf(wanted, sizeof wanted, "%02d%02d%02d.000%s", clock / 3600, clock / 60 % 60, clock % 60,
                     second < 30 ? "311225" : "010126");
            EXPECT_EQ(std::string(got, 16), wanted);
            y = (y + y_minutes / 60) * 111320;
            x = (x + x_minutes / 60) * 111320 * std::cos(0.8985) * (sides[1] == 'W' ? -1 : 1);
            west += sides[1] == 'W';
            if (second) {
                EXPECT_NEAR(std::hypot(y - north, x - east), knots * 1852 / 3600, 0.1) << second;
                EXPECT_NEAR(std::remainder(std::atan2(x - east, y - north) * 180 / M_PI - course, 360), 0, 2) << second;
            }
            north = y;
            east = x;
        }
    }
    EXPECT_NEAR(west, 130, 2); // a round takes 226 s, and starts in the east
}

TEST(Receiver, ObeysCommands) {
    const std::string stop("\xf1\xd9\x06\x41\x05\0\0\0\0\0\x03\x4f\x64", 13);
    Receiver receiver;
    receiver.set({{"hot_ms", 500}, {"cold_ms", 2000}}, 0);
    receiver.power(true, 1000);
    const auto knows = [&](int64_t now) { return receiver.say(now).find(".000,A,") != std::string::npos; };
    EXPECT_TRUE(!knows(1499) && knows(1500));
    receiver.obey("$RESET,3\r\n", 5000);
    EXPECT_TRUE(!knows(6999) && knows(7000));
    receiver.obey("$RESET,1\r\n", 8000);
    EXPECT_TRUE(!knows(8499) && knows(8500));
    receiver.obey("$MSGCFG,0,0x12\r\n", 9000);
    const std::string said = receiver.say(9000);
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 5); // GSA of four systems, VTG
    receiver.obey(stop.substr(0, 12) + "\x65", 9000);
    EXPECT_TRUE(receiver.on());
    receiver.obey(stop, 9000);
    EXPECT_FALSE(receiver.on());
    const std::pair<std::string, size_t> lengths[] = {
        {"$RESET,1\r", 0}, {"$RESET,1\r\n$", 10}, {stop + stop, 13}, {stop.substr(0, 12), 0}, {"a\n" + stop, 2}};
    for (auto &[input, length] : lengths)
        EXPECT_EQ(Receiver::command_length(input), length) << input;
}
