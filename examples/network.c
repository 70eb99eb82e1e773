/*
 * Is this module in a network, and how well does it hear it? Prints registration and signal, and then what changes
 * for as many seconds as the first argument says.
 */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <tavrik_sdk.h>

static const char *name_of(int state) {
    return state == 1 ? "home" : state == 5 ? "roaming" : state == 2 ? "searching" : state == 3 ? "denied" : "none";
}

/* Runs on the library's indication thread: the record is valid until it returns. */
static void on_registration(const Tavrik_NwEvent *event) {
    printf("Event:        registration %s\n", name_of(event->state));
}

static void on_cell(const void *record) {
    const Tavrik_SignalEvent *signal = record;
    if (signal->kind == 7)
        printf("Event:        cell %lu\n", (unsigned long)((const Tavrik_CellEvent *)record)->cell);
    else if (signal->rsrp <= 97)
        printf("Event:        signal %d dBm\n", signal->rsrp - 141);
}

int main(int argc, char **argv) {
    const int seconds = argc > 1 ? atoi(argv[1]) : 5;
    Tavrik_Signal signal;
    int state, circuits, packets, technology;

    /* First of all, so that no change goes unseen. The modem reports what it was told to, with AT+CREG=2 and the like.
     */
    if (Tavrik_NW_Init() != 0 || Tavrik_NW_Cb_Reg(on_registration) != 0 || Tavrik_NW_Cb_Reg_Ext(on_cell) != 0) {
        fprintf(stderr, "The AT server cannot be reached.\n");
        return 1;
    }
    if (Tavrik_NW_GetRegStatus(&state, &circuits, &packets) != 0) {
        fprintf(stderr, "The modem does not tell its registration.\n");
        return 1;
    }
    printf("Registration: %s\nPackets:      %s\n", name_of(state), packets == 1 ? "attached" : "detached");

    if (Tavrik_NW_GetSignal(&signal, &technology) != 0)
        printf("Signal:       no service\n");
    else if (technology == TAVRIK_NW_LTE && signal.rsrp >= 0 && signal.rsrp <= 97) /* 255 is unknown */
        printf("Signal:       LTE, %d dBm\n", signal.rsrp - 141);
    else
        printf("Signal:       level %d\n", signal.rxlev);
    fflush(stdout);

    sleep((unsigned)seconds);
    Tavrik_NW_Cb_Free(); /* from here on neither callback runs */
    Tavrik_AT_Deinit();
    return 0;
}
