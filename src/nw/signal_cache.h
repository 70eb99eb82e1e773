#pragma once

namespace tavrik {

// The SINR comes with the question for the network type, the other signal values do not.
void cache_sinr(int sinr);

} // namespace tavrik
