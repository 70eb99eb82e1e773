// The tokenizer and the log against the C library's own means.
#include "bench.h"

#include "tavrik_sdk.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr char kLine[] = "+CEREG: 2,1,\"1A2B\",\"01C3D405\",7";
constexpr int kFields = 5;
volatile int g_sink; // keeps the results alive

bool fields(int operations) {
    for (int i = 0; i < operations; i += kFields) {
        char line[sizeof kLine];
        memcpy(line, kLine, sizeof kLine);
        char *cursor = line, *area, *cell;
        int n, stat, act;
        if (at_tok_start(&cursor) || at_tok_nextint(&cursor, &n) || at_tok_nextint(&cursor, &stat) ||
            at_tok_nextstr(&cursor, &area) || at_tok_nextstr(&cursor, &cell) || at_tok_nextint(&cursor, &act))
            return false;
        g_sink = n + stat + act + *area + *cell;
    }
    return true;
}

bool bare_fields(int operations) {
    for (int i = 0; i < operations; i += kFields) {
        char line[sizeof kLine];
        memcpy(line, kLine, sizeof kLine);
        char *cursor = strchr(line, ':') + 1;
        const long n = strtol(strsep(&cursor, ","), nullptr, 10), stat = strtol(strsep(&cursor, ","), nullptr, 10);
        const char *area = strsep(&cursor, ","), *cell = strsep(&cursor, ",");
        const long act = strtol(strsep(&cursor, ","), nullptr, 10);
        g_sink = int(n + stat + act) + area[1] + cell[1];
    }
    return true;
}

// Four lines, one of each level, go to a null device as standard error.
class Quiet {
  public:
    explicit Quiet(const char *option) : saved_(dup(2)) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 2);
        close(null);
        setenv("TAVRIK_LOG_OPTION", option, 1);
        setenv("TAVRIK_LOG_LEVEL", "debug", 1);
    }
    ~Quiet() {
        dup2(saved_, 2);
        close(saved_);
        setenv("TAVRIK_LOG_OPTION", "0", 1);
        unsetenv("TAVRIK_LOG_LEVEL");
    }

  private:
    int saved_;
};

bool lines(const char *option, int operations) {
    Quiet quiet(option);
    for (int i = 0; i < operations; i += 4)
        Tavrik_Log_Test();
    return true;
}

bool bare_lines_off(int operations) {
    Quiet quiet("0");
    for (int i = 0; i < operations; i++)
        g_sink = atoi(getenv("TAVRIK_LOG_OPTION")); // what the module's log library has to ask for each line
    return true;
}

bool bare_lines_on(int operations) {
    Quiet quiet("1");
    for (int i = 0; i < operations; i++) {
        char line[512];
        const int length =
            snprintf(line, sizeof line, "[%ld][%s:%d]:%s\n", syscall(SYS_gettid), "Tavrik_Log_Test", 200, "log test");
        if (write(2, line, size_t(length)) != length)
            return false;
    }
    return true;
}

} // namespace

std::vector<bench::Row> bench::text_rows() {
    return {{"tokenizer field", "ns", 50000, fields, bare_fields},
            {"log off", "ns", 20000, [](int n) { return lines("0", n); }, bare_lines_off},
            {"log on", "ns", 4000, [](int n) { return lines("1", n); }, bare_lines_on}};
}
