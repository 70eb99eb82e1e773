#include "services/uci_packages.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace tavrik::sim {

namespace {

constexpr char staged_folder[] = "/tmp/.uci";
constexpr int wan_sections = 15;

// As libuci writes it, so that a commit changes no line but those of its own.
std::string section(const std::string &type, const std::string &name,
                    std::initializer_list<std::pair<std::string, std::string>> options) {
    std::string text = "\nconfig " + type + " '" + name + "'\n";
    for (const auto &[option, value] : options)
        text.append(option == "list dns" ? "\t" : "\toption ").append(option).append(" '").append(value).append("'\n");
    return text;
}

std::string network() {
    std::string text =
        section("interface", "loopback",
                {{"ifname", "lo"}, {"proto", "static"}, {"ipaddr", "127.0.0.1"}, {"netmask", "255.0.0.0"}}) +
        section("interface", "lan",
                {{"type", "bridge"},
                 {"ifname", "eth0"},
                 {"proto", "static"},
                 {"ipaddr", "192.168.1.1"},
                 {"netmask", "255.255.255.0"}});
    for (int i = 0; i < wan_sections; i++) {
        const std::string number = std::to_string(i), link = "ccinet" + number;
        // What an earlier call, or somebody by hand, left behind: a list, and a text.
        if (i == 0)
            text += section("interface", "wan0",
                            {{"ifname", link},
                             {"proto", "static"},
                             {"auto", "0"},
                             {"list dns", "198.51.100.1"},
                             {"list dns", "198.51.100.2"}});
        else if (i == 1)
            text += section("interface", "wan1",
                            {{"ifname", link}, {"proto", "static"}, {"auto", "0"}, {"dns", "198.51.100.1"}});
        else
            text += section("interface", "wan" + number, {{"ifname", link}, {"proto", "static"}, {"auto", "0"}});
        text += section("interface", "wan6" + number, {{"ifname", link}, {"proto", "dhcpv6"}, {"auto", "0"}});
    }
    return text + "\n";
}

std::string dhcp() {
    std::string text =
        section("dnsmasq", "dnsmasq", {{"domainneeded", "1"}, {"leasefile", "/tmp/dhcp.leases"}}) +
        section("dhcp", "lan", {{"interface", "lan"}, {"start", "100"}, {"limit", "150"}, {"leasetime", "12h"}});
    for (int i = 0; i < wan_sections; i++) {
        const std::string name = "wan" + std::to_string(i);
        text += section("dhcp", name, {{"interface", name}, {"ignore", "1"}});
    }
    return text + "\n";
}

std::string wireless() {
    std::string text;
    for (const char *band : {"2G", "5G"}) {
        const bool slow = *band == '2';
        const std::string first = std::string("AP0_") + band, second = std::string("AP1_") + band;
        text += section("wifi-device", first,
                        {{"type", "mwlan"},
                         {"country", "DE"},
                         {"hwmode", slow ? "11ng" : "11na"},
                         {"htmode", slow ? "HT20" : "VHT40"},
                         {"channel", slow ? "6" : "36"},
                         {"disabled", "0"}}) +
                section("wifi-iface", first + "_if",
                        {{"device", first},
                         {"mode", "ap"},
                         {"ssid", slow ? "Tavrik" : "Tavrik-5G"},
                         {"hidden", "0"},
                         {"isolate", "0"},
                         {"encryption", "psk2"},
                         {"key1", "0123456789"},
                         {"maxassoc", "16"},
                         {"disabled", "0"}}) +
                section("wifi-device", second, {{"type", "mwlan"}, {"disabled", "1"}});
    }
    return text + section("wifi-device", "STA0", {{"type", "mwlan"}, {"disabled", "1"}}) + "\n";
}

void empty(const fs::path &folder) {
    std::error_code none;
    for (const fs::directory_entry &entry : fs::directory_iterator(folder, none))
        fs::remove_all(entry, none);
}

} // namespace

fs::path uci_file(const std::string &package) {
    if (package[0] == '/')
        return package;
    auto named = [](unsigned char c) { return std::isalnum(c) || c == '_' || c == '-'; };
    if (package.empty() || !std::all_of(package.begin(), package.end(), named))
        throw std::invalid_argument("\"" + package + "\" cannot be the name of a package");
    return fs::path(uci_folder) / package;
}

void put_uci_package(const std::string &package, const std::optional<std::string> &text) {
    const fs::path file = uci_file(package);
    std::error_code none;
    fs::remove(fs::path(staged_folder) / file.filename(), none);
    if (!text) {
        fs::remove(file);
        return;
    }
    // Nobody ever reads half of it.
    const fs::path fresh = file.string() + ".new";
    std::ofstream out(fresh);
    if (!(out << *text).flush())
        throw std::runtime_error("cannot write " + fresh.string());
    fs::rename(fresh, file);
}

void renew_uci_packages() {
    for (const char *folder : {uci_folder, "/etc/stat", staged_folder})
        empty(folder);
    put_uci_package("network", network());
    put_uci_package("dhcp", dhcp());
    put_uci_package("wireless", wireless());
}

} // namespace tavrik::sim
