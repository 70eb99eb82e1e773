#pragma once

#include <climits>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>

#include "io/stream_server.h"

namespace tavrik::sim {

// The arguments of a control call: each is taken once, and what nobody took is an error. All throw
// std::invalid_argument.
class Args {
  public:
    explicit Args(const nlohmann::json &object) : object_(object) {
        if (!object.is_object())
            throw std::invalid_argument("the arguments are not an object");
    }

    // NULL when it is missing.
    const nlohmann::json *take(const char *key);
    std::optional<int64_t> number(const char *key, int64_t min, int64_t max);
    int milliseconds(const char *key, int fallback);
    std::optional<std::string> text(const char *key);
    // Text, or a number as its digits.
    std::optional<std::string> text_or_number(const char *key);
    // Bytes in hex.
    std::optional<std::string> hex(const char *key);
    // `text_key` holds text, "hex" any bytes.
    std::optional<std::string> bytes(const char *text_key);
    bool flag(const char *key);
    // A position, a rising list of them, or {"every": n}.
    Cuts cuts(const char *key);
    // Call it last.
    void finish() const;

  private:
    const nlohmann::json &object_;
    std::set<std::string> taken_;
};

// Parses JSON that comes from outside. Throws std::exception when it is none, or nested more deeply than anything
// sensible: values are copied and written by functions that call themselves.
nlohmann::json parse_json(const std::string &text);

std::string to_hex(const std::string &bytes);

// "*" stands for any text. Everything else, "?" included, stands for itself.
bool wildcard_match(std::string_view pattern, std::string_view text);

} // namespace tavrik::sim
