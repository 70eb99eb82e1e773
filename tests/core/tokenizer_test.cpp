// Fields of information lines and the text helpers beside them.
#include "support/descriptors.h"
#include "support/shell.h"
#include "tavrik_sdk.h"

#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/wait.h>

namespace {

using Rows = std::vector<std::pair<std::string, std::string>>; // what there is, and what there should be

void check(const Rows &rows) {
    for (size_t i = 0; i < rows.size(); ++i)
        EXPECT_EQ(rows[i].first, rows[i].second) << "row " << i;
}

// What reading a line field by field gives: integers (i), flags (b) and texts (s), ":" behind the first colon, "?"
// while there is more, "-" else.
std::string read_line(std::string line, const std::string &reads) {
    char *cursor = line.data();
    std::string result;
    for (const char read : reads) {
        int number = 7777;
        char flag = 'x', *text = nullptr;
        if (read == 'i')
            result += at_tok_nextint(&cursor, &number) ? "-" : std::to_string(number);
        else if (read == 'b')
            result += at_tok_nextbool(&cursor, &flag) ? "-" : std::to_string(flag);
        else if (read == 's')
            result += at_tok_nextstr(&cursor, &text) ? "-" : text;
        else
            result += (read == ':' ? !at_tok_start(&cursor) : at_tok_hasmore(&cursor)) ? read : '-';
        result += " ";
    }
    return result;
}

TEST(Tokenizer, ReadsFields) {
    check({
        {read_line("+CREG: 2,1,\"1A2B\",\"01C4D5E6\",7", ":iiss?i?"), ": 2 1 1A2B 01C4D5E6 ? 7 - "},
        {read_line("no colon", ":isb?"), "- - - - - "},
        {read_line("a:b:1", ":s"), ": b:1 "},
        {read_line("1,,2", "iii"), "1 - 2 "},
        {read_line("1,,2", "sss"), "1  2 "},
        {read_line("1,", "is?s"), "1  - - "},
        {read_line("\"a,b\" x,\"c", "ss?s"), "a,b c - - "},
        {read_line("\"last\"", "s?ss"), "last -  - "}, // behind a closing quote one empty field is left
        {read_line(" \t\r\n\v\f+5 , -7x,12 34", "iii"), "5 -7 12 "},
        {read_line("\"42\",\" 43\"", "ii"), "42 43 "},
        {read_line("2147483648,-2147483649", "ii"), "2147483647 -2147483648 "},
        {read_line("0,1,2,-1,x,", "bbbbbb"), "0 1 - - - - "},
    });
}

TEST(Tokenizer, RefusesNull) {
    char line[] = "1,x", *cursor = line, *none = nullptr, *text;
    int number = 5;
    for (const int result : {at_tok_start(nullptr), at_tok_start(&none), at_tok_nextint(nullptr, &number),
                             at_tok_nextint(&cursor, nullptr), at_tok_nextstr(nullptr, &text)})
        EXPECT_EQ(result, -1);
    EXPECT_EQ(cursor, line) << "a refused read consumes nothing";
    EXPECT_EQ(at_tok_hasmore(nullptr), 0);
    EXPECT_EQ(skip_white_space(&none), &none);
    EXPECT_EQ(skip_next_comma(&none), &none);
    EXPECT_EQ(at_tok_nextbool(&cursor, nullptr), 0) << "a check without storing";
    EXPECT_EQ(at_tok_nextint(&cursor, &number), -1);
    EXPECT_EQ(number, 0) << "a field without digits stores 0";
}

std::string fields(const std::string &text, const char *delimiters) {
    std::string all, copy = text;
    for (int index = 0; const char *field = string_split_parameter(copy.data(), delimiters, index);
         copy = text, ++index)
        all += field + std::string("|");
    return all;
}

// Into exactly the promised size, so that a sanitizer sees a byte too many.
std::string utf8(const char *ucs2) {
    std::vector<char> out(strlen(ucs2) * 3 / 2 + 1, '#');
    tavrik_ucs2_to_utf8(ucs2, out.data());
    return out.data();
}

std::string numbers(const char *keyword, const std::vector<const char *> &texts) {
    std::string all;
    for (const char *text : texts)
        all += std::to_string(ulongfromstr(keyword, text)) + " " + std::to_string(ufromstr(keyword, text)) + ";";
    return all;
}

std::string line_behind(const char *keyword, const char *response) {
    char output[64] = {};
    return handle_response_data(response, keyword, output) ? std::string("-") + output : output;
}

TEST(Text, IsSplitAndConverted) {
    check({
        {fields("LTE,Online,,460", ","), "LTE|Online|460|"},
        {fields("a-b c", "- "), "a|b|c|"},
        {fields("a", nullptr), ""},
        {utf8("\x04\x16\x07\xFF\x4E"), "\xD0\x96\xDF\xBF"}, // and half a unit
        {utf8("\x08\x01\x4E\x2D\xFF\xFD\xD8\x3D"), "\xE0\xA0\x81\xE4\xB8\xAD\xEF\xBF\xBD\xED\xA0\xBD"},
        {numbers("rx:", {"tx:5 rx: 17 bytes", "rx:none", "tx:5", nullptr}), "17 17;0 0;0 0;0 0;"},
        {numbers(nullptr, {"4294967295", "4294967296"}), "4294967295 2147483647;4294967295 2147483647;"},
        {numbers(nullptr, {"-5", "-4294967297"}), "4294967291 -5;4294967295 -2147483648;"},
        {numbers(nullptr, {"-99999999999999999999999"}), "4294967295 -2147483648;"},
        {line_behind("+CPIN:", "\r\n+CPIN: READY\r\n\r\nOK\r\n"), " READY"},
        {line_behind("A:", "A:one\rtwo\nthree\r\nA:four\r\n"), "one\rtwo\nthree"},
        {line_behind("A:", "A:\r\n"), ""},
        {line_behind("A:", "A:no end"), "-no en"},
        {line_behind("A:", "A:half\r"), "-half"},
        {line_behind("A:", "A:"), "-"},
        {line_behind("A:", "B:1\r\n"), "-"},
        {line_behind("A:", nullptr), "-"},
        {line_behind(nullptr, "A:"), "-"},
    });
    EXPECT_EQ(handle_response_data("A:", "A:", nullptr), -1);
    char text[] = "AZ az[`@{\xC4";
    strlwr(text);
    strlwr(nullptr);
    EXPECT_STREQ(text, "az az[`@{\xC4");
    EXPECT_EQ(string_split_parameter(text, ",", -1), nullptr);
    EXPECT_EQ(string_split_parameter(nullptr, ",", 0), nullptr);
    char untouched = '#';
    tavrik_ucs2_to_utf8(nullptr, &untouched);
    tavrik_ucs2_to_utf8("\x4E\x2D", nullptr);
    EXPECT_EQ(untouched, '#');
    EXPECT_EQ(is_insert_special("my_ssid"), 0);
    for (const char *bad : {(const char *)nullptr, "", "my ssid", "a\tb", "a\n", "\ra"})
        EXPECT_EQ(is_insert_special(bad), -1) << (bad ? bad : "NULL");
}

std::string last_line(const char *command, int size = 16) {
    std::vector<char> buffer(size > 0 ? size_t(size) : 1, '#');
    return system_handle(command, buffer.data(), size) ? "failed" : buffer.data();
}

TEST(Shell, KeepsTheLastLine) {
    check({
        {last_line("printf 'one\\ntwo\\n'"), "two\n"},
        {last_line("printf 'one\\ntwo'"), "two"},
        {last_line("printf 'a long line\\nb\\n'"), "b\n"},
        {last_line("printf abcdefgh", 4), "gh"}, // read in pieces of three
        {last_line("printf 'abc\\n'", 4), "\n"},
        {last_line("echo much", 1), ""},
        {last_line("echo failed; exit 3"), "failed\n"},
        {last_line(nullptr), "failed"},
        {last_line("echo x", 0), "failed"},
        {last_line("echo x", -8), "failed"},
    });
    EXPECT_EQ(system_handle("echo x", nullptr, 8), -1);
}

// The host ignores SIGCHLD and SIGPIPE and blocks SIGTERM; the command still has the usual settings.
TEST(Shell, LeavesTheHostAlone) {
    const pid_t child = fork();
    if (!child)
        _exit(9);
    EXPECT_EQ(last_line("echo x"), "x\n");
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 9);
    const long descriptors = entries_of("/proc/self/fd");
    // No descriptor of the library reaches the command: it sees as many as one of popen().
    EXPECT_EQ(last_line("ls /proc/self/fd | wc -l"), shell("ls /proc/self/fd | wc -l").output);
    const auto children = signal(SIGCHLD, SIG_IGN), pipes = signal(SIGPIPE, SIG_IGN);
    sigset_t term, before;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, &before);
    EXPECT_EQ(last_line("kill -TERM $$; echo survived"), "");
    EXPECT_EQ(last_line("sh -c 'kill -PIPE $$'; echo $?"), "141\n");
    pthread_sigmask(SIG_SETMASK, &before, &term);
    EXPECT_EQ(sigismember(&term, SIGTERM), 1);
    EXPECT_EQ(signal(SIGCHLD, children), SIG_IGN);
    EXPECT_EQ(signal(SIGPIPE, pipes), SIG_IGN);
    EXPECT_EQ(entries_of("/proc/self/fd"), descriptors);
    // Without a standard output the pipe gets the number that the command's output is to have.
    const int output = dup(STDOUT_FILENO);
    close(STDOUT_FILENO);
    const std::string line = last_line("echo here");
    dup2(output, STDOUT_FILENO);
    close(output);
    EXPECT_EQ(line, "here\n");
}

} // namespace
