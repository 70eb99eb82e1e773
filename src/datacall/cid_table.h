#pragma once

namespace tavrik {

// Has the application started this profile, and not stopped it since? False for any other index.
bool profile_started(int profile_idx);

} // namespace tavrik
