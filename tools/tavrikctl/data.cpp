// tavrikctl data: packet data.
#include "channel.h"
#include "command.h"
#include "output.h"
#include "watch.h"

#include <arpa/inet.h>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <optional>
#include <tavrik_sdk.h>
#include <unistd.h>

namespace tavrikctl {
namespace {

constexpr char kProfiles[] = "/etc/config/data_profile", kStatistics[] = "/etc/stat/data_statistics";
constexpr int kLastProfile = 15;

// Missing files are made. Where there are both, nothing is initialised: that would reset the counters of contexts that
// are up.
bool prepared() {
    if (!access(kProfiles, F_OK) && !access(kStatistics, F_OK))
        return true;
    const bool made = Tavrik_DataCall_Init(nullptr) == 0;
    if (made)
        Tavrik_DataCall_Destroy();
    return made || fail("data: the profiles' files cannot be made");
}

const char *type_name(uint32_t type) {
    return type == 2 ? "ipv6" : type == 3 ? "ipv4v6" : "ipv4";
}

// Nothing when there is no such profile.
std::optional<Tavrik_DataProfile> read(int index, bool &readable) {
    // Options that are missing keep what is in the record, and without a profile it is cleared: a stored text has none
    // of these.
    constexpr char kMissing[] = "\1";
    Tavrik_DataProfile profile = {};
    char *const texts[] = {profile.apn, profile.usr_name, profile.password};
    for (char *text : texts)
        strcpy(text, kMissing);
    setenv("TAVRIK_LOG_OPTION", "0", 1); // on a PC; that one is not there is no failure here
    readable = Tavrik_DataCall_GetProfile(index, &profile) == 0;
    unsetenv("TAVRIK_LOG_OPTION");
    if (!readable || !*profile.apn)
        return {};
    for (char *text : texts)
        if (!strcmp(text, kMissing))
            *text = 0;
    return profile;
}

bool profile_list(Output &output) {
    std::vector<std::string> texts;
    nlohmann::ordered_json members = nlohmann::ordered_json::array();
    bool readable = true;
    for (int i = 0; i <= kLastProfile && readable; ++i)
        if (const auto profile = read(i, readable)) {
            const std::string apn = profile->apn;
            texts.push_back(std::to_string(i) + " " + type_name(profile->pdp_type) + (apn.empty() ? "" : " ") + apn);
            members.push_back({{"profile", i}, {"type", type_name(profile->pdp_type)}, {"apn", apn}});
        }
    if (!readable && access(kProfiles, F_OK) == 0)
        return fail("data profile: the profiles cannot be read");
    output.lines("profiles", texts);
    output.member("profiles", members);
    return output.end() || fail("data profile: cannot write them");
}

bool profile_get(int index, Output &output) {
    bool readable;
    const auto profile = read(index, readable);
    if (!profile)
        return fail("data profile: " +
                    (readable ? "there is no profile " + std::to_string(index) : "the profiles cannot be read"));
    output.field("profile", "Profile", index);
    output.field("type", "Type", type_name(profile->pdp_type));
    for (const auto &[key, label, value] :
         {std::tuple("apn", "APN", profile->apn), std::tuple("user", "User", profile->usr_name),
          std::tuple("password", "Password", profile->password)})
        if (*value)
            output.field(key, label, value);
    output.field("auth", "Authentication", profile->auth_type);
    return output.end() || fail("data profile: cannot write it");
}

bool profile_set(int index, const Arguments &arguments) {
    Tavrik_DataProfile profile = {};
    profile.profile_idx = uint8_t(index);
    const std::string &type = arguments.text("--type");
    profile.pdp_type = type == "ipv6" ? 2 : type == "ipv4v6" ? 3 : 0;
    profile.auth_type = uint32_t(arguments.number("--auth"));
    for (const auto &[option, field] : {std::pair("--apn", profile.apn), std::pair("--user", profile.usr_name),
                                        std::pair("--password", profile.password)}) {
        const std::string text = arguments.has(option) ? arguments.text(option) : "";
        if (text.size() >= TAVRIK_DATA_TEXT_SIZE)
            return fail(std::string("data profile: ") + option + " has more than 63 characters");
        text.copy(field, text.size());
    }
    return (prepared() && Tavrik_DataCall_SetProfile(&profile) == 0) || fail("data profile: it cannot be stored");
}

bool profile(const Arguments &arguments, Output &output) {
    const std::string &action = arguments.text("ACTION");
    if (arguments.has("PROFILE") == (action == "list"))
        return fail("data profile: all but list take the number of a profile", kUsage);
    if (action == "list")
        return profile_list(output);
    const int index = int(arguments.number("PROFILE"));
    if (action == "get")
        return profile_get(index, output);
    if (action == "set")
        return profile_set(index, arguments);
    return Tavrik_DataCall_DeleteProfile(index) == 0 || fail("data profile: it cannot be deleted");
}

bool start(const Arguments &arguments, Output &) {
    const Channel channel("data");
    if (!channel || !prepared())
        return false;
    const Tavrik_DataCallReq request = {uint8_t(arguments.number("PROFILE")), 0};
    int error = 0;
    if (Tavrik_DataCall_Start(&request, &error) == 0)
        return true;
    return fail(error ? "data start: there is no such profile" : "data start: the modem does not activate it");
}

bool stop(const Arguments &arguments, Output &) {
    const Channel channel("data");
    int error = 0;
    return channel && (Tavrik_DataCall_Stop(unsigned(arguments.number("PROFILE")), &error) == 0 ||
                       fail("data stop: the modem does not deactivate it"));
}

// Addresses of a link as "ADDRESS/PREFIX", those within the link alone left out.
std::vector<std::string> addresses_of(const std::string &link, const ifaddrs *list) {
    std::vector<std::string> texts;
    for (const ifaddrs *entry = list; entry; entry = entry->ifa_next) {
        if (link != entry->ifa_name || !entry->ifa_addr || !entry->ifa_netmask)
            continue;
        const int family = entry->ifa_addr->sa_family;
        const auto bytes = [family](const sockaddr *address) {
            return family == AF_INET
                       ? reinterpret_cast<const uint8_t *>(&reinterpret_cast<const sockaddr_in *>(address)->sin_addr)
                       : reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr.s6_addr;
        };
        if (family != AF_INET &&
            (family != AF_INET6 ||
             IN6_IS_ADDR_LINKLOCAL(&reinterpret_cast<const sockaddr_in6 *>(entry->ifa_addr)->sin6_addr)))
            continue;
        char text[INET6_ADDRSTRLEN];
        inet_ntop(family, bytes(entry->ifa_addr), text, sizeof text);
        int prefix = 0;
        for (int i = 0; i < (family == AF_INET ? 4 : 16); ++i)
            prefix += __builtin_popcount(bytes(entry->ifa_netmask)[i]);
        texts.push_back(text + ("/" + std::to_string(prefix)));
    }
    return texts;
}

bool status(const Arguments &, Output &output) {
    const Channel channel("data");
    if (!channel)
        return false;
    Tavrik_profile_idx_cid_Init();
    ifaddrs *list = nullptr;
    getifaddrs(&list);
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
    std::vector<std::string> texts;
    nlohmann::ordered_json members = nlohmann::ordered_json::array();
    for (int i = 0; i < TAVRIK_IDX_CID_COUNT; ++i) {
        const int cid = g_idx_cid[i].cid;
        if (!cid)
            continue;
        const std::string link = "ccinet" + std::to_string(i);
        bool up = false;
        for (const ifaddrs *entry = list; entry; entry = entry->ifa_next)
            up = up || (link == entry->ifa_name && entry->ifa_flags & IFF_UP);
        const std::vector<std::string> addresses = addresses_of(link, list);
        std::string text = std::to_string(i) + " context " + std::to_string(cid) + " " + link + (up ? " up" : " down");
        for (const std::string &address : addresses)
            text += " " + address;
        texts.push_back(text);
        members.push_back({{"profile", i}, {"cid", cid}, {"interface", link}, {"up", up}, {"addresses", addresses}});
    }
    output.lines("contexts", texts);
    output.member("contexts", members);
    return output.end() || fail("data status: cannot write it");
}

bool watch_data(const Arguments &arguments, Output &output) {
    return watch("data watch", {6}, arguments, output);
}

} // namespace

Family data_family() {
    const Parameter which = number("PROFILE", "Number of the profile", 0, kLastProfile);
    return {
        "data",
        "Packet data",
        {{"data",
          "profile",
          "Look at the stored profiles, store one, or delete one; `set` replaces all that was stored under the number",
          {chosen_word("ACTION", "What to do", {"list", "get", "set", "delete"}),
           optional_number("PROFILE", "Number of the profile; not with `list`", 0, kLastProfile),
           text_option("--apn", "APN", "Access point name", ""),
           {"--type", "TYPE", "Kind of context", false, {"ipv4", "ipv6", "ipv4v6"}, 0, -1, "ipv4"},
           number_option("--auth", "N", "Kind of authentication, as the modem counts it; only stored", 0, 3, "0"),
           text_option("--user", "NAME", "User name; only stored", ""),
           text_option("--password", "TEXT", "Password; only stored", "")},
          profile},
         {"data", "start", "Define and activate a profile's context", {which}, start},
         {"data", "stop", "Deactivate a profile's context and take its definition away", {which}, stop},
         {"data", "status", "Print the contexts that the modem has, with the addresses of their links", {}, status},
         {"data", "watch", "Print what happens to contexts, a line each", watch_options(), watch_data}}};
}

} // namespace tavrikctl
