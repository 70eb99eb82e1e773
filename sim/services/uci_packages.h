#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tavrik::sim {

inline constexpr char uci_folder[] = "/etc/config";

// The file of a package, by its name or by its path. Throws std::invalid_argument when it is neither.
std::filesystem::path uci_file(const std::string &package);

// Gives a package this text, or removes it, in place of what it was and of what programs staged. Throws
// std::runtime_error.
void put_uci_package(const std::string &package, const std::optional<std::string> &text);

// The packages of a new module, and none else.
void renew_uci_packages();

} // namespace tavrik::sim
