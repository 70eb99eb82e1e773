/*
 * Makes an eCall test call to the number of the first argument, with the minimum set of data of a car that stands
 * still, prints the steps that the modem reports, and hangs up when the centre has acknowledged the data.
 */
#define _POSIX_C_SOURCE 200809L

#include <semaphore.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <tavrik_sdk.h>

enum { kAcknowledged = 4 }; /* as this modem counts its steps */

static sem_t step; /* the data have arrived, or the call has ended */
static int acknowledged;

/* Runs on the library's indication thread. */
static void on_ecall(int32_t value, const char *const *text) {
    if (value < 0) {
        printf("Event: ended, cause %s\n", *text ? *text : "unknown");
        sem_post(&step);
        return;
    }
    printf("Event: %s\n", *text ? *text : "");
    if (value == kAcknowledged) {
        acknowledged = 1;
        sem_post(&step);
    }
}

int main(int argc, char **argv) {
    /* As EN 15722 encodes it: format 2, a test call by hand, no passengers known; shortened. */
    static const uint8_t msd[] = {0x02, 0x2A, 0x01, 0x04, 0x9C, 0x5D, 0x1B};
    struct timespec until;
    Tavrik_EcallReq request;

    memset(&request, 0, sizeof request);
    request.msd_len = (int32_t)sizeof msd;
    memcpy(request.msd, msd, sizeof msd);
    request.call_type = TAVRIK_ECALL_TEST;
    snprintf(request.test_number, sizeof request.test_number, "%s", argc > 1 ? argv[1] : "+4930123");

    sem_init(&step, 0, 0);
    if (Tavrik_Ecall_Init(on_ecall) != 0) {
        fprintf(stderr, "The AT server or the bus cannot be reached.\n");
        return 1;
    }
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += 60;
    if (Tavrik_Ecall_Start(&request) != 0)
        fprintf(stderr, "The modem refuses the call.\n");
    else if (sem_timedwait(&step, &until) != 0)
        fprintf(stderr, "The centre does not answer.\n");
    if (Tavrik_Ecall_End() == 0 && acknowledged)
        sem_timedwait(&step, &until); /* for the call's end */
    Tavrik_Ecall_Deinit();            /* from here on the callback does not run */
    Tavrik_AT_Deinit();
    return acknowledged ? 0 : 1;
}
