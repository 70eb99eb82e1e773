#include "wifi/country.h"

#include <stddef.h>
#include <string.h>

namespace tavrik::wifi {
namespace {

struct Country {
    char code[4];
    int highest;
};

// clang-format off
constexpr Country kCountries[] = {
    {"AE", 13}, {"AF", 13}, {"AL", 13}, {"AM", 13}, {"AR", 13}, {"AS", 11}, {"AT", 13},
    {"AU", 13}, {"AZ", 13}, {"BA", 13}, {"BB", 13}, {"BD", 13}, {"BE", 13}, {"BF", 13},
    {"BG", 13}, {"BH", 13}, {"BN", 13}, {"BO", 13}, {"BR", 13}, {"BS", 13}, {"BW", 13},
    {"BY", 13}, {"BZ", 13}, {"CA", 11}, {"CH", 13}, {"CI", 13}, {"CL", 13}, {"CN", 13},
    {"CO", 13}, {"CR", 13}, {"CU", 13}, {"CY", 13}, {"CZ", 13}, {"DE", 13}, {"DK", 13},
    {"DZ", 13}, {"EC", 13}, {"EE", 13}, {"EG", 13}, {"ES", 13}, {"ET", 13}, {"FI", 13},
    {"FM", 11}, {"FR", 13}, {"GB", 13}, {"GE", 13}, {"GH", 13}, {"GR", 13}, {"GT", 13},
    {"GU", 11}, {"GY", 13}, {"HK", 13}, {"HN", 13}, {"HR", 13}, {"HU", 13}, {"ID", 13},
    {"IE", 13}, {"IL", 13}, {"IN", 13}, {"IR", 0}, {"IS", 13}, {"IT", 13}, {"JM", 13},
    {"JO", 13}, {"JP", 14}, {"KE", 13}, {"KH", 13}, {"KP", 13}, {"KR", 13}, {"KW", 13},
    {"KY", 11}, {"KZ", 13}, {"LB", 13}, {"LI", 13}, {"LK", 13}, {"LT", 13}, {"LU", 13},
    {"LV", 13}, {"MA", 13}, {"MD", 13}, {"ME", 13}, {"MK", 13}, {"MN", 13}, {"MO", 13},
    {"MP", 11}, {"MR", 13}, {"MT", 13}, {"MU", 13}, {"MV", 13}, {"MW", 13}, {"MX", 13},
    {"NA", 13}, {"NG", 13}, {"NL", 13}, {"NO", 13}, {"NP", 13}, {"NZ", 13}, {"OM", 13},
    {"PA", 13}, {"PE", 13}, {"PG", 13}, {"PH", 13}, {"PL", 13}, {"PR", 11}, {"PT", 13},
    {"PY", 13}, {"QA", 13}, {"RO", 13}, {"RS", 13}, {"RU", 13}, {"RW", 13}, {"SA", 13},
    {"SE", 13}, {"SG", 13}, {"SI", 13}, {"SK", 13}, {"SN", 13}, {"SR", 13}, {"SV", 13},
    {"SY", 0}, {"TD", 13}, {"TG", 13}, {"TH", 13}, {"TN", 13}, {"TR", 13}, {"TT", 13},
    {"TW", 11}, {"TZ", 13}, {"UA", 13}, {"UG", 13}, {"UM", 11}, {"US", 11}, {"UY", 13},
    {"UZ", 13}, {"VE", 13}, {"VI", 11}, {"VN", 13}, {"YE", 13}, {"ZA", 13}, {"ZM", 13},
};
// clang-format on

constexpr size_t kCount = sizeof kCountries / sizeof *kCountries;

constexpr int number_of(const char *code) {
    return (code[0] << 8) + code[1];
}
constexpr bool sorted() {
    for (size_t i = 1; i < kCount; ++i)
        if (number_of(kCountries[i - 1].code) >= number_of(kCountries[i].code))
            return false;
    return true;
}
constexpr int with(int highest) {
    int count = 0;
    for (const Country &country : kCountries)
        count += country.highest == highest;
    return count;
}
static_assert(kCount == 140 && sorted());
static_assert(with(13) == 126 && with(11) == 11 && with(14) == 1 && with(0) == 2);

} // namespace

int highest_channel(const char *country) {
    for (const Country &known : kCountries)
        if (!strcmp(known.code, country))
            return known.highest;
    return -1;
}

} // namespace tavrik::wifi
