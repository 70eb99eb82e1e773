// The fields of one NMEA sentence, read without regard to the locale and without fractions.
#pragma once

#include "gnss/nmea.h"

#include <string.h>

namespace tavrik {

// Letters of RMC's and VTG's mode.
constexpr char kNmeaModes[] = "ADEFMNPRS";

struct NmeaPosition {
    bool given;
    int32_t lat, lon;
};

struct NmeaDate {
    bool given;
    int day, month, year;
};

// The fields of one sentence; its address is number 0. What is no value of its kind makes the sentence bad; an empty
// field is 0.
class NmeaFields {
  public:
    NmeaFields(const char *begin, const char *end) {
        at_[0] = begin;
        for (; begin < end && count_ <= kMost; begin++)
            if (*begin == ',')
                at_[count_++] = begin + 1;
        at_[count_] = end + 1;
    }

    int count() const { return count_; }
    bool good() const { return good_; }
    bool given(int field) const { return length(field) > 0; }

    // Times 10 to the power of `decimals`, what is behind them cut off.
    int64_t number(int field, int decimals, int64_t low, int64_t high) {
        const char *at = at_[field], *const end = at + length(field);
        if (at == end)
            return 0;
        const bool negative = *at == '-';
        at += negative;
        int64_t value = 0;
        int digits = 0;
        for (; at < end && is_digit(*at) && digits < 9; at++, digits++)
            value = value * 10 + (*at - '0');
        if (decimals && at < end && *at == '.')
            for (at++; at < end && is_digit(*at); at++, digits++)
                if (decimals) {
                    value = value * 10 + (*at - '0');
                    decimals--;
                }
        while (decimals--)
            value *= 10;
        if (negative)
            value = -value;
        require(at == end && digits && value >= low && value <= high);
        return value;
    }

    // The same rounded, halves away from zero.
    int32_t rounded(int field, int decimals, int64_t low, int64_t high) {
        const int64_t value = number(field, decimals + 1, low * 10, high * 10);
        return int32_t((value + (value < 0 ? -5 : 5)) / 10);
    }

    // In millimetres a second.
    uint32_t knots(int field) { return uint32_t((number(field, 6, 0, 100000000000) * 463 + 450000) / 900000); }

    // One of `letters`, 0 when it is empty.
    char letter(int field, const char *letters) {
        if (!given(field))
            return 0;
        require(length(field) == 1 && strchr(letters, *at_[field]));
        return *at_[field];
    }

    int hex_digit(int field) {
        static const char kDigits[] = "0123456789ABCDEF";
        const char digit = letter(field, kDigits);
        return digit && good_ ? int(strchr(kDigits, digit) - kDigits) : 0;
    }

    // hhmmss with decimals as hhmmssfff; -1 when it is empty.
    int32_t time(int field) {
        if (!given(field))
            return -1;
        const int32_t value = int32_t(number(field, 3, 0, 235960999));
        require(whole_digits(field) == 6 && value / 100000 % 100 < 60 && value / 1000 % 100 <= 60);
        return value;
    }

    // ddmmyy, from 1980 on.
    NmeaDate date(int field) {
        const int value = int(number(field, 0, 0, 311299)), year = value % 100;
        const NmeaDate date = {given(field), value / 10000, value / 100 % 100, year + (year < 80 ? 2000 : 1900)};
        static const uint8_t kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
        if (date.given)
            require(length(field) == 6 && date.month >= 1 && date.month <= 12 && date.day >= 1 &&
                    date.day <= kDays[date.month - 1] + (date.month == 2 && year % 4 == 0));
        return date;
    }

    // Latitude, N or S, longitude, E or W: all or none.
    NmeaPosition position(int field) {
        const NmeaPosition position = {given(field), angle(field, 90, 2, "NS"), angle(field + 2, 180, 3, "EW")};
        require(given(field + 2) == position.given);
        return position;
    }

  private:
    static constexpr int kMost = 21; // what a sentence of a kind that is read has at most

    static bool is_digit(char character) { return character >= '0' && character <= '9'; }
    void require(bool right) { good_ = good_ && right; }
    int length(int field) const { return int(at_[field + 1] - at_[field]) - 1; }

    int whole_digits(int field) const {
        int digits = 0;
        while (digits < length(field) && is_digit(at_[field][digits]))
            digits++;
        return digits;
    }

    // Degrees and two digits of minutes, with decimals, in 1e-7 degree.
    int32_t angle(int field, int limit, int digits, const char *letters) {
        constexpr int64_t kMinute = 1000000000;
        const int64_t value = number(field, 9, 0, limit * 100 * kMinute), minutes = value % (100 * kMinute);
        const bool negative = letter(field + 1, letters) == letters[1];
        require(given(field) == given(field + 1) && minutes < 60 * kMinute);
        if (given(field))
            require(whole_digits(field) == digits + 2);
        const int32_t angle = int32_t(value / (100 * kMinute) * 10000000 + (minutes + 3000) / 6000);
        return negative ? -angle : angle;
    }

    const char *at_[kMost + 2];
    int count_ = 1;
    bool good_ = true;
};

} // namespace tavrik
