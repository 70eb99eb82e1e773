#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace tavrik::sim {

// Everything that a modem knows. A new one is as it leaves the factory.
struct ModemState {
    std::string manufacturer = "Tavrik";
    std::string model = "TL100";
    std::string revision = "TL100-1.0.0";
    std::string imei = "490154203237518";
    int32_t mode = 1;  // functionality: 0 minimum, 1 full, 4 radio off
    bool echo = false; // commands come back in front of their replies
};

// The modem behind all services: its state, read and changed by field name, and the lines that it sends unasked. It
// does no I/O of its own.
class Modem {
  public:
    using UnsolicitedLine = std::function<void(std::string_view)>;

    ModemState &state() { return state_; }
    const ModemState &state() const { return state_; }

    static bool has(std::string_view field);
    // The fields as a JSON object.
    nlohmann::json get() const;
    // One field as an AT reply shows it.
    std::string text(std::string_view field) const;
    // Sets the given fields, all or none. Throws std::invalid_argument for an unknown field or a bad value.
    void set(const nlohmann::json &fields);
    // One field from the text that an AT command carried.
    void set_text(std::string_view field, const std::string &text);
    void reset() { state_ = {}; }

    // Who hears the unsolicited lines, given without their line ends.
    UnsolicitedLine on_unsolicited;
    void unsolicited(std::string_view line) const {
        if (on_unsolicited)
            on_unsolicited(line);
    }

  private:
    ModemState state_;
};

} // namespace tavrik::sim
