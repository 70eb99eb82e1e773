// The one log call of the library. Every site names its function and line; the mode picks the sink at run time.
//
//   TAVRIK_LOG_ERROR("lookup of %s failed", name);
//
// Each message ends in exactly one "\n": the call adds it unless the text has it already.
#pragma once

#include <stdarg.h>

namespace tavrik {

enum class Level { error, warning, info, debug };

// Where a line comes from. A helper that logs for its caller takes one, so that the line names the operation:
//   int exchange(..., Site site = Site::here());
struct Site {
    const char *function;
    int line;
    static constexpr Site here(const char *function = __builtin_FUNCTION(), int line = __builtin_LINE()) {
        return {function, line};
    }
};

void log(Level level, Site site, const char *format, ...) __attribute__((format(printf, 3, 4)));

// Text that comes from outside (modem, network, services, files) on its way into a line of ours. The kernel log goes
// through a shell, so while that mode is on every character that a shell could act on becomes "?".
class LogText {
  public:
    explicit LogText(const char *text);
    ~LogText();
    LogText(const LogText &) = delete;
    LogText &operator=(const LogText &) = delete;
    const char *c_str() const { return text_; }

  private:
    const char *text_;
    bool raw_;
    char safe_[1024]; // the kernel log takes no more of a line
};

} // namespace tavrik

#define TAVRIK_LOG_AT(level, ...) ::tavrik::log(::tavrik::Level::level, {__func__, __LINE__}, __VA_ARGS__)
#define TAVRIK_LOG_ERROR(...) TAVRIK_LOG_AT(error, __VA_ARGS__)
#define TAVRIK_LOG_WARNING(...) TAVRIK_LOG_AT(warning, __VA_ARGS__)
#define TAVRIK_LOG_INFO(...) TAVRIK_LOG_AT(info, __VA_ARGS__)
#define TAVRIK_LOG_DEBUG(...) TAVRIK_LOG_AT(debug, __VA_ARGS__)
