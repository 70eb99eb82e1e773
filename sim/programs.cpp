#include "programs.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <unistd.h>
#include <vector>

#include "sandbox.h"

// Where the build found them. The host bus daemon needs no place of its own: it stands beside tavrik-sim.
#ifdef TAVRIK_BUS_DAEMON
#define TAVRIK_BUS_DAEMON_NAME "ubusd"
#else
#define TAVRIK_BUS_DAEMON ""
#define TAVRIK_BUS_DAEMON_NAME "tavrik-ubusd"
#endif
#ifndef TAVRIK_UCI_PROGRAM
#define TAVRIK_UCI_PROGRAM ""
#endif
#ifndef TAVRIK_UBUS_PROGRAM
#define TAVRIK_UBUS_PROGRAM ""
#endif

namespace fs = std::filesystem;

namespace tavrik::sim {
namespace {

std::string caller_path() {
    const char *path = getenv("PATH");
    return path ? path : "/usr/local/bin:/usr/bin:/bin";
}

fs::path own_folder() {
    return own_program().parent_path();
}

} // namespace

fs::path own_program() {
    std::error_code none;
    return fs::read_symlink("/proc/self/exe", none);
}

std::string find_bus_daemon() {
    const char *wanted = getenv("TAVRIK_UBUSD");
    std::vector<std::string> candidates = {wanted ? wanted : own_folder() / TAVRIK_BUS_DAEMON_NAME};
    if (!wanted) {
        candidates.push_back(TAVRIK_BUS_DAEMON);
        std::istringstream folders(caller_path());
        for (std::string folder; std::getline(folders, folder, ':');)
            candidates.push_back(fs::path(folder) / TAVRIK_BUS_DAEMON_NAME);
    }
    for (const std::string &candidate : candidates) {
        std::error_code none;
        if (fs::is_regular_file(candidate, none) && access(candidate.c_str(), X_OK) == 0)
            return fs::absolute(candidate);
    }
    throw std::runtime_error(wanted ? std::string("TAVRIK_UBUSD names no program: ") + wanted
                                    : "found no " TAVRIK_BUS_DAEMON_NAME "; TAVRIK_UBUSD may name one");
}

std::string uci_program() {
    return access(TAVRIK_UCI_PROGRAM, X_OK) == 0 ? TAVRIK_UCI_PROGRAM : "";
}

std::string search_path() {
    std::string path = std::string(sandbox_programs) + ":" + own_folder().string() + ":" + caller_path();
    if (const fs::path ubus = TAVRIK_UBUS_PROGRAM; !ubus.empty())
        path += ":" + ubus.parent_path().string();
    return path + ":/usr/sbin:/sbin";
}

} // namespace tavrik::sim
