// tavrikctl at: one AT command, as it stands.
#include "command.h"
#include "output.h"

#include <climits>
#include <iostream>
#include <iterator>
#include <sstream>
#include <tavrik_sdk.h>

namespace tavrikctl {
namespace {

std::string read_stdin() {
    std::string text{std::istreambuf_iterator<char>(std::cin), {}};
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    return text;
}

std::vector<std::string> lines_of(const char *response) {
    std::vector<std::string> lines;
    std::istringstream text(response);
    for (std::string line; std::getline(text, line);) {
        while (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!line.empty())
            lines.push_back(line);
    }
    return lines;
}

bool at(const Arguments &arguments, Output &output) {
    const std::string &given = arguments.text("COMMAND");
    const std::string command = given == "-" ? read_stdin() : given;
    char response[4096] = "";
    if (Tavrik_AT_Init() != 0)
        return fail("at: the AT server cannot be reached");
    const int status = Tavrik_AT_Send(command.c_str(), arguments.text("--expect").c_str(), response, sizeof response,
                                      int(arguments.number("--timeout")));
    Tavrik_AT_Deinit();
    // What came is worth seeing after a failure too: it holds the modem's error.
    const std::vector<std::string> lines = lines_of(response);
    if (status == 0 || !lines.empty()) {
        output.lines("response", lines);
        if (!output.end())
            return fail("at: cannot write the response");
    }
    return status == 0 || fail("at: failed");
}

} // namespace

Family at_family() {
    return {"at",
            "AT commands",
            {{"at",
              "",
              "Send an AT command and print the lines of the response",
              {word("COMMAND", "The command; - reads it from standard input"),
               number_option("--timeout", "MS", "Time limit in milliseconds, cut to whole seconds", 0, INT_MAX, "2000"),
               text_option("--expect", "TEXT", "Text that ends the response", "OK")},
              at}}};
}

} // namespace tavrikctl
