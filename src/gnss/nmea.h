// NMEA 0183 sentences of a receiver, as they come, into one record for each moment.
#pragma once

#include "tavrik_sdk.h"

#include <stddef.h>
#include <stdint.h>

namespace tavrik {

class NmeaFields;
struct NmeaPosition;

// Called from take() and silence() only. Neither may call the reader.
struct NmeaSink {
    // A whole sentence whose checksum is right, "$...*hh" with a zero behind; `mono_ms` is that of its first byte.
    void (*sentence)(void *context, const char *text, size_t length, int64_t mono_ms);
    // One record for each epoch, before the first sentence of the next.
    void (*epoch)(void *context, const Tavrik_GnssData &record);
    void *context;
};

// An epoch is what is told about one moment. It ends at the first sentence with another time, or by silence().
class NmeaReader {
  public:
    // Forgets everything; before the first bytes.
    void start(const NmeaSink &sink);
    // The next bytes of the receiver, cut anywhere, which came at `mono_ms`.
    void take(const char *bytes, size_t length, int64_t mono_ms);
    // Something is collected: after 100 ms without a byte the caller calls silence().
    bool epoch_open() const { return open_; }
    // The open epoch's record goes out. A sentence that has begun is still awaited.
    void silence();

  private:
    // A bit for each number that a satellite of each constellation may have.
    struct SatelliteSet {
        uint32_t words[TAVRIK_GNSS_CONSTELLATIONS][32];
        bool add(const Tavrik_GnssSatellite &satellite); // false when it was there
        bool has(const Tavrik_GnssSatellite &satellite) const;
    };
    // A satellite of a list in view: receivers send one list for each talker and signal.
    struct InView {
        Tavrik_GnssSatellite satellite;
        uint32_t list;
        uint32_t ms; // when the list came
    };

    void line();
    void rmc(NmeaFields &fields);
    void gga(NmeaFields &fields);
    void gsa(NmeaFields &fields);
    void gsv(NmeaFields &fields);
    void vtg(NmeaFields &fields);
    void join(int32_t time, int64_t mono_ms);
    void fill_position(const NmeaPosition &position);
    void fill_motion(bool has_speed, uint32_t speed, bool has_course, int32_t course);
    void fill_view();
    bool fresh(uint32_t ms) const;

    NmeaSink sink_;
    // The sentence that has begun.
    char line_[TAVRIK_GNSS_SENTENCE_SIZE];
    uint32_t length_;
    int64_t line_ms_;
    // The epoch.
    bool open_;
    int32_t time_; // hhmmssfff, -1 as long as none is told
    uint8_t told_used_;
    SatelliteSet used_;
    Tavrik_GnssData record_;
    // The GSV sentences of one list, until the last has come: `next_` is the number of the one awaited, 0 for none.
    Tavrik_GnssSatellite pending_[TAVRIK_GNSS_SATELLITES_MAX];
    uint32_t pending_count_, pending_list_, pending_told_, next_, total_;
    int64_t pending_ms_;
    // The lists that have come.
    InView view_[2 * TAVRIK_GNSS_SATELLITES_MAX];
    uint32_t view_count_, view_ms_;
    bool view_known_;
};

} // namespace tavrik
