#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tavrik::sim {

// A sentence with its checksum and line end.
std::string nmea_sentence(std::string_view body);

// What a receiver with satellites of four systems says once: round a circle across the prime meridian at 50 km/h.
// `messages`: bits for GGA, GSA, GSV, RMC, VTG. `drive_ms` is the way made so far, `utc_ms` the time since 1970.
std::string drive_sentences(int64_t utc_ms, int64_t drive_ms, bool fix, uint32_t messages);

} // namespace tavrik::sim
