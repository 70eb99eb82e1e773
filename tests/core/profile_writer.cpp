// Stores profiles, for tests that disturb it: profile-writer INDEX APN, or profile-writer INDEX COUNT to store APNs 1
// to COUNT. It ends with 0; 1 when a call failed; 2 when a descriptor is left open; 3 when what was stored is not
// there.
#include "tavrik_sdk.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>

namespace {

int open_descriptors() {
    int count = 0;
    for (int fd = 0; fd < 256; fd++)
        count += fcntl(fd, F_GETFD) >= 0;
    return count;
}

int store(int index, const std::string &apn) {
    Tavrik_DataProfile profile = {};
    profile.profile_idx = uint8_t(index);
    profile.pdp_type = 1;
    strncpy(profile.apn, apn.c_str(), sizeof profile.apn - 1);
    strcpy(profile.usr_name, "u");
    strcpy(profile.password, "p");
    return Tavrik_DataCall_SetProfile(&profile);
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3)
        return 9;
    setenv("TAVRIK_LOG_OPTION", "0", 1);
    const int index = atoi(argv[1]), count = atoi(argv[2]), descriptors = open_descriptors();
    if (!count) {
        const int result = store(index, argv[2]);
        return open_descriptors() != descriptors ? 2 : result ? 1 : 0;
    }
    int failed = 0, unread = 0, lost = 0;
    std::string last;
    for (int i = 1; i <= count + 1; i++) {
        Tavrik_DataProfile got = {};
        if (Tavrik_DataCall_GetProfile(index, &got)) // told, too: others had the store for 5 s
            unread++;
        else if (!last.empty() && last != got.apn)
            lost++;
        if (i <= count) {
            const std::string apn = std::to_string(i);
            if (store(index, apn))
                failed++;
            else
                last = apn;
        }
    }
    printf("%d of %d failed, %d not read, %d lost\n", failed, count, unread, lost);
    return lost ? 3 : open_descriptors() != descriptors ? 2 : 0;
}
