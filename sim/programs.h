#pragma once

#include <filesystem>
#include <string>

namespace tavrik::sim {

// The bus daemon that belongs to the bus of this build. Throws std::runtime_error where there is none.
std::string find_bus_daemon();

// This program.
std::filesystem::path own_program();

// The `uci` of libuci; empty where there is none.
std::string uci_program();

// PATH inside a sandbox: the stand-ins and `uci`, this program's folder (with tavrikctl), the caller's PATH, then the
// folder of `ubus` and those of `ifconfig` and `ip`, which a user's PATH may lack.
std::string search_path();

} // namespace tavrik::sim
