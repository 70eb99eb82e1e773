/*
 * Keeps a packet data call up, over the access point of the first argument: starts it, watches, and makes it again
 * when it is lost. Ends after as many losses as the second argument says (0: never).
 */
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <tavrik_sdk.h>

enum { PROFILE = 0, FIRST_PAUSE = 1, LONGEST_PAUSE = 64 };

static sem_t lost;

/* Runs on the library's indication thread. What takes time is done in main(): events wait for this to return. */
static void on_data(const Tavrik_DataEvent *event) {
    if (event->profile_idx == PROFILE && event->state == 0)
        sem_post(&lost);
}

/* Until it is up; the pauses get longer, because a network that refuses does not like to be asked all the time. */
static void start(void) {
    const Tavrik_DataCallReq request = {PROFILE, 0};
    unsigned pause;
    int error;

    for (pause = FIRST_PAUSE; Tavrik_DataCall_Start(&request, &error) != 0; sleep(pause)) {
        printf("Not up yet\n");
        if (pause < LONGEST_PAUSE)
            pause *= 2;
    }
    printf("Up\n");
}

int main(int argc, char **argv) {
    Tavrik_DataProfile profile = {PROFILE, 3, "internet", 0, "", ""}; /* 3: IPv4 and IPv6 */
    int losses = argc > 2 ? atoi(argv[2]) : 0;
    int error;

    setvbuf(stdout, NULL, _IOLBF, 0);
    sem_init(&lost, 0, 0);
    if (argc > 1)
        snprintf(profile.apn, sizeof profile.apn, "%s", argv[1]);
    if (Tavrik_DataCall_Init(on_data) != 0 || Tavrik_DataCall_SetProfile(&profile) != 0) {
        fprintf(stderr, "Data calls are not available here.\n");
        return 1;
    }
    start();
    do {
        while (sem_wait(&lost) != 0) { /* a signal */
        }
        printf("Lost\n");
        start();
    } while (losses == 0 || --losses > 0);
    if (Tavrik_DataCall_Stop(PROFILE, &error) == 0)
        printf("Down\n");
    Tavrik_DataCall_Destroy(); /* from here on the callback does not run */
    Tavrik_AT_Deinit();
    return 0;
}
