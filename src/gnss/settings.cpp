// What the application sets and asks, and what it sends to the receiver.
#include "core/log.h"
#include "gnss/serial.h"
#include "gnss/state.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>

using namespace tavrik;

GnssSettings tavrik::g_gnss_settings;

namespace {

constexpr int kRoomMs = 1000;

// Stores a value from `least` up to `most`.
int store(std::atomic<int> &setting, int value, int least, int most, Site site = Site::here()) {
    if (value < least || value > most) {
        log(Level::debug, site, "input error");
        return -1;
    }
    setting = value;
    return 0;
}

// Of the receiver's port, so that the thread may close its own meanwhile; -1 while that is closed.
int second_descriptor() {
    Lock lock(g_gnss.mutex);
    return g_gnss.thread && g_gnss.thread->port >= 0 ? fcntl(g_gnss.thread->port, F_DUPFD_CLOEXEC, 0) : -1;
}

int send_line(const char *line) {
    const int length = int(strlen(line));
    return Tavrik_Gnss_SendCommand(line, length) == length ? 0 : -1;
}

} // namespace

int Tavrik_Gnss_Chip_Select(int kind) {
    return store(g_gnss_settings.kind, kind, TAVRIK_GNSS_BUILT_IN, TAVRIK_GNSS_SERIAL);
}

int Tavrik_Gnss_CallBack_Switch(int value) {
    return store(g_gnss_settings.callback_switch, value, TAVRIK_GNSS_CALLBACK_RECORD, TAVRIK_GNSS_CALLBACK_BOTH);
}

int Tavrik_Gnss_Data_to_Nmea_Port(int flag) {
    return store(g_gnss_settings.to_port, flag, 0, 1);
}

int Tavrik_Gnss_SetSaveFlag(int flag) {
    return store(g_gnss_settings.save, flag, 0, 1);
}

int Tavrik_Gnss_SetNmeaRate(int rate) {
    return store(g_gnss_settings.rate, rate, 1, 10);
}

int Tavrik_Gnss_SetPositionMode(int mode) {
    g_gnss_settings.position_mode = mode;
    return 0;
}

int Tavrik_Gnss_SetFirmwareLoader(Tavrik_GnssLoader loader) {
    g_gnss_settings.loader = loader;
    return 0;
}

int Tavrik_Gnss_SendCommand(const void *command, int length) {
    if (!command || length <= 0) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    const Fd port(second_descriptor());
    if (!port) {
        TAVRIK_LOG_ERROR("Tavrik_Gnss_SendCommand GNSS not start");
        return -1;
    }
    const ssize_t written = write_serial(port.get(), command, size_t(length), Deadline::in(kRoomMs));
    if (written != length)
        TAVRIK_LOG_ERROR("write failed %m, %d of %d bytes", int(written), length);
    return int(written);
}

int Tavrik_Gnss_Set_Nmea_Msgcfg(uint32_t sentences) {
    char line[32];
    snprintf(line, sizeof line, "$MSGCFG,0,0x%lx\r\n", (unsigned long)sentences);
    return send_line(line);
}

int Tavrik_Gnss_ColdStart(void) {
    return send_line("$RESET,3\r\n");
}

int Tavrik_Gnss_HotStart(void) {
    return send_line("$RESET,1\r\n");
}

int Tavrik_Gnss_GetGnssLocationInfo(Tavrik_GnssData *data) {
    if (!data) {
        TAVRIK_LOG_ERROR("Parameter input error");
        return -1;
    }
    {
        Lock lock(g_gnss.mutex);
        if (g_gnss.known) {
            *data = g_gnss.last;
            return 0;
        }
    }
    TAVRIK_LOG_DEBUG("no record yet");
    return -1;
}
