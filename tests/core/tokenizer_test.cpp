// Fields of information lines and the text helpers beside them.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tavrik_sdk.h"

namespace {

// What reading a line field by field gives, in words: "i2" an integer, "b1" a flag, "sX" a text, "-" a failed read,
// "." nothing left.
std::string read_line(std::string line, const std::string &reads) {
    char *cursor = line.data();
    std::string result;
    for (const char read : reads) {
        int number = 7777;
        char flag = 'x';
        char *text = nullptr;
        result += result.empty() ? "" : " ";
        if (read == ':')
            result += at_tok_start(&cursor) ? "-" : ":";
        else if (read == 'i')
            result += at_tok_nextint(&cursor, &number) ? "-" : "i" + std::to_string(number);
        else if (read == 'b')
            result += at_tok_nextbool(&cursor, &flag) ? "-" : "b" + std::to_string(flag);
        else if (read == 's')
            result += at_tok_nextstr(&cursor, &text) ? "-" : "s" + std::string(text ? text : "NULL");
        else
            result += at_tok_hasmore(&cursor) ? "more" : ".";
    }
    return result;
}

TEST(Tokenizer, ReadsFields) {
    const struct {
        const char *line, *reads, *result;
    } cases[] = {
        {"+CREG: 2,1,\"1A2B\",\"01C4D5E6\",7", ":iiss?i?", ": i2 i1 s1A2B s01C4D5E6 more i7 ."},
        {"no colon", ":isb?", "- - - - ."},
        {"", ":i", "- -"},
        {"a:b:1", ":s", ": sb:1"},
        {"1,,2", "iii", "i1 - i2"},
        {"1,,2", "sss", "s1 s s2"},
        {"1,", "is?s", "i1 s . -"},
        {"\"a,b\" x,\"c", "ss?s", "sa,b sc . -"},
        {"\"last\"", "s?ss", "slast . s -"}, // behind a closing quote one empty field is left
        {" \t\r\n\v\f+5 , -7x,12 34", "iii", "i5 i-7 i12"},
        {"\"42\",\" 43\"", "ii", "i42 i43"},
        {"2147483648,-2147483649,99999999999999999999", "iii", "i2147483647 i-2147483648 i2147483647"},
        {"0,1,2,-1,x,", "bbbbbb", "b0 b1 - - - -"},
    };
    for (const auto &test : cases)
        EXPECT_EQ(read_line(test.line, test.reads), test.result) << test.line;
}

TEST(Tokenizer, RefusesNull) {
    char line[] = "1,2", *cursor = line, *none = nullptr, *text;
    int number = 5;
    EXPECT_EQ(at_tok_start(nullptr), -1);
    EXPECT_EQ(at_tok_start(&none), -1);
    EXPECT_EQ(at_tok_nextint(nullptr, &number), -1);
    EXPECT_EQ(at_tok_nextint(&cursor, nullptr), -1);
    EXPECT_EQ(cursor, line) << "a refused read consumes nothing";
    EXPECT_EQ(at_tok_nextstr(nullptr, &text), -1);
    EXPECT_EQ(at_tok_hasmore(nullptr), 0);
    EXPECT_EQ(at_tok_nextbool(&cursor, nullptr), 0) << "a check without storing";
    EXPECT_EQ(at_tok_nextbool(&cursor, nullptr), -1);
    EXPECT_EQ(skip_white_space(&none), &none);
    EXPECT_EQ(skip_next_comma(&none), &none);
    char field[] = "x";
    cursor = field;
    EXPECT_EQ(at_tok_nextint(&cursor, &number), -1);
    EXPECT_EQ(number, 0) << "a field without digits stores 0";
}

TEST(Text, SplitsByDelimiters) {
    const auto split = [](std::string text, const char *delimiters, int index) {
        const char *field = string_split_parameter(text.data(), delimiters, index);
        return field ? std::string(field) : "NULL";
    };
    EXPECT_EQ(split("LTE,Online,,460", ",", 0), "LTE");
    EXPECT_EQ(split("LTE,Online,,460", ",", 2), "460") << "empty fields do not count";
    EXPECT_EQ(split("a-b c", "- ", 2), "c");
    EXPECT_EQ(split("a,b", ",", 2), "NULL");
    EXPECT_EQ(split("a,b", ",", -1), "NULL");
    EXPECT_EQ(string_split_parameter(nullptr, ",", 0), nullptr);
    char text[] = "a";
    EXPECT_EQ(string_split_parameter(text, nullptr, 0), nullptr);
}

TEST(Text, ChecksAndLowersWords) {
    EXPECT_EQ(is_insert_special("my_ssid"), 0);
    for (const char *bad : {(const char *)nullptr, "", "my ssid", "a\tb", "a\n", "\ra"})
        EXPECT_EQ(is_insert_special(bad), -1) << (bad ? bad : "NULL");
    char text[] = "AZ az[`@{\xC4";
    strlwr(text);
    EXPECT_STREQ(text, "az az[`@{\xC4");
    strlwr(nullptr);
}

TEST(Text, ReadsNumbersBehindKeywords) {
    const struct {
        const char *keyword, *text;
        unsigned long as_unsigned;
        int as_signed;
    } cases[] = {
        {"rx:", "tx:5 rx: 17 bytes", 17, 17},
        {nullptr, " 42,7", 42, 42},
        {"rx:", "rx:none", 0, 0},
        {"rx:", "tx:5", 0, 0},
        {"rx:", nullptr, 0, 0},
        {nullptr, "4294967295", 4294967295, 2147483647},
        {nullptr, "4294967296", 4294967295, 2147483647},
        {nullptr, "99999999999999999999999", 4294967295, 2147483647},
        {nullptr, "-5", 4294967291, -5},
        {nullptr, "-4294967297", 4294967295, -2147483648},
        {nullptr, "-99999999999999999999999", 4294967295, INT_MIN},
    };
    for (const auto &test : cases) {
        EXPECT_EQ(ulongfromstr(test.keyword, test.text), test.as_unsigned) << test.text;
        EXPECT_EQ(ufromstr(test.keyword, test.text), test.as_signed) << test.text;
    }
}

TEST(Text, ConvertsUcs2) {
    const struct {
        const char *ucs2, *utf8;
    } cases[] = {
        {"", ""},
        {"\x04\x16\x07\xFF", "\xD0\x96\xDF\xBF"},
        {"\x08\x01\x4E\x2D\xFF\xFD", "\xE0\xA0\x81\xE4\xB8\xAD\xEF\xBF\xBD"},
        {"\xD8\x3D\xDE\x01", "\xED\xA0\xBD\xED\xB8\x81"}, // a surrogate pair stays two units
        {"\x4E\x2D\x65", "\xE4\xB8\xAD"},                 // half a unit at the end
    };
    for (const auto &test : cases) {
        // Exactly the promised size, so that a sanitizer sees a byte too many.
        std::vector<char> out(strlen(test.ucs2) * 3 / 2 + 1, '#');
        tavrik_ucs2_to_utf8(test.ucs2, out.data());
        EXPECT_STREQ(out.data(), test.utf8);
    }
    char untouched = '#';
    tavrik_ucs2_to_utf8(nullptr, &untouched);
    tavrik_ucs2_to_utf8("\x4E\x2D", nullptr);
    EXPECT_EQ(untouched, '#');
}

TEST(Text, TakesTheLineBehindAKeyword) {
    const struct {
        const char *response, *keyword;
        int result;
        const char *output;
    } cases[] = {
        {"\r\n+CPIN: READY\r\n\r\nOK\r\n", "+CPIN:", 0, " READY"},
        {"A:one\rtwo\nthree\r\nA:four\r\n", "A:", 0, "one\rtwo\nthree"},
        {"A:\r\n", "A:", 0, ""},
        {"A:no end", "A:", -1, "no en"},
        {"A:half\r", "A:", -1, "half"},
        {"A:", "A:", -1, ""},
        {"B:1\r\n", "A:", -1, ""},
    };
    for (const auto &test : cases) {
        char output[64] = {};
        EXPECT_EQ(handle_response_data(test.response, test.keyword, output), test.result) << test.response;
        EXPECT_STREQ(output, test.output);
    }
    char output[4];
    EXPECT_EQ(handle_response_data(nullptr, "A:", output), -1);
    EXPECT_EQ(handle_response_data("A:", nullptr, output), -1);
    EXPECT_EQ(handle_response_data("A:", "A:", nullptr), -1);
}

TEST(Shell, KeepsTheLastLine) {
    const struct {
        const char *command;
        int size;
        const char *result;
    } cases[] = {
        {"printf 'one\\ntwo\\n'", 16, "two\n"},
        {"printf 'one\\ntwo'", 16, "two"},
        {"printf 'a long line\\nb\\n'", 16, "b\n"},
        {"printf abcdefgh", 4, "gh"}, // read in pieces of three
        {"printf 'abc\\n'", 4, "\n"},
        {"echo much", 1, ""},
        {"true", 16, ""},
        {"echo failed; exit 3", 16, "failed\n"},
        {"exec /no/such/program 2>&-", 16, ""},
    };
    for (const auto &test : cases) {
        std::vector<char> buffer(size_t(test.size), '#');
        EXPECT_EQ(system_handle(test.command, buffer.data(), test.size), 0) << test.command;
        EXPECT_STREQ(buffer.data(), test.result) << test.command;
    }
    char buffer[8] = "same";
    EXPECT_EQ(system_handle(nullptr, buffer, 8), -1);
    EXPECT_EQ(system_handle("echo x", nullptr, 8), -1);
    EXPECT_EQ(system_handle("echo x", buffer, 0), -1);
    EXPECT_EQ(system_handle("echo x", buffer, -8), -1);
    EXPECT_STREQ(buffer, "same");
}

long open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST(Shell, LeavesTheHostAlone) {
    // The host ignores SIGCHLD and SIGPIPE and blocks SIGTERM; the command still has the usual settings.
    const auto ignored_children = signal(SIGCHLD, SIG_IGN);
    const auto ignored_pipe = signal(SIGPIPE, SIG_IGN);
    sigset_t term, before, after;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, &before);
    const long descriptors = open_descriptors();
    char status[16];
    EXPECT_EQ(system_handle("kill -TERM $$; echo survived", status, sizeof status), 0);
    EXPECT_STREQ(status, "");
    EXPECT_EQ(system_handle("sh -c 'kill -PIPE $$'; echo $?", status, sizeof status), 0);
    EXPECT_STREQ(status, "141\n");
    // No descriptor of the library reaches the command: it sees as many as one of popen().
    char reference[16] = {};
    FILE *pipe = popen("ls /proc/self/fd | wc -l", "r");
    EXPECT_TRUE(fgets(reference, sizeof reference, pipe));
    pclose(pipe);
    EXPECT_EQ(system_handle("ls /proc/self/fd | wc -l", status, sizeof status), 0);
    EXPECT_STREQ(status, reference);
    EXPECT_EQ(open_descriptors(), descriptors);
    pthread_sigmask(SIG_SETMASK, &before, &after);
    EXPECT_EQ(sigismember(&after, SIGTERM), 1);
    EXPECT_EQ(signal(SIGCHLD, ignored_children), SIG_IGN);
    EXPECT_EQ(signal(SIGPIPE, ignored_pipe), SIG_IGN);
}

TEST(Shell, WorksWithoutStandardOutput) {
    // The pipe then gets the number that the command's output is to have.
    const int saved = dup(STDOUT_FILENO);
    close(STDOUT_FILENO);
    char line[16];
    const int result = system_handle("echo here", line, sizeof line);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    EXPECT_EQ(result, 0);
    EXPECT_STREQ(line, "here\n");
}

TEST(Shell, WaitsForNoOtherChild) {
    const pid_t child = fork();
    if (!child)
        _exit(9);
    char line[16];
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(system_handle("echo x", line, sizeof line), 0);
    int status;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 9);
}

} // namespace
