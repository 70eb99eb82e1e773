#pragma once

namespace tavrik::wifi {

// The highest channel of the 2.4 GHz band that is allowed in a country, by its code of two upper-case letters
// (ISO 3166-1). 0 where there is none, -1 for a country that is not known.
int highest_channel(const char *country);

} // namespace tavrik::wifi
