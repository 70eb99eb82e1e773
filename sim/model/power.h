#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace tavrik::sim {

// The kernel's files below /sys/power, "wake_lock", "wake_unlock" and "autosleep", as programs know them.
class Power {
  public:
    // A line written to a file, at a time in ms. What the kernel refuses changes nothing, nor does another file's name.
    void write(std::string_view file, std::string_view line, int64_t now);
    // What the file reads as at a time, without its line feed.
    std::string read(std::string_view file, int64_t now) const;

  private:
    struct Lock {
        bool held = false;
        int64_t until = 0; // 0 for ever

        bool held_at(int64_t now) const { return held && (!until || now < until); }
    };

    void take(std::string_view line, int64_t now);

    std::map<std::string, Lock, std::less<>> locks_; // one that is not held any more stays known
    std::string autosleep_ = "off";
};

} // namespace tavrik::sim
