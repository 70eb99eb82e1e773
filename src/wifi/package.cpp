#include "wifi/package.h"

#include "core/shell.h"

#include <stdio.h>
#include <string.h>

namespace tavrik::wifi {

bool Words::find(const char *word, int *number) const {
    for (unsigned i = 0; i < count; ++i)
        if (!strcmp(words[i], word)) {
            *number = first + int(i);
            return true;
        }
    return false;
}

bool known_band(int band, Site site) {
    return unsigned(band) < 2 || !failed("Parameter input error", site);
}

bool storable(const char *text) {
    while (static_cast<unsigned char>(*text) >= 0x20)
        ++text;
    return !*text;
}

int restart_service(Site site) {
    if (!run_shell("/etc/init.d/mwlan restart"))
        return 0;
    return failed("wifi system cmd faild ", site);
}

int change(const char *section, const char *option, const char *value, Site site) {
    return change([=](UciStore &store) { return storable(value) && store.set(section, option, value); }, site);
}

int read(const char *section, const char *option, char *text, size_t size, Site site) {
    bool done = false;
    {
        UciStore store(site);
        const char *const found = store.allocated() && store.load(kPackage) ? store.text(section, option) : nullptr;
        if (found) {
            const size_t length = strnlen(found, size - 1);
            memcpy(text, found, length);
            text[length] = 0;
            done = true;
        }
    }
    return done ? 0 : failed("get value is faild", site);
}

int read(const char *section, const char *option, const Words &words, int *number, Site site) {
    char text[32];
    if (read(section, option, text, sizeof text, site))
        return -1;
    return words.find(text, number) ? 0 : failed("get value is faild", site);
}

} // namespace tavrik::wifi
