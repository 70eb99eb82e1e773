// Where log lines go, and their exact shape there.
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <fcntl.h>
#include <regex>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

#include "support/sim.h"
#include "tavrik_sdk.h"

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

class Log : public testing::Test {
  protected:
    void SetUp() override {
        setenv("TAVRIK_LOG_LEVEL", "debug", 1);
        setenv("TAVRIK_LOG_OPTION", "1", 1);
        g_syslog.clear();
    }
    void TearDown() override { Tavrik_Switch_Log_Mode(TAVRIK_LOG_ANDROID); }
};

template <class Run>
std::string output_of(int descriptor, Run run) {
    if (descriptor == STDOUT_FILENO)
        testing::internal::CaptureStdout();
    else
        testing::internal::CaptureStderr();
    run();
    fflush(stdout);
    return descriptor == STDOUT_FILENO ? testing::internal::GetCapturedStdout()
                                       : testing::internal::GetCapturedStderr();
}

// Line numbers become "N", this thread's id "TID".
std::string plain(const std::string &text) {
    const std::string tid = "\\[" + std::to_string(syscall(SYS_gettid)) + "\\]";
    return std::regex_replace(std::regex_replace(text, std::regex(":[0-9]+\\]:"), ":N]:"), std::regex(tid), "[TID]");
}

TEST_F(Log, StartsWithTheModuleLog) {
    // A process of its own, in which nobody has switched yet.
    EXPECT_EQ(Tavrik_Get_Log_Mode(), TAVRIK_LOG_ANDROID);
    EXPECT_EQ(output_of(STDERR_FILENO, [] { Tavrik_AT_Send(nullptr, "OK", nullptr, 1, 0); }).empty(), false);
}

TEST_F(Log, SwitchesAmongFourModes) {
    for (const int mode : {0, 2, 3, 1}) {
        EXPECT_EQ(Tavrik_Switch_Log_Mode(mode), 0);
        for (const int wrong : {4, -1, INT32_MIN, INT32_MAX})
            EXPECT_EQ(Tavrik_Switch_Log_Mode(wrong), -1);
        EXPECT_EQ(Tavrik_Get_Log_Mode(), mode);
    }
}

TEST_F(Log, ToStandardOutputWithLabels) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    EXPECT_EQ(plain(output_of(STDOUT_FILENO, Tavrik_Log_Test)), "[sdklog err:Tavrik_Log_Test:N]:log test\n"
                                                                "[sdklog warn:Tavrik_Log_Test:N]:log test\n"
                                                                "[sdklog info:Tavrik_Log_Test:N]:log test\n"
                                                                "[sdklog debug:Tavrik_Log_Test:N]:log test\n");
}

TEST_F(Log, ToTheModuleLogAsItsOptionSays) {
    const std::string line = "[TID][Tavrik_Log_Test:N]:log test\n";
    const struct {
        const char *option, *level;
        std::string lines;
    } cases[] = {
        {"1", "debug", line + line + line + line},
        {"1", "warn", line + line},
        {"2", "err", line + "\n"},
        {"0", "debug", ""},
        {"3", "debug", ""},
    };
    for (const auto &test : cases) {
        setenv("TAVRIK_LOG_OPTION", test.option, 1);
        setenv("TAVRIK_LOG_LEVEL", test.level, 1);
        EXPECT_EQ(plain(output_of(STDERR_FILENO, Tavrik_Log_Test)), test.lines) << test.option << test.level;
    }
}

TEST_F(Log, ToSyslogWithPriorities) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_SYSLOG);
    Tavrik_Log_Test();
    EXPECT_EQ(plain(g_syslog), "3 [TID][Tavrik_Log_Test:N]:log test\n|4 [TID][Tavrik_Log_Test:N]:log test\n|"
                               "6 [TID][Tavrik_Log_Test:N]:log test\n|7 [TID][Tavrik_Log_Test:N]:log test\n|");
}

std::vector<std::string> kernel_lines() {
    const nlohmann::json record = sim::call("record", {{"kind", "kmsg"}, {"clear", true}});
    std::vector<std::string> lines;
    for (const nlohmann::json &entry : record["entries"])
        lines.push_back(plain(entry["text"]));
    return lines;
}

TEST_F(Log, ToTheKernelLogThroughAShell) {
    using Lines = std::vector<std::string>;
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_KERNEL);
    sim::call("reset");
    Tavrik_Log_Test();
    EXPECT_EQ(kernel_lines(),
              (Lines{"err:[TID][Tavrik_Log_Test:N]:log test", "warn:[TID][Tavrik_Log_Test:N]:log test",
                     "info:[TID][Tavrik_Log_Test:N]:log test", "debug:[TID][Tavrik_Log_Test:N]:log test"}));
    // Text from outside does nothing in that shell.
    ufromstr("$(echo a)`b`;c&d|e<f>(g){h}[i]*j?k!l#m~n\\o\"p'q\nr", "");
    EXPECT_EQ(kernel_lines(),
              (Lines{"err:[TID][ufromstr:N]:find ??echo a??b??c?d?e?f??g??h??i??j?k?l?m?n?o?p?q?r faild"}));

    // What the program itself writes is taken literally, in each mode.
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    Tavrik_kmsg_log(1, "$((40 + %d)) a\nb", 2);
    Tavrik_kmsg_log(4, "d");
    Tavrik_kmsg_log(5, "never");
    Tavrik_kmsg_log(0, "never");
    Tavrik_kmsg_log(2, nullptr);
    const std::string text(2000, 't');
    Tavrik_kmsg_log(3, "%s", text.c_str());
    EXPECT_EQ(kernel_lines(), (Lines{"err:42 a b", "debug:d", "", "", "", "info:" + text.substr(0, 1018)}));
}

TEST_F(Log, CutsNoLongLine) {
    Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
    const std::string prefix = "[sdklog err:ufromstr:N]:find ";
    for (size_t length = 1; length < 6000; length += length < 520 ? 1 : 5000) {
        const std::string keyword(length, 'k');
        EXPECT_EQ(plain(output_of(STDOUT_FILENO, [&] { ufromstr(keyword.c_str(), "x"); })),
                  prefix + keyword + " faild\n");
    }
}

TEST_F(Log, KeepsErrno) {
    for (const int mode : {TAVRIK_LOG_STDOUT, TAVRIK_LOG_ANDROID, TAVRIK_LOG_SYSLOG, TAVRIK_LOG_KERNEL}) {
        Tavrik_Switch_Log_Mode(mode);
        output_of(STDOUT_FILENO, [&] {
            output_of(STDERR_FILENO, [&] {
                errno = EXDEV;
                Tavrik_Log_Test();
                EXPECT_EQ(errno, EXDEV) << mode;
            });
        });
    }
}

TEST_F(Log, SurvivesAReaderThatHasGone) {
    for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO}) {
        const pid_t child = fork();
        if (!child) {
            int ends[2];
            if (pipe(ends))
                _exit(1);
            close(ends[0]);
            dup2(ends[1], descriptor);
            signal(SIGPIPE, SIG_DFL);
            setvbuf(stdout, nullptr, _IONBF, 0);
            Tavrik_Switch_Log_Mode(descriptor == STDOUT_FILENO ? TAVRIK_LOG_STDOUT : TAVRIK_LOG_ANDROID);
            Tavrik_Log_Test();
            _exit(0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0) << descriptor;
    }
}

} // namespace
