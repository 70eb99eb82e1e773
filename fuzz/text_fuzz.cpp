// The tokenizer, handle_response_data and the text helpers on whatever a modem may send.
#include "fuzz.h"

#include "core/text.h"
#include "tavrik_sdk.h"

#include <cstring>
#include <vector>

namespace {

using fuzz::check;

// A copy without room to spare, so that a byte too far is seen.
std::vector<char> exact(const std::string &text) {
    return std::vector<char>(text.c_str(), text.c_str() + text.size() + 1);
}

void walk(const std::string &text, unsigned reads) {
    std::vector<char> line = exact(text);
    const char *begin = line.data(), *end = begin + line.size();
    char *cursor = line.data();
    if (reads & 1)
        at_tok_start(&cursor);
    for (int i = 0; i < 40; i++, reads = reads >> 2 | reads << 6) {
        int number;
        char flag, *field = nullptr;
        switch (reads & 3) {
        case 0:
            at_tok_nextint(&cursor, &number);
            break;
        case 1:
            if (!at_tok_nextbool(&cursor, i % 2 ? &flag : nullptr))
                check(i % 2 == 0 || flag == 0 || flag == 1);
            break;
        case 2:
            if (!at_tok_nextstr(&cursor, &field) && field)
                check(field >= begin && field + strlen(field) < end);
            break;
        case 3:
            skip_next_comma(&cursor);
            break;
        }
        check(!cursor || (cursor >= begin && cursor < end));
        check(!at_tok_hasmore(&cursor) == !(cursor && *cursor));
    }
    at_tok_start(nullptr);
    cursor = nullptr;
    at_tok_start(&cursor);
    at_tok_nextint(&cursor, nullptr);
    at_tok_nextstr(&cursor, nullptr);
}

void find(const std::string &text, const std::string &keyword) {
    std::vector<char> response = exact(text), output(text.size() + 1, 0);
    if (!handle_response_data(response.data(), keyword.c_str(), output.data()))
        check(!strstr(output.data(), "\r\n"));
    handle_response_data(nullptr, keyword.c_str(), output.data());
    ulongfromstr(nullptr, text.c_str());
    skip_white_space(nullptr);
    ulongfromstr(keyword.c_str(), text.c_str());
    ufromstr(nullptr, text.c_str());
    ufromstr(keyword.c_str(), nullptr);
}

void shape(const std::string &text, const std::string &set, unsigned index) {
    std::vector<char> copy = exact(text);
    if (const char *field = string_split_parameter(copy.data(), set.c_str(), int(index)))
        check(*field && field + strlen(field) < copy.data() + copy.size());
    string_split_parameter(nullptr, set.c_str(), 0);
    std::vector<char> lower = exact(text);
    strlwr(lower.data());
    check(!strpbrk(lower.data(), "ABCDEFGHIJKLMNOPQRSTUVWXYZ"));
    check((is_insert_special(text.c_str()) == 0) == (*text.c_str() && !strpbrk(text.c_str(), " \t\r\n")));
    std::vector<char> utf8(strlen(text.c_str()) * 3 / 2 + 1);
    tavrik_ucs2_to_utf8(text.c_str(), utf8.data());
    tavrik_ucs2_to_utf8(nullptr, utf8.data());
    std::vector<char> trimmed = exact(text);
    const char *begin = tavrik::trim(trimmed.data());
    check(*begin != ' ' && (!*begin || begin[strlen(begin) - 1] != ' '));
    check(system_handle(nullptr, trimmed.data(), 1) && system_handle(text.c_str(), trimmed.data(), 0));
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input input(data, size);
    const unsigned reads = input.byte();
    const std::string keyword = input.text(), text = input.rest();
    walk(text, reads);
    find(text, keyword);
    shape(text, keyword, reads % 8);
    return 0;
}
