// One exchange with the modem, as a family's operation makes it:
//
//   AtCommand at;
//   if (at.send("AT+CPIN?") || at.field_behind("CPIN:", state, sizeof state)) {
//       TAVRIK_LOG_ERROR("Failed to get ims status");
//       return -1;
//   }
#pragma once

#include "tavrik_sdk.h"

#include <stddef.h>

namespace tavrik {

class AtCommand {
  public:
    // `answer_size`: what is taken in of the answer, at most TAVRIK_AT_RESPONSE_SIZE.
    explicit AtCommand(int timeout_ms = TAVRIK_AT_TIMEOUT_MS, const char *expected = "OK",
                       int answer_size = TAVRIK_AT_RESPONSE_SIZE)
        : expected_(expected),
          timeout_ms_(timeout_ms),
          answer_size_(answer_size) {}

    // Formats the command, sends it and collects the answer. 0 or -1.
    int send(const char *format, ...) __attribute__((format(printf, 2, 3)));

    // What was sent, and all that came back, after a failure too. The answer may be cut into tokens.
    const char *command() const { return command_; }
    char *answer() { return answer_; }

    // The rest of the line behind `prefix`, without blanks at its ends: cut to a record's field, or left out with -1
    // when it does not fit into the caller's own buffer. Without such a line -1 and an empty field or buffer.
    int field_behind(const char *prefix, char *field, size_t size) const;
    int text_behind(const char *prefix, char *buffer, size_t size) const;

  private:
    const char *const expected_;
    const int timeout_ms_;
    const int answer_size_;
    char command_[512] = {};
    char answer_[TAVRIK_AT_RESPONSE_SIZE] = {};
};

} // namespace tavrik
