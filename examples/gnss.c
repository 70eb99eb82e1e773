/*
 * Where is this module? Prints a line for each position of the built-in receiver, as many as the first argument says.
 * A second argument chooses another kind of receiver: 2 is one on the serial port.
 */
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>

#include <tavrik_sdk.h>

static sem_t positions;

static void print_degrees(int32_t value, char positive, char negative) {
    const uint32_t size = value < 0 ? 0u - (uint32_t)value : (uint32_t)value;
    printf("%3lu.%07lu %c", (unsigned long)(size / 10000000), (unsigned long)(size % 10000000),
           value < 0 ? negative : positive);
}

/* Runs on the library's NMEA thread, once for each moment that the receiver tells about. */
static void on_data(const Tavrik_GnssData *data) {
    if (!(data->known & TAVRIK_GNSS_KNOWN_POSITION)) {
        printf("No position yet, %u satellites in view\n", data->in_view);
    } else {
        printf("%02u:%02u:%02u  ", data->hour, data->min, data->sec);
        print_degrees(data->lat, 'N', 'S');
        printf("  ");
        print_degrees(data->lon, 'E', 'W');
        if (data->known & TAVRIK_GNSS_KNOWN_SPEED)
            printf("  %lu km/h", (unsigned long)data->speed * 36 / 10000);
        printf("  from %u of %u satellites\n", data->used, data->in_view);
        sem_post(&positions);
    }
    fflush(stdout);
}

int main(int argc, char **argv) {
    int wanted = argc > 1 ? atoi(argv[1]) : 10;

    sem_init(&positions, 0, 0);
    if (argc > 2 && Tavrik_Gnss_Chip_Select(atoi(argv[2])) != 0) {
        fprintf(stderr, "There is no such kind of receiver.\n");
        return 1;
    }
    if (Tavrik_Gnss_Init(on_data, 0) != 0) {
        fprintf(stderr, "The receiver cannot be had.\n");
        return 1;
    }
    Tavrik_Gnss_Start();    /* what it returns does not tell whether the receiver runs ... */
    if (!g_upgrade_ready) { /* ... but this does */
        fprintf(stderr, "The receiver cannot be started.\n");
        Tavrik_Gnss_Deinit();
        return 1;
    }
    while (wanted-- > 0)
        sem_wait(&positions);
    Tavrik_Gnss_Stop();
    Tavrik_Gnss_Deinit(); /* from here on the callback does not run */
    return 0;
}
