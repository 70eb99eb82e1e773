#include "gnss/nmea.h"

#include "gnss/nmea_fields.h"

#include <string.h>

#define OFFSET(member) offsetof(Tavrik_GnssData, member)
static_assert(sizeof(Tavrik_GnssData) == 896 && OFFSET(size) == 0 && OFFSET(kind) == 2 && OFFSET(fix_type) == 3 &&
                  OFFSET(known) == 4 && OFFSET(utc_ms) == 8 && OFFSET(mono_ms) == 16 && OFFSET(lat) == 24 &&
                  OFFSET(lon) == 28 && OFFSET(alt) == 32 && OFFSET(geoid) == 36 && OFFSET(speed) == 40 &&
                  OFFSET(course) == 44 && OFFSET(quality) == 46 && OFFSET(mode) == 47 && OFFSET(pdop) == 48 &&
                  OFFSET(hdop) == 50 && OFFSET(vdop) == 52 && OFFSET(used) == 54 && OFFSET(in_view) == 55 &&
                  OFFSET(used_by) == 56 && OFFSET(view_by) == 64 && OFFSET(year) == 72 && OFFSET(month) == 74 &&
                  OFFSET(day) == 75 && OFFSET(hour) == 76 && OFFSET(min) == 77 && OFFSET(sec) == 78 &&
                  OFFSET(pad) == 79 && OFFSET(sat_count) == 80 && OFFSET(pad2) == 81 && OFFSET(sats) == 88 &&
                  OFFSET(sentence_len) == 600 && OFFSET(sentence) == 602 && OFFSET(reserved) == 856,
              "applications are built with it");
static_assert(sizeof(Tavrik_GnssSatellite) == 8 && offsetof(Tavrik_GnssSatellite, azimuth) == 2 &&
                  offsetof(Tavrik_GnssSatellite, constellation) == 4 &&
                  offsetof(Tavrik_GnssSatellite, elevation) == 5 && offsetof(Tavrik_GnssSatellite, cn0) == 6 &&
                  offsetof(Tavrik_GnssSatellite, used) == 7,
              "layout");
#undef OFFSET

namespace tavrik {

namespace {

constexpr int64_t kHighest = 2000000000; // millimetres, as far as satellites of this kind are received

// Milliseconds since 1970 of a date and time of day; the leap second is the first of the next day.
int64_t utc_ms(const Tavrik_GnssData &record, int32_t time) {
    const int year = record.year - (record.month < 3), month = (record.month + 9) % 12; // a year begins in March
    const int64_t days = 365 * year + year / 4 - year / 100 + year / 400 + (153 * month + 2) / 5 + record.day - 719469;
    return (((days * 24 + record.hour) * 60 + record.min) * 60 + record.sec) * 1000 + time % 1000;
}

} // namespace

void NmeaReader::start(const NmeaSink &sink) {
    memset(static_cast<void *>(this), 0, sizeof *this);
    sink_ = sink;
}

void NmeaReader::take(const char *bytes, size_t length, int64_t mono_ms) {
    const char *const end = bytes + length;
    while (bytes < end) {
        if (!length_) {
            bytes = static_cast<const char *>(memchr(bytes, '$', size_t(end - bytes)));
            if (!bytes)
                return;
            line_[length_++] = *bytes++;
            line_ms_ = mono_ms;
        }
        // Whatever else is no printable character, and a line that is too long, ends the sentence without a result.
        const char *const from = bytes;
        while (bytes < end && *bytes >= ' ' && *bytes <= '~' && *bytes != '$')
            bytes++;
        const size_t more = size_t(bytes - from);
        if (more >= sizeof line_ - length_) {
            length_ = 0;
            continue;
        }
        memcpy(line_ + length_, from, more);
        length_ += uint32_t(more);
        if (bytes == end)
            return;
        if (*bytes == '\r' || *bytes == '\n')
            line();
        length_ = 0;
    }
}

void NmeaReader::silence() {
    if (!open_)
        return;
    if (record_.known & TAVRIK_GNSS_KNOWN_TIME && record_.known & TAVRIK_GNSS_KNOWN_DATE)
        record_.utc_ms = utc_ms(record_, time_);
    if (told_used_ > record_.used)
        record_.used = told_used_;
    fill_view();
    sink_.epoch(sink_.context, record_);
    open_ = false;
}

// A line that has ended: a sentence when it begins with an address and its checksum is there and right. What a bit
// error that makes a "$" leaves of a sentence has no address, whatever its checksum.
void NmeaReader::line() {
    const auto letter = [](char byte) { return (byte | 32) >= 'a' && (byte | 32) <= 'z'; };
    const char *const star = line_ + length_ - 3;
    if (length_ < 6 || !letter(line_[1]) || !(letter(line_[2]) || (line_[2] >= '0' && line_[2] <= '9')))
        return;
    unsigned sum = 0;
    for (const char *at = line_ + 1; at < star; at++) {
        sum ^= uint8_t(*at);
        if (*at == '*')
            return;
    }
    const auto is = [](char digit, unsigned value) {
        return digit == "0123456789ABCDEF"[value] || digit == "0123456789abcdef"[value];
    };
    if (*star != '*' || !is(star[1], sum >> 4) || !is(star[2], sum & 15))
        return;
    line_[length_] = 0;
    // Two letters of the talker, three of the kind; those that begin with P are of a manufacturer.
    if (line_[6] == ',' && line_[1] != 'P') {
        static const struct {
            char kind[4];
            void (NmeaReader::*read)(NmeaFields &);
        } kKinds[] = {{"RMC", &NmeaReader::rmc},
                      {"GGA", &NmeaReader::gga},
                      {"GSA", &NmeaReader::gsa},
                      {"GSV", &NmeaReader::gsv},
                      {"VTG", &NmeaReader::vtg}};
        for (const auto &known : kKinds)
            if (!memcmp(line_ + 3, known.kind, 3)) {
                NmeaFields fields(line_ + 1, star);
                (this->*known.read)(fields);
            }
    }
    sink_.sentence(sink_.context, line_, length_, line_ms_);
}

// What follows belongs to the epoch of `time`, or to the open one when it is -1.
void NmeaReader::join(int32_t time, int64_t mono_ms) {
    if (time >= 0 && time_ >= 0 && time != time_)
        silence();
    if (!open_) {
        open_ = true;
        time_ = -1;
        told_used_ = 0;
        memset(&used_, 0, sizeof used_);
        memset(&record_, 0, sizeof record_);
        record_.size = sizeof record_;
        record_.mono_ms = mono_ms;
    }
    if (time >= 0) {
        time_ = time;
        record_.hour = uint8_t(time / 10000000);
        record_.min = uint8_t(time / 100000 % 100);
        record_.sec = uint8_t(time / 1000 % 100);
        record_.known |= TAVRIK_GNSS_KNOWN_TIME;
    }
}

void NmeaReader::fill_position(const NmeaPosition &position) {
    if (!position.given)
        return;
    record_.lat = position.lat;
    record_.lon = position.lon;
    record_.known |= TAVRIK_GNSS_KNOWN_POSITION;
}

void NmeaReader::fill_motion(bool has_speed, uint32_t speed, bool has_course, int32_t course) {
    if (has_speed) {
        record_.speed = speed;
        record_.known |= TAVRIK_GNSS_KNOWN_SPEED;
    }
    if (has_course) {
        record_.course = uint16_t(course % 36000);
        record_.known |= TAVRIK_GNSS_KNOWN_COURSE;
    }
}

// Time, status, position, knots, course, date, magnetic variation; mode from 2.3 on, navigational status from 4.1 on.
void NmeaReader::rmc(NmeaFields &fields) {
    if (fields.count() < 12 || fields.count() > 14)
        return;
    const int32_t time = fields.time(1);
    const bool valid = fields.letter(2, "AV") == 'A';
    const NmeaPosition position = fields.position(3);
    const uint32_t speed = fields.knots(7);
    const int32_t course = fields.rounded(8, 2, 0, 36000);
    const NmeaDate date = fields.date(9);
    fields.rounded(10, 1, 0, 1800);
    fields.letter(11, "EW");
    const char mode = fields.count() > 12 ? fields.letter(12, kNmeaModes) : char(0);
    if (fields.count() > 13)
        fields.letter(13, "SCUV");
    if (!fields.good() || !fields.given(2))
        return;
    join(time, line_ms_);
    if (valid) {
        fill_position(position);
        fill_motion(fields.given(7), speed, fields.given(8), course);
    }
    if (date.given) {
        record_.year = uint16_t(date.year);
        record_.month = uint8_t(date.month);
        record_.day = uint8_t(date.day);
        record_.known |= TAVRIK_GNSS_KNOWN_DATE;
    }
    if (mode) {
        record_.mode = mode;
        record_.known |= TAVRIK_GNSS_KNOWN_MODE;
    }
}

// Time, position, quality, satellites used, dilution, altitude, geoid, age and station of the correction.
void NmeaReader::gga(NmeaFields &fields) {
    if (fields.count() != 15)
        return;
    const int32_t time = fields.time(1);
    const NmeaPosition position = fields.position(2);
    const int quality = int(fields.number(6, 0, 0, 8)), used = int(fields.number(7, 0, 0, 255));
    fields.rounded(8, 2, 0, UINT16_MAX);
    const int32_t altitude = fields.rounded(9, 3, -kHighest, kHighest),
                  geoid = fields.rounded(11, 3, -kHighest, kHighest);
    fields.letter(10, "M");
    fields.letter(12, "M");
    fields.number(13, 3, 0, INT32_MAX);
    fields.number(14, 0, 0, 9999);
    if (!fields.good())
        return;
    join(time, line_ms_);
    if (fields.given(6)) {
        record_.quality = uint8_t(quality);
        record_.known |= TAVRIK_GNSS_KNOWN_QUALITY;
    }
    if (fields.given(7)) {
        told_used_ = uint8_t(used);
        record_.known |= TAVRIK_GNSS_KNOWN_USED;
    }
    if (!quality)
        return;
    fill_position(position);
    if (fields.given(9)) {
        record_.alt = altitude;
        record_.geoid = geoid;
        record_.known |= TAVRIK_GNSS_KNOWN_ALTITUDE;
    }
}

// Course, true and magnetic, knots, km/h, each with its unit; mode from 2.3 on.
void NmeaReader::vtg(NmeaFields &fields) {
    if (fields.count() != 9 && fields.count() != 10)
        return;
    const int32_t course = fields.rounded(1, 2, 0, 36000);
    fields.rounded(3, 2, 0, 36000);
    const uint32_t knots = fields.knots(5), kmh = uint32_t((fields.number(7, 6, 0, 200000000000) + 1800) / 3600);
    static const char *const kUnits[] = {"T", "M", "N", "K"};
    for (int i = 0; i < 4; i++)
        fields.letter(2 + 2 * i, kUnits[i]);
    const char mode = fields.count() == 10 ? fields.letter(9, kNmeaModes) : char(0);
    if (!fields.good())
        return;
    join(-1, line_ms_);
    if (mode != 'N')
        fill_motion(fields.given(5) || fields.given(7), fields.given(5) ? knots : kmh, fields.given(1), course);
}

} // namespace tavrik
