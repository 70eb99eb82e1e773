#pragma once

#include "tavrik_sdk.h"

namespace tavrik {

// One field of a comma-separated text, without blanks at its ends. Empty fields are not counted, as the modem's
// answers are read throughout the library.
class Field {
  public:
    Field(const char *text, int index);
    // nullptr when there is none.
    const char *text() const { return text_; }
    // 0 when there is none.
    int number() const;

  private:
    char copy_[TAVRIK_AT_RESPONSE_SIZE];
    char *text_;
};

} // namespace tavrik
