// What a verb prints, once for people and once for scripts.
#pragma once

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace tavrikctl {

class Output {
  public:
    Output(FILE *file, bool json) : file_(file), json_(json) {}

    // One value: "Label: value", or a member `key`. A value that is not there is not printed at all.
    void field(const char *key, const char *label, const std::string &value);
    // A number, with what people want to read behind it.
    void field(const char *key, const char *label, long long value, const std::string &behind = "");
    // A member for scripts alone, where the text tells it in another way.
    void member(const char *key, nlohmann::ordered_json value) { record_[key] = std::move(value); }
    // Lines as they stand, or a member `key` with an array of them.
    void lines(const char *key, const std::vector<std::string> &lines);

    // Begins a record that is one line of text, "name: label value, label value".
    void event(const char *name);
    // From now on each record has the screen of a terminal to itself. False where there is none.
    bool redraw();

    // Ends a record: it is written in one piece. False when it could not be written.
    bool end();

  private:
    void show(const char *label, const std::string &value);

    FILE *file_;
    bool json_;
    bool one_line_ = false;
    bool redraw_ = false;
    std::string text_;
    nlohmann::ordered_json record_ = nlohmann::ordered_json::object();
};

// How the program ends.
enum { kDone = 0, kFailed = 1, kUsage = 2, kTimedOut = 3 };

// "tavrikctl: WHAT" on standard error; the result is false, for `return fail(...)`. The program ends with `code` then.
bool fail(const std::string &what, int code = kFailed);
int failure();

} // namespace tavrikctl
