// Addresses in dotted notation: what is taken is an address, and of an IPv4 one the same four numbers.
#include "fuzz.h"
#include "tavrik_sdk.h"

#include <algorithm>
#include <arpa/inet.h>

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input input(data, size);
    const std::string dotted = input.text();
    char out[TAVRIK_IP_TEXT_SIZE] = "";
    const int dots = data_charCountInStr(dotted.c_str(), '.');
    fuzz::check(dots == std::count(dotted.begin(), dotted.end(), '.'));
    const int result = data_convertDotNotation2IpString(dotted.c_str(), out);
    const bool other_characters = dotted.find_first_not_of("0123456789.") != dotted.npos;
    fuzz::check(result == 0 ? !other_characters : result == -1 && !*out);
    if (!result) {
        const bool ipv4 = dots == 3 || dots == 7;
        unsigned char address[16];
        fuzz::check((ipv4 || dots == 15 || dots == 31) && inet_pton(ipv4 ? AF_INET : AF_INET6, out, address) == 1);
        size_t at = 0;
        for (int i = 0; i < (ipv4 ? 4 : 16); ++i, at = dotted.find('.', at) + 1)
            fuzz::check(address[i] == atoi(dotted.c_str() + at));
    }
    fuzz::check(data_charCountInStr(nullptr, '.') == -1 && data_convertDotNotation2IpString(nullptr, out) == -1);
    return 0;
}
