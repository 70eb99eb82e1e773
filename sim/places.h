#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace tavrik::sim {

enum class Make {
    opened,  // a tmpfs into which every entry of the host's folder is bound back
    overlay, // the host's folder; changes stay in the sandbox
    folder,  // an empty folder, whatever the host has there
    mounted, // the same, on a file system of its own: quicker, but no file can be moved there
    absent,  // not bound back into the opened folder it is in
    link,    // a symbolic link to `text`
    fifo,    // a FIFO; lines that arrive are recorded as `text`
    program, // a stand-in, of which `text` is the script; without one it reports its command line and succeeds
};

struct Place {
    std::filesystem::path path;
    Make make;
    std::string text = {};
};

inline constexpr char at_server_path[] = "/tmp/atcmdsdk";

// The FIFO to which stand-ins write their command line.
inline constexpr char programs_fifo[] = "/run/tavrik-sim/program";

// What the sandbox changes about the host's paths. Order matters: a place may lie in one made before it.
const std::vector<Place> &places();

} // namespace tavrik::sim
