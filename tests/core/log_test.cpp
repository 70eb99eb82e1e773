// Where log lines go, and their exact shape there.
#include "support/sim.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <sys/syscall.h>
#include <syslog.h>

namespace {
std::string g_syslog;
}

// The library's syslog calls arrive here: "PRIORITY TEXT|".
extern "C" __attribute__((visibility("default"))) void syslog(int priority, const char *format, ...) {
    char text[8192];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    g_syslog += std::to_string(priority) + " " + text + "|";
}

namespace {

// What a call logs, wherever that goes; lines of the kernel log end in "|", numbers of lines are "N", that of this
// thread "TID".
template <class Run>
std::string logged(Run run) {
    g_syslog.clear();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    errno = EXDEV;
    run();
    EXPECT_EQ(errno, EXDEV);
    fflush(stdout);
    std::string all = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr() + g_syslog;
    for (const std::string &line : sim::recorded("kmsg"))
        all += line + "|";
    const std::regex tid("\\[" + std::to_string(syscall(SYS_gettid)) + "\\]");
    return std::regex_replace(std::regex_replace(all, std::regex(":[0-9]+\\]:"), ":N]:"), tid, "[TID]");
}

std::string each(const std::vector<std::string> &starts, const std::string &rest) {
    std::string all;
    for (const std::string &start : starts)
        all += start + rest;
    return all;
}

TEST(Log, GoesToOneSinkAsItsModeSays) {
    EXPECT_EQ(Tavrik_Get_Log_Mode(), TAVRIK_LOG_ANDROID); // nobody has switched yet
    const std::string text = "Tavrik_Log_Test:N]:log test", line = "[TID][" + text + "\n";
    const struct {
        int mode;
        const char *option, *level;
        std::string lines;
    } cases[] = {
        {0, "0", "err", each({"[sdklog err:", "[sdklog warn:", "[sdklog info:", "[sdklog debug:"}, text + "\n")},
        {1, "1", "debug", line + line + line + line},
        {1, "1", "warn", line + line},
        {1, "2", "err", line + "\n"},
        {1, "0", "debug", ""},
        {1, "3", "debug", ""},
        {2, "0", "err", each({"3 ", "4 ", "6 ", "7 "}, line + "|")},
        {3, "0", "err", each({"err:", "warn:", "info:", "debug:"}, "[TID][" + text + "|")},
    };
    for (const auto &test : cases) {
        setenv("TAVRIK_LOG_OPTION", test.option, 1);
        setenv("TAVRIK_LOG_LEVEL", test.level, 1);
        EXPECT_EQ(Tavrik_Switch_Log_Mode(test.mode), 0);
        for (const int wrong : {4, -1, INT32_MIN})
            EXPECT_EQ(Tavrik_Switch_Log_Mode(wrong), -1);
        EXPECT_EQ(Tavrik_Get_Log_Mode(), test.mode);
        EXPECT_EQ(logged(Tavrik_Log_Test), test.lines) << test.mode << test.option << test.level;
    }
}

TEST(Log, ReachesTheKernelThroughAShell) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_KERNEL); // text from outside does nothing in that shell
    EXPECT_EQ(logged([] { ufromstr("$(echo a)`b`;c&d|e<f>(g){h}[i]*j?k!l#m~n\\o\"p'q\nr", ""); }),
              "err:[TID][ufromstr:N]:find ??echo a??b??c?d?e?f??g??h??i??j?k?l?m?n?o?p?q?r faild|");
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT); // what the program itself writes is taken literally, in each mode
    const std::string text(2000, 't');
    EXPECT_EQ(logged([&] {
                  Tavrik_kmsg_log(1, "$((40 + %d)) a\nb", 2);
                  Tavrik_kmsg_log(4, "d");
                  Tavrik_kmsg_log(5, "never");
                  Tavrik_kmsg_log(0, "never");
                  Tavrik_kmsg_log(2, nullptr);
                  Tavrik_kmsg_log(3, "%s", text.c_str());
              }),
              "err:42 a b|debug:d||||info:" + text.substr(0, 1018) + "|");
}

TEST(Log, CutsNoLongLine) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    for (size_t length = 1; length < 6000; length += length < 520 ? 1 : 5000) {
        const std::string keyword(length, 'k');
        EXPECT_EQ(logged([&] { ufromstr(keyword.c_str(), "x"); }),
                  "[sdklog err:ufromstr:N]:find " + keyword + " faild\n");
    }
}

TEST(Log, SurvivesAReaderThatHasGone) {
    const auto log_to_nobody = [](int descriptor) {
        int ends[2];
        if (pipe(ends) || close(ends[0]) || dup2(ends[1], descriptor) < 0)
            _exit(1);
        signal(SIGPIPE, SIG_DFL);
        setvbuf(stdout, nullptr, _IONBF, 0);
        Tavrik_Log_Test();
        _exit(0);
    };
    setenv("TAVRIK_LOG_OPTION", "1", 1);
    for (const int mode : {TAVRIK_LOG_STDOUT, TAVRIK_LOG_ANDROID}) {
        Tavrik_Switch_Log_Mode(mode);
        EXPECT_EXIT(log_to_nobody(mode ? STDERR_FILENO : STDOUT_FILENO), testing::ExitedWithCode(0), "");
    }
}

} // namespace
