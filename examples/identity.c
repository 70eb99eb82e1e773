/*
 * Who is this module, and is its radio on? Reads version and IMEI, switches the radio off and on again, and reads the
 * phone mode back each time.
 */
#include <stdio.h>

#include <tavrik_sdk.h>

static const char *name_of(int mode) {
    return mode == TAVRIK_PHONE_MODE_ONLINE ? "online" : mode == TAVRIK_PHONE_MODE_MINIMUM ? "radio off" : "other";
}

static int switch_to(int mode) {
    int now;
    if (Tavrik_DM_SetPhoneMode(mode) != 0 || Tavrik_DM_GetPhoneMode(&now) != 0)
        return -1;
    printf("Phone mode:   %s\n", name_of(now));
    return now == mode ? 0 : -1;
}

int main(void) {
    Tavrik_VersionInfo version;
    char imei[TAVRIK_IMEI_SIZE];
    int length, mode;

    if (Tavrik_AT_Init() != 0 || Tavrik_DM_GetVersionInfo(&version) != 0) {
        fprintf(stderr, "The AT server does not tell the version.\n");
        return 1;
    }
    printf("Manufacturer: %s\nModel:        %s\nRevision:     %s\n", version.manufacturer, version.model,
           version.revision);
    Tavrik_AT_Deinit();

    if (Tavrik_DM_GetIMEI(imei, &length) != 0 || Tavrik_DM_GetPhoneMode(&mode) != 0) {
        fprintf(stderr, "The radio interface layer does not answer.\n");
        return 1;
    }
    printf("IMEI:         %s\nPhone mode:   %s\n", imei, name_of(mode));

    if (switch_to(TAVRIK_PHONE_MODE_MINIMUM) != 0 || switch_to(TAVRIK_PHONE_MODE_ONLINE) != 0) {
        fprintf(stderr, "The phone mode cannot be changed.\n");
        return 1;
    }
    return 0;
}
