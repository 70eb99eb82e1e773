#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "model/modem.h"

namespace tavrik::sim {

// What a modem answers to AT commands, as data (docs/simulator.md, "AT rules"). The first rule that fits a command
// serves it.
class RuleTable {
  public:
    struct Later {
        int64_t after_ms;
        std::string line;
    };
    struct Reply {
        std::string text;
        std::vector<Later> later;
    };

    RuleTable();
    ~RuleTable();
    RuleTable(RuleTable &&) noexcept;
    RuleTable &operator=(RuleTable &&) noexcept;
    RuleTable(const RuleTable &);

    // The rules that are built in.
    static RuleTable built_in();
    // Puts an array of rules in front of the present ones. Throws std::invalid_argument, naming the place.
    void add(const nlohmann::json &rules);
    // Obeys a command (given without its line end).
    Reply answer(std::string_view command, Modem &modem) const;

  private:
    struct Rule;
    std::vector<Rule> rules_;
};

} // namespace tavrik::sim
