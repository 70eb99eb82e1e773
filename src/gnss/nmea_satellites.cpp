// The sentences about satellites: those that the position rests on, and those in view.
#include "gnss/nmea.h"
#include "gnss/nmea_fields.h"

namespace tavrik {

namespace {

constexpr uint32_t kListLifeMs = 15000;
constexpr int kHighestId = 999;
constexpr uint32_t kMostSentences = TAVRIK_GNSS_SATELLITES_MAX / 4;

// Of a talker, by its letters; those of several constellations are TAVRIK_GNSS_OTHER.
int constellation_of(const char *talker) {
    switch (talker[0] << 8 | talker[1]) {
    case 'G' << 8 | 'P':
        return TAVRIK_GNSS_GPS;
    case 'G' << 8 | 'L':
        return TAVRIK_GNSS_GLONASS;
    case 'G' << 8 | 'A':
        return TAVRIK_GNSS_GALILEO;
    case 'G' << 8 | 'B':
    case 'B' << 8 | 'D':
        return TAVRIK_GNSS_BEIDOU;
    case 'G' << 8 | 'Q':
    case 'Q' << 8 | 'Z':
        return TAVRIK_GNSS_QZSS;
    case 'G' << 8 | 'I':
        return TAVRIK_GNSS_NAVIC;
    default:
        return TAVRIK_GNSS_OTHER;
    }
}

// Of one satellite. A talker or system with a numbering of its own tells it; GPS lends its numbers' higher ranges to
// the others, and so do sentences about several constellations.
int constellation_of(int talker, int id) {
    static const struct {
        int16_t first, last;
        uint8_t constellation;
    } kRanges[] = {
        {1, 32, TAVRIK_GNSS_GPS},        {33, 64, TAVRIK_GNSS_SBAS},     {65, 99, TAVRIK_GNSS_GLONASS},
        {120, 158, TAVRIK_GNSS_SBAS},    {193, 200, TAVRIK_GNSS_QZSS},   {201, 263, TAVRIK_GNSS_BEIDOU},
        {301, 336, TAVRIK_GNSS_GALILEO}, {401, 463, TAVRIK_GNSS_BEIDOU},
    };
    if (talker == TAVRIK_GNSS_GLONASS)
        return id >= 33 && id <= 64 ? TAVRIK_GNSS_SBAS : talker;
    if (talker != TAVRIK_GNSS_GPS && talker != TAVRIK_GNSS_OTHER)
        return talker;
    for (const auto &range : kRanges)
        if (id >= range.first && id <= range.last)
            return range.constellation;
    return TAVRIK_GNSS_OTHER;
}

} // namespace

bool NmeaReader::SatelliteSet::has(const Tavrik_GnssSatellite &satellite) const {
    return words[satellite.constellation][satellite.id / 32] >> satellite.id % 32 & 1;
}

bool NmeaReader::SatelliteSet::add(const Tavrik_GnssSatellite &satellite) {
    const bool had = has(satellite);
    words[satellite.constellation][satellite.id / 32] |= uint32_t(1) << satellite.id % 32;
    return !had;
}

// Selection, fix, twelve satellites, three dilutions; the system from 4.1 on.
void NmeaReader::gsa(NmeaFields &fields) {
    if (fields.count() != 18 && fields.count() != 19)
        return;
    int talker = constellation_of(line_ + 1);
    fields.letter(1, "AM");
    const int fix = int(fields.number(2, 0, TAVRIK_GNSS_FIX_NONE, TAVRIK_GNSS_FIX_3D));
    int ids[12], count = 0;
    for (int field = 3; field < 15; field++)
        if (fields.given(field))
            ids[count++] = int(fields.number(field, 0, 1, kHighestId));
    const int32_t pdop = fields.rounded(15, 2, 0, UINT16_MAX), hdop = fields.rounded(16, 2, 0, UINT16_MAX);
    const int32_t vdop = fields.rounded(17, 2, 0, UINT16_MAX);
    if (fields.count() == 19) {
        const int system = fields.hex_digit(18); // counted from 1 in the order of the constellations
        if (talker == TAVRIK_GNSS_OTHER && system >= 1 && system <= TAVRIK_GNSS_NAVIC + 1)
            talker = system - 1;
    }
    if (!fields.good())
        return;
    join(-1, line_ms_);
    if (fix) {
        if (fix > record_.fix_type) // a constellation without satellites has none
            record_.fix_type = uint8_t(fix);
        record_.known |= TAVRIK_GNSS_KNOWN_FIX;
    }
    for (int i = 0; i < count; i++) {
        Tavrik_GnssSatellite satellite = {};
        satellite.id = uint16_t(ids[i]);
        satellite.constellation = uint8_t(constellation_of(talker, ids[i]));
        if (used_.add(satellite) && record_.used < UINT8_MAX) {
            record_.used++;
            record_.used_by[satellite.constellation]++;
        }
    }
    record_.known |= TAVRIK_GNSS_KNOWN_USED;
    if (fields.given(15) || fields.given(16) || fields.given(17)) {
        record_.pdop = uint16_t(pdop);
        record_.hdop = uint16_t(hdop);
        record_.vdop = uint16_t(vdop);
        record_.known |= TAVRIK_GNSS_KNOWN_DOP;
    }
}

// Number of sentences, number of this one, satellites in all; four satellites of number, elevation, azimuth, C/N0; the
// signal from 4.1 on. A list counts when its last sentence has come, each in its place.
void NmeaReader::gsv(NmeaFields &fields) {
    const int satellites = (fields.count() - 4) / 4, rest = (fields.count() - 4) % 4;
    if (fields.count() < 4 || satellites > 4 || rest > 1)
        return;
    const int talker = constellation_of(line_ + 1);
    const uint32_t total = uint32_t(fields.number(1, 0, 1, kMostSentences)),
                   number = uint32_t(fields.number(2, 0, 1, total));
    const uint32_t told = uint32_t(fields.number(3, 0, 0, 255));
    const uint32_t list = uint32_t(talker << 4 | (rest ? fields.hex_digit(fields.count() - 1) : 0));
    Tavrik_GnssSatellite read[4];
    uint32_t count = 0;
    for (int field = 4; field < 4 + 4 * satellites; field += 4) {
        Tavrik_GnssSatellite &satellite = read[count];
        const int id = int(fields.number(field, 0, 1, kHighestId));
        const int elevation = int(fields.number(field + 1, 0, -90, 90)),
                  azimuth = int(fields.number(field + 2, 0, 0, 359));
        satellite.id = uint16_t(id);
        satellite.constellation = uint8_t(constellation_of(talker, id));
        satellite.elevation = int8_t(fields.given(field + 1) ? elevation : TAVRIK_GNSS_ELEVATION_UNKNOWN);
        satellite.azimuth = uint16_t(fields.given(field + 2) ? azimuth : TAVRIK_GNSS_AZIMUTH_UNKNOWN);
        satellite.cn0 = uint8_t(fields.number(field + 3, 0, 0, 99));
        satellite.used = 0;
        count += fields.given(field);
    }
    if (!fields.good() || !number)
        return;
    if (number == 1) {
        pending_count_ = 0;
        pending_list_ = list;
        pending_told_ = told;
        pending_ms_ = line_ms_;
        total_ = total;
    } else if (number != next_ || total != total_ || list != pending_list_ || told != pending_told_) {
        next_ = 0;
        return;
    }
    memcpy(pending_ + pending_count_, read, count * sizeof *read);
    pending_count_ += count;
    next_ = number + 1;
    if (number < total)
        return;
    next_ = 0;
    join(-1, pending_ms_);
    // In the place of what this list was; other lists that nobody renews go as well.
    uint32_t kept = 0;
    view_ms_ = uint32_t(line_ms_);
    for (uint32_t i = 0; i < view_count_; i++)
        if (view_[i].list != list && fresh(view_[i].ms))
            view_[kept++] = view_[i];
    for (uint32_t i = 0; i < pending_count_ && kept < sizeof view_ / sizeof *view_; i++)
        view_[kept++] = {pending_[i], list, view_ms_};
    view_count_ = kept;
    view_known_ = true;
}

// A satellite is in the lists once for each of its signals.
void NmeaReader::fill_view() {
    if (!view_known_ || !fresh(view_ms_))
        return;
    record_.known |= TAVRIK_GNSS_KNOWN_VIEW;
    SatelliteSet seen = {};
    for (uint32_t i = 0; i < view_count_; i++) {
        const Tavrik_GnssSatellite &satellite = view_[i].satellite;
        if (!fresh(view_[i].ms))
            continue;
        if (seen.add(satellite)) {
            record_.in_view++;
            record_.view_by[satellite.constellation]++;
            if (record_.sat_count < TAVRIK_GNSS_SATELLITES_MAX) {
                Tavrik_GnssSatellite &entry = record_.sats[record_.sat_count++];
                entry = satellite;
                entry.used = used_.has(satellite);
            }
            continue;
        }
        for (int k = 0; k < record_.sat_count; k++) {
            Tavrik_GnssSatellite &entry = record_.sats[k];
            if (entry.id == satellite.id && entry.constellation == satellite.constellation && entry.cn0 < satellite.cn0)
                entry.cn0 = satellite.cn0;
        }
    }
}

bool NmeaReader::fresh(uint32_t ms) const {
    return uint32_t(line_ms_) - ms <= kListLifeMs;
}

} // namespace tavrik
