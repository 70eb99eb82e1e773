// Addresses as modems write them, every byte a number, into their usual form.
#include "core/log.h"
#include "tavrik_sdk.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <stdint.h>

using namespace tavrik;

int data_charCountInStr(const char *text, char character) {
    if (!text) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    int count = 0;
    for (; *text; ++text)
        count += *text == character;
    return count;
}

int data_convertDotNotation2IpString(const char *dotted, char *out) {
    if (!dotted || !out) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    constexpr int kMost = 32;
    const int count = data_charCountInStr(dotted, '.') + 1;
    if (count != 4 && count != 8 && count != 16 && count != kMost)
        return -1;
    uint8_t bytes[kMost];
    const char *next = dotted;
    for (int i = 0; i < count; ++i) {
        int number = 0, digits = 0;
        for (; isdigit(static_cast<unsigned char>(*next)) && digits < 3; ++next, ++digits)
            number = number * 10 + (*next - '0');
        if (!digits || number > 255 || *next != (i == count - 1 ? '\0' : '.'))
            return -1;
        bytes[i] = uint8_t(number);
        ++next;
    }
    inet_ntop(count <= 8 ? AF_INET : AF_INET6, bytes, out, TAVRIK_IP_TEXT_SIZE);
    return 0;
}
