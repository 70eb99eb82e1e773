#include "services/context.h"

namespace tavrik::sim {

const ServiceRow service_rows[] = {
    {"bus", make_bus_daemon, false},
    {"at", make_at_server, false},
    {"atind", make_indication_server, false},
    {"power", make_power, false},
    {"etc", make_etc, false},
    {"tmp", make_tmp, false},
    {"links", make_links, false},
    {"mwlan", make_wifi, false},
    {"gpio", make_gpio, false},
    {"userdata", make_userdata, false},
    {"gnss", make_gnss, false},
    {"ttyGS0", make_nmea_output, false},
    {"ril", make_ril, true},
    {"sms", make_sms, true},
    {"ota", make_ota, true},
    {"network", make_network, true},
    {"network.interface", make_network_interface, true},
    {"gps", make_gps, true},
    {"hdgnssapp", make_hdgnssapp, true},
    {"tavrik.sim", make_bus_control, true},
    {nullptr, nullptr, false},
};

nlohmann::json Service::describe() const {
    return nlohmann::json::object();
}

std::string Context::obey(std::string_view command) {
    RuleTable::Reply reply = rules.answer(command, modem);
    for (RuleTable::Later &later : reply.later)
        clock.after(later.after_ms, [this, line = std::move(later.line)] { modem.unsolicited(line); });
    return std::move(reply.text);
}

} // namespace tavrik::sim
