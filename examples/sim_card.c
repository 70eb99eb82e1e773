/*
 * Is there a SIM card that can be used, and whose is it? Prints its state, and when it is ready its numbers.
 */
#include <stdio.h>

#include <tavrik_sdk.h>

static const char *name_of(int state) {
    switch (state) {
    case TAVRIK_UIM_ABSENT:
        return "absent";
    case TAVRIK_UIM_READY:
        return "ready";
    case TAVRIK_UIM_PIN_REQUIRED:
        return "waits for its PIN";
    case TAVRIK_UIM_PUK_REQUIRED:
        return "waits for its PUK";
    case TAVRIK_UIM_PUK_BLOCKED:
        return "blocked";
    }
    return "unknown";
}

int main(void) {
    char iccid[TAVRIK_ICCID_SIZE] = "", imsi[TAVRIK_IMSI_SIZE], number[TAVRIK_NUMBER_SIZE];
    int state = TAVRIK_UIM_UNKNOWN; /* stays so when the modem's error says nothing about the card */
    int length;

    if (Tavrik_UIM_Init() != 0 || Tavrik_UIM_GetUimCardStatus(0, &state) != 0) {
        fprintf(stderr, "The modem does not tell the state of the card.\n");
        return 1;
    }
    printf("SIM card: %s\n", name_of(state));
    if (state == TAVRIK_UIM_READY) {
        const int result = Tavrik_UIM_GetICCID(0, iccid, &length);
        if (result > 0)
            fprintf(stderr, "CME error %d.\n", result);
        if (result != 0 || Tavrik_UIM_GetIMSI(0, imsi, &length) != 0) {
            fprintf(stderr, "The card does not tell its numbers.\n");
            return 1;
        }
        printf("ICCID:    %s\nIMSI:     %s\n", iccid, imsi);
        if (Tavrik_UIM_GetPhoneNum(0, number, &length) == 0) /* many cards hold none */
            printf("Number:   %s\n", number);
    }
    Tavrik_AT_Deinit();
    return state == TAVRIK_UIM_READY ? 0 : 1;
}
