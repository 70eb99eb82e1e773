// The access points' options in the uci package "wireless", and the restart that makes a change of them count.
#pragma once

#include "core/log.h"
#include "core/uci_store.h"

namespace tavrik::wifi {

constexpr char kPackage[] = "wireless";

// By band.
constexpr const char *kInterface[] = {"AP0_2G_if", "AP0_5G_if"}; // of type "wifi-iface"
constexpr const char *kRadio[] = {"AP0_2G", "AP0_5G"};           // of type "wifi-device"

// What an option may say: words for consecutive numbers.
struct Words {
    int first;
    unsigned count;
    const char *words[3];

    // nullptr for a number without one.
    const char *word(int number) const {
        const unsigned index = unsigned(number) - unsigned(first);
        return index < count ? words[index] : nullptr;
    }
    bool find(const char *word, int *number) const;
};

// -1, and a line for the caller.
inline int failed(const char *text, Site site = Site::here()) {
    log(Level::error, site, "%s", text);
    return -1;
}

bool known_band(int band, Site site = Site::here());
// Control characters, tabulator and line ends among them, have no place in an option.
bool storable(const char *text);
int restart_service(Site site);

// Lets `set` change the package; then the service restarts. What was written stays when that fails.
template <class Set>
int change(Set set, Site site = Site::here()) {
    bool done;
    {
        UciStore store(site);
        done = store.allocated() && store.load(kPackage) && set(store) && !store.commit();
    } // the service reads the package, and writes it perhaps
    return done ? restart_service(site) : failed("set value is faild", site);
}
int change(const char *section, const char *option, const char *value, Site site = Site::here());

// Copies an option, cut to the buffer. -1 with a line when it is missing or a list.
int read(const char *section, const char *option, char *text, size_t size, Site site = Site::here());
// The number of an option's word.
int read(const char *section, const char *option, const Words &words, int *number, Site site = Site::here());

} // namespace tavrik::wifi
