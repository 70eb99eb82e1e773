// NMEA 0183 sentences of a receiver, as they come, into one record for each moment.
#pragma once

#include "tavrik_sdk.h"

#include <stddef.h>
#include <stdint.h>

namespace tavrik {

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
    NmeaSink sink_;
    bool open_;
};

} // namespace tavrik
