/*
 * Opens a WiFi network on the module: 2.4 GHz, WPA2, on the channel that was asked for, or a lower one that the country
 * allows. The service restarts for each setting, so what is as it shall be is left alone.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <tavrik_sdk.h>

int main(int argc, char **argv) {
    char ssid[TAVRIK_WIFI_SSID_SIZE] = "", key[TAVRIK_WIFI_KEY_SIZE];
    int auth, channel, wanted, mode;

    if (argc != 4) {
        fprintf(stderr, "access_point NAME KEY CHANNEL\n");
        return 2;
    }
    wanted = atoi(argv[3]);
    while (wanted > 0 && !check_channel_with_crty(wanted, 0))
        --wanted;
    if (wanted > 0 && (Tavrik_Get_Channel(&channel, 0, TAVRIK_WIFI_2G) != 0 || channel != wanted) &&
        Tavrik_Set_Channel(wanted, 0, TAVRIK_WIFI_2G) != 0)
        fprintf(stderr, "The channel stays as it is.\n");

    /* The key before the name: nobody shall find the new network with the old key. */
    if ((Tavrik_Get_Auth(&auth, key, 0, TAVRIK_WIFI_2G) != 0 || auth != TAVRIK_WIFI_AUTH_WPA2 ||
         strcmp(key, argv[2]) != 0) &&
        Tavrik_Set_Auth(TAVRIK_WIFI_AUTH_WPA2, argv[2], 0, TAVRIK_WIFI_2G) != 0) {
        fprintf(stderr, "The key is not taken: 8 to 63 characters of ASCII, and a service that restarts.\n");
        return 1;
    }
    Tavrik_Get_SSID(ssid, 0, TAVRIK_WIFI_2G);
    if (strcmp(ssid, argv[1]) != 0 && Tavrik_Set_SSID(argv[1], 0, TAVRIK_WIFI_2G) != 0) {
        fprintf(stderr, "The name is not taken: at most 32 bytes.\n");
        return 1;
    }
    if (Tavrik_Get_WiFi_Mode(&mode, 0, TAVRIK_WIFI_2G) != 0 ||
        (!(mode & TAVRIK_WIFI_AP0) && Tavrik_Set_WiFi_Mode(mode | TAVRIK_WIFI_AP0, 0, TAVRIK_WIFI_2G) != 0)) {
        fprintf(stderr, "The access point cannot be switched on.\n");
        return 1;
    }
    if (Tavrik_Get_Channel(&channel, 0, TAVRIK_WIFI_2G) == 0)
        printf("%s, channel %d\n", argv[1], channel);
    return 0;
}
