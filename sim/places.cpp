#include "places.h"

#include "programs.h"
#include "sandbox.h"

namespace tavrik::sim {

const std::vector<Place> &places() {
    // A stand-in tells its command line.
    static const std::string report = std::string("printf '%s\\n' \"${0##*/}${*:+ $*}\" >") + programs_fifo + "\n";
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
        {"/etc/resolv.conf", Make::file},  // the module's name servers are not the host's
        {"/etc/ssl/certs", Make::mounted}, // of authorities; the host's would be of no use here
        {"/tmp/.uci", Make::folder},
        // The kernel looks for pseudo-terminals beside their master, so a bind of that alone would be of no use.
        {sandbox_ptmx, Make::ptmx},
        {"/dev", Make::opened},
        {"/dev/ptmx", Make::link, std::string(sandbox_ptmx) + "/ptmx"},
        {"/dev/ttyS3", Make::absent},
        {"/dev/ttyGS0", Make::absent},
        {sandbox_terminals, Make::devpts},
        {"/dev/kmsg", Make::fifo, "kmsg"},
        {"/mnt", Make::opened},
        {"/mnt/userdata", Make::absent},
        {sandbox_disk, Make::disk},
        {"/sys/class/gpio", Make::folder},
        {"/sys/power", Make::folder},
        {"/sys/power/autosleep", Make::fifo, "autosleep"},
        {"/sys/power/wake_lock", Make::fifo, "wake_lock"},
        {"/sys/power/wake_unlock", Make::fifo, "wake_unlock"},
        {programs_fifo, Make::fifo, "program"},
        {wifi_service_path, Make::program,
         report + "[ ! -e " + wifi_service_fate + " ] || . " + wifi_service_fate + "\n"},
        {std::filesystem::path(sandbox_programs) / "reboot", Make::program, report},
        {std::filesystem::path(sandbox_programs) / "uci", uci_program().empty() ? Make::absent : Make::link,
         uci_program()},
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
