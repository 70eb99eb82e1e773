#include "output.h"

#include <cctype>
#include <unistd.h>

namespace tavrikctl {
namespace {

// What others send must neither end a line nor command the terminal: control characters, also those of two bytes in
// UTF-8 (U+0080 to U+009F), become question marks.
std::string printable(std::string text) {
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        if (c < 0x20 || c == 0x7F)
            text[i] = '?';
        else if (c == 0xC2 && next >= 0x80 && next < 0xA0)
            text.replace(i, 2, "?");
    }
    return text;
}

} // namespace

void Output::show(const char *label, const std::string &value) {
    if (one_line_)
        text_ += (text_.back() == ':' ? " " : ", ") + std::string(label) + " " + printable(value);
    else
        text_ += char(toupper(*label)) + (std::string(label + 1) + ": " + printable(value) + "\n");
}

void Output::field(const char *key, const char *label, const std::string &value) {
    record_[key] = value;
    show(label, value);
}

void Output::field(const char *key, const char *label, long long value, const std::string &behind) {
    record_[key] = value;
    show(label, std::to_string(value) + behind);
}

void Output::lines(const char *key, const std::vector<std::string> &lines) {
    record_[key] = lines;
    for (const std::string &line : lines)
        text_ += line + "\n";
}

void Output::event(const char *name) {
    record_["event"] = name;
    text_ = std::string(name) + ":";
    one_line_ = true;
}

bool Output::redraw() {
    return redraw_ = !json_ && isatty(fileno(file_));
}

bool Output::end() {
    if (one_line_)
        text_ += "\n";
    // Text of the modem need not be UTF-8; the record stays valid JSON all the same.
    std::string text =
        json_ ? record_.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n" : text_;
    if (redraw_) // from the top: what the library logs meanwhile may stand below
        text = "\033[H\033[J" + text;
    text_.clear();
    one_line_ = false;
    record_ = nlohmann::ordered_json::object();
    const bool written = fwrite(text.data(), 1, text.size(), file_) == text.size();
    return fflush(file_) == 0 && written;
}

static int g_failure = kFailed;

bool fail(const std::string &what, int code) {
    g_failure = code;
    fprintf(stderr, "tavrikctl: %s\n", what.c_str());
    return false;
}

int failure() {
    return g_failure;
}

} // namespace tavrikctl
