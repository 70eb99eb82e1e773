#pragma once

#include <string>

namespace tavrik::sim {

// The folder of a running sandbox on the host, by which others find its control socket:
// $XDG_RUNTIME_DIR/tavrik-sim/NAME, or /tmp/tavrik-sim.UID/NAME. It is locked as long as the sandbox lives.
class StateFolder {
  public:
    // An empty name takes a free one. Throws std::runtime_error.
    explicit StateFolder(const std::string &name);

    const std::string &path() const { return path_; }
    std::string control_path() const { return path_ + "/control"; }
    void remove() const; // works from inside the sandbox too

  private:
    bool claim(const std::string &path);

    std::string path_;
    int outside_ = -1; // the folder that the folder of all sandboxes is in, as seen on the host
};

// Connects to the control socket of a running sandbox: by its name or path; an empty name means the sandbox that the
// caller is in, else the newest one. Throws std::runtime_error.
int connect_to_sandbox(const std::string &name);

} // namespace tavrik::sim
