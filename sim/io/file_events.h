#pragma once

#include <functional>
#include <map>
#include <string>

#include "io/loop.h"

namespace tavrik::sim {

// Tells what happens to files, as inotify does. A user has only so many of it; without one, everything that is watched
// is told of every few milliseconds, with neither mask nor name.
class FileEvents {
  public:
    using Handler = std::function<void(uint32_t mask, const std::string &name)>;

    FileEvents();
    ~FileEvents();

    // Returns the number of the watch, for remove(). The path is there.
    int add(const std::string &path, uint32_t mask, Handler handler);
    void remove(int number);
    // Takes what waits.
    void read();

  private:
    int fd_;
    Watch watch_;
    Timer timer_;
    int last_ = 0; // number, without inotify
    std::map<int, Handler> handlers_;
};

} // namespace tavrik::sim
