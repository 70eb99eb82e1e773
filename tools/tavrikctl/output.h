// What a verb prints, once for people and once for scripts.
#pragma once

#include <cstdio>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace tavrikctl {

class Output {
  public:
    Output(FILE *file, bool json);
    ~Output();

    // One value: "Label: value", or a member `key`. A value that is not there is not printed at all.
    void field(const char *key, const char *label, const std::string &value);
    // Lines as they stand, or a member `key` with an array of them.
    void lines(const char *key, const std::vector<std::string> &lines);
    // Ends a record: it is written in one piece. False when it could not be written.
    bool end();

  private:
    FILE *file_;
    bool json_;
    std::string text_;
    std::unique_ptr<nlohmann::ordered_json> record_;
};

// "tavrikctl: WHAT" on standard error; the result is false, for `return fail(...)`.
bool fail(const std::string &what);

} // namespace tavrikctl
