// What a receiver sends: cut into sentences, read, and joined into records.
#include "fuzz.h"

#include "gnss/nmea.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

using fuzz::check;

constexpr char kPause = 0x16; // in the input: four seconds pass, in which the receiver is silent

void check(const Tavrik_GnssData &record) {
    const auto unknown = [&](uint32_t bit) { return !(record.known & bit); };
    const auto sum = [](const uint8_t(&counts)[TAVRIK_GNSS_CONSTELLATIONS]) {
        int sum = 0;
        for (const uint8_t count : counts)
            sum += count;
        return sum;
    };
    check(record.size == sizeof record && record.kind == TAVRIK_GNSS_RECORD && record.known >> 12 == 0);
    check(unknown(TAVRIK_GNSS_KNOWN_FIX) ? !record.fix_type : record.fix_type >= 1 && record.fix_type <= 3);
    check(record.hour < 24 && record.min < 60 && record.sec <= 60);
    check(unknown(TAVRIK_GNSS_KNOWN_DATE) ? !record.year && !record.month && !record.day && !record.utc_ms
                                          : record.year >= 1980 && record.year < 2080 && record.month >= 1 &&
                                                record.month <= 12 && record.day >= 1 && record.day <= 31);
    check(record.utc_ms == 0 || record.utc_ms / 86400000 / 366 + 1970 <= record.year);
    check(record.lat >= -900000000 && record.lat <= 900000000 && record.lon >= -1800000000 && record.lon <= 1800000000);
    check(record.course < 36000 && record.quality <= 8 && unknown(TAVRIK_GNSS_KNOWN_MODE) == !record.mode);
    check(sum(record.used_by) <= record.used && sum(record.view_by) == record.in_view);
    check(record.sat_count == std::min<int>(record.in_view, TAVRIK_GNSS_SATELLITES_MAX));
    for (int i = 0; i < TAVRIK_GNSS_SATELLITES_MAX; i++) {
        const Tavrik_GnssSatellite &satellite = record.sats[i];
        if (i >= record.sat_count) {
            check(!satellite.id && !satellite.used);
            continue;
        }
        check(satellite.id >= 1 && satellite.id <= 999 && satellite.constellation < TAVRIK_GNSS_CONSTELLATIONS);
        check(satellite.azimuth < 360 || satellite.azimuth == TAVRIK_GNSS_AZIMUTH_UNKNOWN);
        check((satellite.elevation >= -90 && satellite.elevation <= 90) ||
              satellite.elevation == TAVRIK_GNSS_ELEVATION_UNKNOWN);
        check(satellite.cn0 < 100 && satellite.used <= 1);
        for (int other = 0; other < i; other++)
            check(record.sats[other].id != satellite.id || record.sats[other].constellation != satellite.constellation);
    }
    check(!record.sentence_len && !*record.sentence);
}

std::string checksum(const std::string &body) {
    unsigned sum = 0;
    for (const char byte : body)
        sum ^= uint8_t(byte);
    char text[3];
    snprintf(text, sizeof text, "%02X", sum);
    return text;
}

// All that the reader tells about the text, which comes in pieces of so many bytes.
std::vector<std::string> told_of(const std::string &text, size_t piece) {
    static tavrik::NmeaReader reader;
    std::vector<std::string> told;
    reader.start({[](void *context, const char *sentence, size_t length, int64_t) {
                      check(length < TAVRIK_GNSS_SENTENCE_SIZE && strlen(sentence) == length && length >= 6);
                      const std::string whole = sentence, body = whole.substr(1, length - 4);
                      check(whole[0] == '$' && whole[length - 3] == '*' && body.find_first_of("$*") == body.npos);
                      check(!strcasecmp(checksum(body).c_str(), sentence + length - 2));
                      static_cast<std::vector<std::string> *>(context)->push_back(whole);
                  },
                  [](void *context, const Tavrik_GnssData &record) {
                      check(reader.epoch_open());
                      check(record);
                      static_cast<std::vector<std::string> *>(context)->emplace_back(
                          reinterpret_cast<const char *>(&record), sizeof record);
                  },
                  &told});
    int64_t ms = 0;
    for (size_t at = 0, end; at < text.size(); at = end) {
        const size_t pause = text.find(kPause, at);
        end = std::min({text.size(), at + piece, pause == text.npos ? pause : pause + 1});
        if (piece == 1) {
            reader.take(text.data() + at, end - at, ms);
        } else {
            const std::vector<char> exact(text.begin() + long(at), text.begin() + long(end)); // without room to spare
            reader.take(exact.data(), exact.size(), ms);
        }
        if (end == pause + 1) {
            reader.silence();
            check(!reader.epoch_open());
            ms += 4000;
        }
    }
    reader.silence();
    return told;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input input(data, size);
    const unsigned how = input.byte();
    std::string text = input.rest();
    if (how & 1) { // each line becomes a sentence
        std::string lines;
        for (size_t at = 0, end; at < text.size(); at = end + 1) {
            end = std::min(text.find('\n', at), text.size());
            const std::string body = text.substr(at, end - at);
            lines += "$" + body + "*" + checksum(body) + "\r\n";
        }
        text = lines;
    }
    const std::vector<std::string> whole = told_of(text, text.size() + 1);
    check(told_of(text, 1) == whole);
    check(told_of(text, how / 2 + 2) == whole);
    return 0;
}
