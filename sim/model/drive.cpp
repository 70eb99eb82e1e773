#include "model/drive.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <vector>

namespace tavrik::sim {

namespace {

constexpr double pi = 3.14159265358979323846;
constexpr double centre_latitude = 51.4779, radius_m = 500, speed_mps = 13.9, metres_per_degree = 111320;

__attribute__((format(printf, 1, 2))) std::string format(const char *pattern, ...) {
    char text[128];
    va_list arguments;
    va_start(arguments, pattern);
    vsnprintf(text, sizeof text, pattern, arguments);
    va_end(arguments);
    return text;
}

// Degrees as NMEA writes them, with the letter of their side.
std::string degrees(double value, int width, const char *sides) {
    const auto units = static_cast<long long>(std::llround(std::fabs(value) * 60 * 100000));
    return format("%0*lld%02lld.%05lld,%c", width, units / 6000000, units / 100000 % 60, units % 100000,
                  sides[value < 0]);
}

struct System {
    const char *talker;
    int number, signal, first, in_view;
};
constexpr System systems[] = {{"GP", 1, 1, 2, 10}, {"GL", 2, 1, 67, 7}, {"GA", 3, 7, 3, 6}, {"GB", 4, 1, 6, 5}};

struct Satellite {
    int id, elevation, azimuth, strength; // 0 for one that is seen no more than in the almanac
};

std::vector<Satellite> sky(const System &system, int64_t seconds) {
    std::vector<Satellite> satellites;
    for (int i = 0; i < system.in_view; i++) {
        const int elevation = (i * 37 + system.number * 11) % 86 + 2;
        const auto azimuth = static_cast<int>((i * 79 + system.number * 23 + seconds / 60) % 360);
        const auto strength = static_cast<int>(elevation < 8 ? 0 : 22 + elevation / 4 + (seconds + i) % 3);
        satellites.push_back({system.first + i * 3, elevation, azimuth, strength});
    }
    return satellites;
}

} // namespace

std::string nmea_sentence(std::string_view body) {
    unsigned sum = 0;
    for (const char c : body)
        sum ^= static_cast<unsigned char>(c);
    return "$" + std::string(body) + format("*%02X\r\n", sum);
}

std::string drive_sentences(int64_t utc_ms, int64_t drive_ms, bool fix, uint32_t messages) {
    const double angle = speed_mps * static_cast<double>(drive_ms) / 1000 / radius_m;
    const double latitude = centre_latitude + radius_m * std::sin(angle) / metres_per_degree;
    const double longitude =
        radius_m * std::cos(angle) / metres_per_degree / std::cos(centre_latitude * pi / 180); // starts in the east
    const double course = std::fmod(360 + std::fmod(360 - angle * 180 / pi, 360), 360);
    const std::string place = degrees(latitude, 2, "NS") + "," + degrees(longitude, 3, "EW");
    const auto seconds = static_cast<time_t>(utc_ms / 1000);
    tm utc = {};
    gmtime_r(&seconds, &utc);
    const std::string time =
        format("%02d%02d%02d.%03d", utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<int>(utc_ms % 1000));
    const std::string date = format("%02d%02d%02d", utc.tm_mday, utc.tm_mon + 1, utc.tm_year % 100);
    const double knots = speed_mps * 3600 / 1852;

    std::string gsa, gsv;
    int used = 0;
    for (const System &system : systems) {
        const std::vector<Satellite> satellites = sky(system, drive_ms / 1000);
        std::string ids;
        int here = 0;
        for (const Satellite &satellite : satellites)
            if (fix && satellite.strength >= 25 && here < 12) {
                ids += format("%02d,", satellite.id);
                here++;
            }
        used += here;
        gsa +=
            nmea_sentence(format("GNGSA,A,%d,", fix ? 3 : 1) + ids + std::string(static_cast<size_t>(12 - here), ',') +
                          (fix ? "1.24,0.71,1.02" : "99.99,99.99,99.99") + format(",%d", system.number));
        const size_t parts = (satellites.size() + 3) / 4;
        for (size_t part = 0; part < parts; part++) {
            std::string body = format("%sGSV,%zu,%zu,%02zu", system.talker, parts, part + 1, satellites.size());
            for (size_t i = 4 * part; i < std::min(satellites.size(), 4 * part + 4); i++) {
                const Satellite &s = satellites[i];
                body += format(",%02d,%02d,%03d,", s.id, s.elevation, s.azimuth);
                body += s.strength ? format("%02d", s.strength) : "";
            }
            gsv += nmea_sentence(body + format(",%X", static_cast<unsigned>(system.signal)));
        }
    }
    const std::string rmc =
        fix ? "GNRMC," + time + ",A," + place + format(",%.2f,%.2f,", knots, course) + date + ",,,A,V"
            : "GNRMC," + time + ",V,,,,,,," + date + ",,,N,V";
    const std::string gga = fix ? "GNGGA," + time + "," + place + format(",1,%02d,0.71,", used) +
                                      format("%.1f,M,45.7,M,,", 62 + 8 * std::sin(angle))
                                : "GNGGA," + time + ",,,,,0,00,99.99,,,,,,";
    const std::string vtg =
        fix ? format("GNVTG,%.2f,T,,M,%.2f,N,%.2f,K,A", course, knots, speed_mps * 3.6) : "GNVTG,,,,,,,,,N";

    std::string said;
    for (const auto &[bit, text] :
         {std::pair(8U, nmea_sentence(rmc)), {1U, nmea_sentence(gga)}, {2U, gsa}, {4U, gsv}, {16U, nmea_sentence(vtg)}})
        if (messages & bit)
            said += text;
    return said;
}

} // namespace tavrik::sim
