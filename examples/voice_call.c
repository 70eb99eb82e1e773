/*
 * Waits for a call, answers it, sends the tones of the first argument, and hangs up.
 */
#include <semaphore.h>
#include <stdio.h>

#include <tavrik_sdk.h>

static sem_t incoming, over;

/* Runs on the library's indication thread. What takes time is done in main(): events wait for this to return. */
static void on_call(const Tavrik_CallList *calls) {
    const Tavrik_Call *call = &calls->calls[0];
    if (call->state == TAVRIK_CALL_INCOMING) {
        printf("Call:  %.32s\n", call->number); /* it may fill the field */
        sem_post(&incoming);
    } else if (call->state == TAVRIK_CALL_ENDED) {
        printf("Event: ended\n");
        sem_post(&over);
    }
}

/* The id of the call in this state; 0 without one. */
static int find(int state) {
    Tavrik_CallList calls;
    int i;

    if (Tavrik_VoiceCall_GetAllInfo(&calls) == 0)
        for (i = 0; i < calls.count; i++)
            if (calls.calls[i].state == state)
                return calls.calls[i].call_id;
    return 0;
}

int main(int argc, char **argv) {
    const char *tones = argc > 1 ? argv[1] : "1";
    char cause[TAVRIK_FAIL_CAUSE_SIZE];
    unsigned number;
    int call;

    sem_init(&incoming, 0, 0);
    sem_init(&over, 0, 0);
    if (Tavrik_VoiceCall_Init(on_call) != 0) {
        fprintf(stderr, "The AT server or the bus cannot be reached.\n");
        return 1;
    }
    while (sem_wait(&incoming) != 0) { /* a signal */
    }
    call = find(TAVRIK_CALL_INCOMING); /* it may be over by now */
    if (call == 0 || Tavrik_VoiceCall_Answer(call) != 0 || find(TAVRIK_CALL_ACTIVE) != call) {
        fprintf(stderr, "The call cannot be answered.\n");
        Tavrik_VoiceCall_Deinit();
        return 1;
    }
    for (; *tones; tones++)
        if (Tavrik_SendDtmf(*tones) == 0)
            printf("Tone:  %c\n", *tones);
    if (Tavrik_VoiceCall_End(call) != 0)
        fprintf(stderr, "The call cannot be ended.\n");
    else
        while (sem_wait(&over) != 0) {
        }
    if (Tavrik_GetCallFailCause(&number, cause) == 0)
        printf("Cause: %s\n", cause);
    Tavrik_VoiceCall_Deinit(); /* from here on the callback does not run */
    Tavrik_AT_Deinit();
    return 0;
}
