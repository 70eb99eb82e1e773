#pragma once

#include <filesystem>
#include <string>

namespace tavrik::sim {

// The bus daemon that belongs to the bus of this build. Throws std::runtime_error where there is none.
std::string find_bus_daemon();

// This program.
std::filesystem::path own_program();

// PATH inside a sandbox: the stand-ins, this program's folder (with tavrikctl), the caller's PATH, then the folders of
// `uci` and `ubus`.
std::string search_path();

} // namespace tavrik::sim
