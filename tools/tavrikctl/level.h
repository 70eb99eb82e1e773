// Levels and qualities of the signal, as 3GPP TS 27.007 clause 8.69 counts them.
#pragma once

namespace tavrikctl {

class Output;

enum class Level { rxlev, rscp, ecno, rsrp, rsrq };

// The raw value, what it is in dBm or dB, and a bar when that is asked for. Nothing for one outside the scale, as the
// values for "unknown" are.
void put_level(Output &output, Level level, int raw, bool bar = false);
// A number from 0 to `most`, in the same way.
void put_index(Output &output, const char *key, const char *label, int raw, int most, bool bar = false);

} // namespace tavrikctl
