#include "model/power.h"

#include <algorithm>
#include <charconv>

namespace tavrik::sim {

// "NAME", or "NAME TIMEOUT" with nanoseconds, counted in whole milliseconds upwards.
void Power::take(std::string_view line, int64_t now) {
    const size_t end = std::min(line.find_first_of(" \t\r"), line.size());
    uint64_t ns = 0;
    if (end < line.size()) {
        std::string_view text = line.substr(std::min(line.find_first_not_of(" \t\r", end), line.size()));
        const auto parsed = std::from_chars(text.data(), text.data() + text.size(), ns);
        if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size())
            return;
    }
    if (!end)
        return;
    Lock &lock = locks_[std::string(line.substr(0, end))];
    if (!lock.held_at(now))
        lock.until = 0;
    lock.held = true;
    // A time-out that ends before the one under way does not shorten it; none takes it away.
    const int64_t until = ns ? now + static_cast<int64_t>(ns / 1000000 + (ns % 1000000 != 0)) : 0;
    lock.until = until ? std::max(lock.until, until) : 0;
}

void Power::write(std::string_view file, std::string_view line, int64_t now) {
    if (file == "wake_lock") {
        take(line, now);
    } else if (file == "wake_unlock") {
        if (auto found = locks_.find(line); found != locks_.end())
            found->second.held = false;
    } else if (file == "autosleep" && (line == "off" || line == "mem" || line == "freeze")) {
        autosleep_ = line;
    }
}

std::string Power::read(std::string_view file, int64_t now) const {
    if (file == "autosleep")
        return autosleep_;
    std::string names; // in their order, whichever was taken first
    for (auto &[name, lock] : locks_)
        if (lock.held_at(now) == (file == "wake_lock"))
            names += (names.empty() ? "" : " ") + name;
    return names;
}

} // namespace tavrik::sim
