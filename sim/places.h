#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tavrik::sim {

enum class Make {
    opened,  // a tmpfs into which every entry of the host's folder is bound back, where it has that folder
    overlay, // the host's folder; changes stay in the sandbox
    folder,  // an empty folder, whatever the host has there
    mounted, // the same, on a file system of its own: quicker, but no file can be moved there
    absent,  // not bound back into the opened folder it is in
    link,    // a symbolic link to `text`
    file,    // a file with `text`, whatever the host has there
    fifo,    // a FIFO; lines that arrive are recorded as `text`
    ptmx,    // the folder of the host's master of pseudo-terminals
    devpts,  // pseudo-terminals of the sandbox's own
    disk,    // a small file system
    program, // a stand-in, of which `text` is the script; without one it reports its command line and succeeds
};

struct Place {
    std::filesystem::path path;
    Make make;
    std::string text = {};
};

inline constexpr char at_server_path[] = "/tmp/atcmdsdk";

// The overlay of /etc keeps its changes in a file system of its own, which can be filled up.
inline constexpr char overlay_changes[] = "/run/tavrik-sim/overlay";

// The WiFi service, and what its stand-in does beside reporting its command line, a script.
inline constexpr char wifi_service_path[] = "/etc/init.d/mwlan", wifi_service_fate[] = "/run/tavrik-sim/mwlan";

// Where the module's serial ports and its flash are in truth. Links lead there, which the module process takes away.
inline constexpr char sandbox_terminals[] = "/run/tavrik-sim/pts";
inline constexpr char sandbox_disk[] = "/run/tavrik-sim/userdata";
inline constexpr char sandbox_ptmx[] = "/run/tavrik-sim/ptmx";

// The FIFO to which stand-ins write their command line.
inline constexpr char programs_fifo[] = "/run/tavrik-sim/program";

// What the sandbox changes about the host's paths. Order matters: a place may lie in one made before it.
const std::vector<Place> &places();

} // namespace tavrik::sim
