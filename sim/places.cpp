#include "places.h"

#include "programs.h"
#include "sandbox.h"

namespace tavrik::sim {

const std::vector<Place> &places() {
    static const std::vector<Place> list = {
        {"/tmp", Make::opened},
        {"/run", Make::opened},
        {"/etc", Make::overlay},
        // A module may be told to reboot; the host's init must not hear of it.
        {"/run/systemd", Make::absent},
        {"/run/dbus", Make::absent},
        {"/run/initctl", Make::absent},
        // Nor may sockets of something that runs on the host stand for the module's.
        {at_server_path, Make::absent},
        {"/tmp/atcmdsdkind", Make::absent},
        // The bus has moved over the years and libubus has its path compiled in: both usual ones lead to it.
        {"/var/run/ubus", Make::folder},
        {"/var/run/ubus.sock", Make::link, "ubus/ubus.sock"},
        {"/etc/config", Make::folder},
        {"/etc/stat", Make::folder},
        {"/etc/ssl/certs", Make::mounted}, // of authorities; the host's would be of no use here
        {"/tmp/.uci", Make::folder},
        {"/dev/kmsg", Make::fifo, "kmsg"},
        {"/sys/power", Make::folder},
        {"/sys/power/autosleep", Make::fifo, "autosleep"},
        {"/sys/power/wake_lock", Make::fifo, "wake_lock"},
        {"/sys/power/wake_unlock", Make::fifo, "wake_unlock"},
        {programs_fifo, Make::fifo, "program"},
        {std::filesystem::path(sandbox_programs) / "reboot", Make::program},
        // A FIFO cannot be read like the kernel's file.
        {std::filesystem::path(sandbox_programs) / "cat", Make::program,
         "case \"$*\" in\n"
         "/sys/power/autosleep | /sys/power/wake_lock | /sys/power/wake_unlock)\n"
         "    exec '" +
             own_program().string() +
             "' call --print \"/services/power/${1##*/}\" state ;;\n"
             "esac\n"
             "exec /bin/cat \"$@\"\n"},
        {std::filesystem::path(sandbox_programs) / "serial_atcmd", Make::program,
         "exec '" + own_program().string() + "' serial_atcmd \"$*\"\n"},
    };
    return list;
}

} // namespace tavrik::sim
