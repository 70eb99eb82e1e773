#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace tavrik::sim {

// The receiver of positions: what it is set to, the commands that it obeys, and what it says. It does no I/O.
class Receiver {
  public:
    // Its settings, as the verb "gnss" takes and gives them. set() takes all or none and throws std::invalid_argument.
    void set(const nlohmann::json &settings, int64_t now);
    nlohmann::json get() const;

    bool on() const { return on_; }
    // A track from a file begins anew when it is switched on.
    void power(bool on, int64_t now);
    // A command of a program, as command_length() cuts it.
    void obey(std::string_view command, int64_t now);
    // The length of the line or binary message in front; 0 while it is not whole.
    static size_t command_length(std::string_view input);

    // What it says next, on its clock in ms; empty behind the end of a file.
    std::string say(int64_t now);
    // Milliseconds until then; -1 for never.
    int64_t next(int64_t now) const;
    void reset();

    // Told when next() may have changed.
    std::function<void()> on_change;

  private:
    struct Settings {
        std::string track = "drive"; // or a file
        int hz = 1;
        int64_t utc_ms = 1767225570000; // where the drive begins: half a minute before a year ends
        uint32_t messages = 0x1F;       // bits: GGA, GSA, GSV, RMC, VTG
        int hot_ms = 0, cold_ms = 3000; // until there is a position
        bool loop = false;
        std::vector<std::string> epochs; // of the file
    };

    int64_t turn(int64_t now) const { return now / (1000 / settings_.hz); }
    void changed() const {
        if (on_change)
            on_change();
    }

    Settings settings_;
    bool on_ = false;
    int64_t fix_ms_ = 0;     // a position is known from then on
    int64_t last_turn_ = -1; // when it said something
    size_t next_epoch_ = 0;
};

} // namespace tavrik::sim
