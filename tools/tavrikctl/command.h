// The command table. Each verb is one row; parsing, help, completion and the man page all come from it.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace tavrikctl {

class Output;

// What a verb takes: a word ("COMMAND"), or an option when the name begins with "--".
struct Parameter {
    std::string name;
    std::string value; // what an option's value is called; none for a switch
    std::string help;
    bool required = false;
    std::vector<std::string> choices = {}; // the texts it may be; any when empty
    long long least = 0, most = -1;        // the range of a number; a text when empty
    std::string fallback = {};             // the value when it is left out
    int words = 1;                         // how many it takes, all or none
    std::string one_of = {};               // exactly one of the switches with this title must be given

    bool is_option() const { return name[0] == '-'; }
    bool is_switch() const { return is_option() && value.empty(); }
    bool is_number() const { return least <= most; }
};

inline Parameter word(const char *name, const char *help) {
    return {name, "", help, true};
}
inline Parameter chosen_word(const char *name, const char *help, std::vector<std::string> choices) {
    return {name, "", help, true, std::move(choices)};
}
inline Parameter optional_word(const char *name, const char *help, std::vector<std::string> choices = {}) {
    return {name, "", help, false, std::move(choices)};
}
inline Parameter number(const char *name, const char *help, long long least, long long most) {
    return {name, "", help, true, {}, least, most};
}
inline Parameter optional_number(const char *name, const char *help, long long least, long long most, int words = 1) {
    return {name, "", help, false, {}, least, most, "", words};
}
inline Parameter text_option(const char *name, const char *value, const char *help, const char *fallback) {
    return {name, value, help, false, {}, 0, -1, fallback};
}
inline Parameter number_option(const char *name, const char *value, const char *help, long long least, long long most,
                               const char *fallback) {
    return {name, value, help, false, {}, least, most, fallback};
}
inline Parameter switch_option(const char *name, const char *help, const char *one_of = "") {
    return {name, "", help, false, {}, 0, -1, "", 1, one_of};
}
inline Parameter chosen_option(const char *name, const char *value, const char *help,
                               std::vector<std::string> choices) {
    return {name, value, help, false, std::move(choices)};
}
inline Parameter required_option(const char *name, const char *value, const char *help) {
    return {name, value, help, true};
}

// What the command line gave, by parameter name; left-out parameters without a fallback are absent.
class Arguments {
  public:
    bool has(const std::string &name) const { return values_.count(name) != 0; }
    const std::string &text(const std::string &name) const { return values_.at(name).front(); }
    long long number(const std::string &name, size_t word = 0) const { return std::stoll(values_.at(name).at(word)); }
    void set(const std::string &name, std::vector<std::string> words) { values_[name] = std::move(words); }

  private:
    std::map<std::string, std::vector<std::string>> values_;
};

struct Verb {
    std::string family;
    std::string name; // empty when the family is one verb by itself
    std::string help;
    std::vector<Parameter> parameters;
    bool (*run)(const Arguments &arguments, Output &output); // false: failed, and said why
    bool needs_module = true;
};

struct Family {
    std::string name;
    std::string help;
    std::vector<Verb> verbs;
};

// One in each family's file.
Family at_family();
Family call_family();
Family data_family();
Family dm_family();
Family ecall_family();
Family gnss_family();
Family log_family();
Family monitor_family();
Family nw_family();
Family pm_family();
Family sms_family();
Family uim_family();
Family wifi_family();
Family upgrade_family();

struct Table {
    std::vector<Parameter> options; // of every verb
    std::vector<Family> families;
};

std::string completion(const Table &table); // for bash
std::string man_page(const Table &table);

} // namespace tavrikctl
