/*
 * Receives messages and answers them. Parts of a long message come one by one and in any order: each is kept until all
 * are there. A text is answered by a text, and that again by a message that was encoded beforehand; neither is waited
 * for. Ends with an answered message, or after a minute without one.
 */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <tavrik_sdk.h>

/* An SMS-SUBMIT to +4930901820: "Bye" */
static const char kBye[] = "0001000A919403098102000003C27C19";

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t ended = PTHREAD_COND_INITIALIZER;
static int answers; /* that are under way or were sent */
static int results; /* that came for them */

/* On the loop thread, once for each answer. */
static void on_sent(void *what, int status, int32_t resp) {
    if (status == TAVRIK_SMS_ANSWERED)
        printf("%s: result %d\n", (const char *)what, (int)resp);
    else
        printf("%s: %s\n", (const char *)what, status == TAVRIK_SMS_TIMED_OUT ? "no result in time" : "failed");
    pthread_mutex_lock(&lock);
    results++;
    pthread_cond_signal(&ended);
    pthread_mutex_unlock(&lock);
}

static void answer(const char *number) {
    static char text[] = "Text", pdu[] = "PDU";
    SmsMessage message;
    int sent = 0;

    memset(&message, 0, sizeof message);
    snprintf(message.number, sizeof message.number, "%.49s", number);
    snprintf(message.text, sizeof message.text, "Danke, bis später");
    message.length = (int32_t)strlen(message.text);
    sent += Tavrik_SMS_SendMsg_AsyncEx(&message, 30000, on_sent, text) == 0;
    sent += Tavrik_SMS_SendPdu_AsyncEx(kBye, 30000, on_sent, pdu) == 0;
    pthread_mutex_lock(&lock);
    answers += sent;
    pthread_cond_signal(&ended);
    pthread_mutex_unlock(&lock);
}

/* On the indication thread. The record holds what is easily told of this part; the PDU tells all. */
static void on_sms(int event, void *data) {
    char pdu[512], *text;
    Tavrik_SmsDetail part;

    if (event != 0) /* the result of a send that has no callback of its own */
        return;
    free(data);
    part.size = sizeof part;
    if (Tavrik_SMS_CurrentPdu(pdu, sizeof pdu) != 0 || Tavrik_SMS_Decode(pdu, &part) != 0)
        return;
    if (part.total > 1)
        printf("Message %d of %d from %s\n", (int)part.sequence, (int)part.total, part.number);
    if (part.type != TAVRIK_SMS_DELIVER || Tavrik_SMS_Join(&part, &text, NULL) != 1)
        return;
    printf("From %s: %s\n", part.number, text);
    free(text);
    answer(part.number);
}

int main(void) {
    struct timespec until;

    if (Tavrik_Basic_Init(on_sms, NULL) != 0) {
        fprintf(stderr, "The library cannot be started.\n");
        return 1;
    }
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += 60;
    pthread_mutex_lock(&lock);
    while (!answers || results < answers)
        if (pthread_cond_timedwait(&ended, &lock, &until) != 0)
            break;
    pthread_mutex_unlock(&lock);
    Tavrik_Basic_Destroy(); /* no callback runs any more */
    return answers == 2 && results == 2 ? 0 : 1;
}
