// A sentence as receivers send it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

inline std::string sentence(const std::string &body) {
    unsigned sum = 0;
    for (const char byte : body)
        sum ^= uint8_t(byte);
    char end[6];
    snprintf(end, sizeof end, "*%02X\r\n", sum & 0xFF);
    return "$" + body + end;
}
