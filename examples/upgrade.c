/*
 * Upgrades the module's firmware from a server, or from a file when the argument is a path, and prints what the service
 * tells meanwhile. The request may last until the upgrade is over, so it has a thread of its own.
 */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <tavrik_sdk.h>

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static int answered; /* the request has */
static int result;

static void *request(void *from) {
    const char *package = from;
    const int got =
        strncmp(package, "http", 4) == 0 ? Tavrik_Upgrade_Through_HTTP(package) : Tavrik_Upgrade_Through_SD(package);

    pthread_mutex_lock(&lock);
    result = got;
    answered = 1;
    pthread_mutex_unlock(&lock);
    return NULL;
}

int main(int argc, char **argv) {
    static const char *const names[] = {"updating", "success", "failed", "not started"};
    const struct timespec pause = {0, 200000000};
    int32_t state = TAVRIK_UPDATE_NOT_STARTED, shown = TAVRIK_UPDATE_NOT_STARTED;
    pthread_t thread;
    int over, failed = 0, patience;

    if (argc != 2 || pthread_create(&thread, NULL, request, argv[1]) != 0) {
        fprintf(stderr, "Usage: upgrade URL-OR-PATH\n");
        return 2;
    }
    /* Ten minutes at most. What was told before the request is of an earlier upgrade. */
    for (patience = 3000; patience > 0; patience--) {
        pthread_mutex_lock(&lock);
        over = answered;
        failed = result != 0;
        pthread_mutex_unlock(&lock);
        if (failed)
            break;
        if (Tavrik_Query_Update_State(&state) == 0 && state != shown && (over || state == TAVRIK_UPDATE_UPDATING)) {
            printf("%s\n", names[state]);
            fflush(stdout);
            shown = state;
        }
        if (over && state != TAVRIK_UPDATE_UPDATING)
            break;
        nanosleep(&pause, NULL);
    }
    pthread_join(thread, NULL);
    if (failed) {
        fprintf(stderr, "The upgrade cannot be started.\n");
        return 1;
    }
    /* Here an application reboots the module, Tavrik_DM_Reboot(). */
    return state == TAVRIK_UPDATE_SUCCESS ? 0 : 1;
}
