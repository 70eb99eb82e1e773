#pragma once

#include <map>
#include <string>

#include "io/loop.h"
#include "services/context.h"

namespace tavrik::sim {

// Records what is written to the FIFOs of the sandbox, a line each, and gives the kernel's files what is theirs. Lines
// are taken in the order in which they were written, whichever FIFO each went to: inotify tells the writes in theirs.
class Taps {
  public:
    explicit Taps(Context &context);
    ~Taps();

    void read();

  private:
    struct Reader {
        explicit Reader(const Tap &t, Taps &taps) : tap(t), watch([&taps] { taps.read(); }) {}
        const Tap &tap;
        Watch watch;
        std::string text; // read and not taken yet
    };

    bool take_line(Reader &reader);

    Context &context_;
    int writes_; // inotify; -1 where the user has no more of it: then the order between FIFOs is by chance
    Watch watch_;
    std::map<int, Reader> readers_;
};

} // namespace tavrik::sim
