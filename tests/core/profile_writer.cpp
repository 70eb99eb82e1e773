// Stores profiles, for tests that disturb it: profile-writer INDEX APN, or profile-writer INDEX COUNT to store APNs 1
// to COUNT. It ends with 0; 1 when its one call failed; 2 when a descriptor is left open; 3 when what was stored is not
// there.
#include "tavrik_sdk.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>

int main(int argc, char **argv) {
    if (argc != 3)
        return 9;
    setenv("TAVRIK_LOG_OPTION", "0", 1);
    const auto open_descriptors = [] {
        int count = 0;
        for (int fd = 0; fd < 256; fd++)
            count += fcntl(fd, F_GETFD) >= 0;
        return count;
    };
    const int index = atoi(argv[1]), count = atoi(argv[2]), descriptors = open_descriptors();
    int failed = 0, unread = 0, lost = 0;
    for (int i = 1; i <= (count ? count : 1); i++) {
        Tavrik_DataProfile profile = {}, got = {};
        profile.profile_idx = uint8_t(index);
        profile.pdp_type = 1;
        strcpy(profile.usr_name, "u");
        strcpy(profile.password, "p");
        strcpy(profile.apn, count ? std::to_string(i).c_str() : argv[2]);
        if (Tavrik_DataCall_SetProfile(&profile))
            failed++;
        else if (count && Tavrik_DataCall_GetProfile(index, &got)) // told, too: others had the store for 5 s
            unread++;
        else if (count && strcmp(profile.apn, got.apn))
            lost++;
    }
    printf("%d of %d failed, %d not read, %d lost\n", failed, count, unread, lost);
    return lost ? 3 : open_descriptors() != descriptors ? 2 : failed && !count ? 1 : 0;
}
