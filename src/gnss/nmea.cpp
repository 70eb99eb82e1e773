#include "gnss/nmea.h"

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
