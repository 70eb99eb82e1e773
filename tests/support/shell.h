// Files and programs, for tests of what the library leaves on disk.
#pragma once

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/wait.h>

inline std::string read_file(const std::string &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void write_file(const std::string &path, const std::string &text) {
    std::ofstream(path) << text;
}

struct Ran {
    int code; // what it ended with; -1 by a signal
    std::string output;
};

inline Ran shell(const std::string &command) {
    Ran ran = {-1, {}};
    if (FILE *const out = popen(command.c_str(), "r")) {
        char chunk[4096];
        for (size_t n; (n = fread(chunk, 1, sizeof chunk, out)) > 0;)
            ran.output.append(chunk, n);
        const int status = pclose(out);
        ran.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return ran;
}
