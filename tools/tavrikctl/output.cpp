#include "output.h"

#include <nlohmann/json.hpp>

namespace tavrikctl {

using nlohmann::ordered_json;

Output::Output(FILE *file, bool json)
    : file_(file),
      json_(json),
      record_(std::make_unique<ordered_json>(ordered_json::object())) {
}

Output::~Output() = default;

void Output::field(const char *key, const char *label, const std::string &value) {
    (*record_)[key] = value;
    text_ += std::string(label) + ": " + value + "\n";
}

void Output::lines(const char *key, const std::vector<std::string> &lines) {
    (*record_)[key] = lines;
    for (const std::string &line : lines)
        text_ += line + "\n";
}

bool Output::end() {
    // Text of the modem need not be UTF-8; the record stays valid JSON all the same.
    const std::string text =
        json_ ? record_->dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n" : text_;
    text_.clear();
    *record_ = ordered_json::object();
    const bool written = fwrite(text.data(), 1, text.size(), file_) == text.size();
    return fflush(file_) == 0 && written;
}

bool fail(const std::string &what) {
    fprintf(stderr, "tavrikctl: %s\n", what.c_str());
    return false;
}

} // namespace tavrikctl
