// The AT channel to the modem, for as long as a verb runs.
#pragma once

#include "output.h"

#include <string>
#include <tavrik_sdk.h>

namespace tavrikctl {

class Channel {
  public:
    explicit Channel(const std::string &family) : reached_(Tavrik_AT_Init() == 0) {
        if (!reached_)
            fail(family + ": the AT server cannot be reached");
    }
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;
    ~Channel() { Tavrik_AT_Deinit(); }
    explicit operator bool() const { return reached_; }

  private:
    bool reached_;
};

} // namespace tavrikctl
