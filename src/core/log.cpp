#include "core/log.h"

#include "core/shell.h"
#include "core/sigpipe.h"
#include "module_log.h"
#include "tavrik_sdk.h"

#include <atomic>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

namespace tavrik {
namespace {

struct LevelForm {
    const char *label;
    int priority;
};
// By Level; the kernel log counts them from 1.
constexpr LevelForm kLevels[] = {{"err", LOG_ERR}, {"warn", LOG_WARNING}, {"info", LOG_INFO}, {"debug", LOG_DEBUG}};
constexpr int kLevelCount = sizeof kLevels / sizeof *kLevels;

std::atomic<int> g_mode{TAVRIK_LOG_ANDROID};
// Texts from outside that are on their way into a line as they are, because the mode was another when they were taken.
std::atomic<int> g_raw_texts{0};

void disarm(char *text) {
    while (*(text += strcspn(text, "\\\"'`$;&|<>(){}[]*?!#~^\n\r")))
        *text++ = '?';
}

// Prefix and message in one piece, so that a sink gets whole lines. Nearly all fit on the stack.
class Line {
  public:
    ~Line() {
        if (text_ != short_)
            free(text_);
    }
    void prefix(const char *format, ...) __attribute__((format(printf, 2, 3)));
    void message(const char *format, va_list args) __attribute__((format(printf, 2, 0)));
    void disarm_message() { disarm(text_ + start_); }
    void end();
    const char *text() const { return text_; }
    size_t length() const { return length_; }

  private:
    char short_[512];
    char *text_ = short_;
    size_t start_ = 0; // of the message
    size_t length_ = 0;
};

void Line::prefix(const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int wanted = vsnprintf(short_, sizeof short_ / 2, format, args);
    va_end(args);
    start_ = wanted < 0 ? 0 : size_t(wanted) < sizeof short_ / 2 ? size_t(wanted) : sizeof short_ / 2 - 1;
}

void Line::message(const char *format, va_list args) {
    va_list again;
    va_copy(again, args);
    const size_t room = sizeof short_ - start_ - 1; // less the line feed to come
    const int wanted = vsnprintf(short_ + start_, room, format, args);
    size_t length = wanted < 0 ? 0 : size_t(wanted);
    if (length >= room) {
        char *longer = static_cast<char *>(malloc(start_ + length + 2));
        if (longer) {
            memcpy(longer, short_, start_);
            vsnprintf(longer + start_, length + 1, format, again);
            text_ = longer;
        } else {
            length = room - 1;
        }
    }
    va_end(again);
    length_ = start_ + length;
}

void Line::end() {
    if (length_ == start_ || text_[length_ - 1] != '\n')
        text_[length_++] = '\n';
    text_[length_] = 0;
}

} // namespace

void log(Level level, Site site, const char *format, ...) {
    const int saved_errno = errno;
    const LevelForm &form = kLevels[int(level)];
    const int mode = g_mode.load(std::memory_order_relaxed);
    const int option = mode == TAVRIK_LOG_ANDROID ? __android_log_option() : 0;
    if (mode == TAVRIK_LOG_ANDROID && option != 1 && option != 2) {
        errno = saved_errno;
        return;
    }

    Line line;
    if (mode == TAVRIK_LOG_STDOUT)
        line.prefix("[sdklog %s:%s:%d]:", form.label, site.function, site.line);
    else
        line.prefix("[%ld][%s:%d]:", syscall(SYS_gettid), site.function, site.line);
    va_list args;
    va_start(args, format);
    errno = saved_errno; // for a %m
    line.message(format, args);
    va_end(args);
    if (mode == TAVRIK_LOG_KERNEL && g_raw_texts.load())
        line.disarm_message();
    line.end();

    const SigpipeBlocked blocked;
    switch (mode) {
    case TAVRIK_LOG_STDOUT:
        fwrite(line.text(), 1, line.length(), stdout);
        break;
    case TAVRIK_LOG_ANDROID:
        if (option == 1)
            __android_log_printf(1, form.priority, "%s", line.text());
        else
            __android_log_printf(4, form.priority, "%s\n", line.text());
        break;
    case TAVRIK_LOG_SYSLOG:
        syslog(form.priority, "%s", line.text());
        break;
    case TAVRIK_LOG_KERNEL:
        Tavrik_kmsg_log(int(level) + 1, "%s", line.text());
        break;
    }
    errno = saved_errno;
}

LogText::LogText(const char *text) : text_(text ? text : "(null)"), raw_(true) {
    // Counted before the mode is read: whoever switches to the kernel log from here on finds the count, and the line
    // is disarmed as a whole.
    ++g_raw_texts;
    if (g_mode.load() != TAVRIK_LOG_KERNEL)
        return;
    --g_raw_texts;
    raw_ = false;
    snprintf(safe_, sizeof safe_, "%s", text_);
    disarm(safe_);
    text_ = safe_;
}

LogText::~LogText() {
    if (raw_)
        --g_raw_texts;
}

} // namespace tavrik

int Tavrik_Get_Log_Mode(void) {
    return tavrik::g_mode.load(std::memory_order_relaxed);
}

int Tavrik_Switch_Log_Mode(int mode) {
    if (unsigned(mode) > TAVRIK_LOG_KERNEL)
        return -1;
    tavrik::g_mode.store(mode);
    return 0;
}

void Tavrik_kmsg_log(int level, const char *format, ...) {
    const int saved_errno = errno;
    char text[1024] = {};
    if (level >= 1 && level <= tavrik::kLevelCount && format) {
        const int prefix = snprintf(text, sizeof text, "%s:", tavrik::kLevels[level - 1].label);
        va_list args;
        va_start(args, format);
        vsnprintf(text + prefix, sizeof text - size_t(prefix), format, args);
        va_end(args);
    }
    for (char *feed = text; (feed = strchr(feed, '\n'));)
        *feed = ' ';
    char command[sizeof text + 20];
    snprintf(command, sizeof command, "echo %s > /dev/kmsg", text);
    tavrik::run_shell(command);
    errno = saved_errno;
}

void Tavrik_Log_Test(void) {
    TAVRIK_LOG_ERROR("log test");
    TAVRIK_LOG_WARNING("log test");
    TAVRIK_LOG_INFO("log test");
    TAVRIK_LOG_DEBUG("log test");
}
