// Storing a data profile against libuci with the same sets and one commit.
#include "bench.h"

#include "tavrik_sdk.h"

#include <cstdio>
#include <cstring>
#include <string>

extern "C" {
#include <uci.h>
}

namespace {

// Each differs from the one before: what is stored already would not be written.
std::string next_apn() {
    static unsigned count;
    return "apn" + std::to_string(count++);
}

bool ours(int operations) {
    while (operations--) {
        Tavrik_DataProfile profile = {};
        profile.profile_idx = 1;
        profile.pdp_type = 3;
        strcpy(profile.apn, next_apn().c_str());
        strcpy(profile.usr_name, "user");
        strcpy(profile.password, "password");
        if (Tavrik_DataCall_SetProfile(&profile))
            return false;
    }
    return true;
}

bool base(int operations) {
    while (operations--) {
        const std::string apn = next_apn();
        const struct {
            const char *option, *value;
        } rows[] = {{"pdp_type", "3"},
                    {"apn", apn.c_str()},
                    {"auth_type", "0"},
                    {"usr_name", "user"},
                    {"password", "password"}};
        uci_context *const context = uci_alloc_context();
        uci_package *package = nullptr;
        bool good = !uci_load(context, "data_profile", &package);
        for (const auto &row : rows) {
            uci_ptr element = {};
            element.package = "data_profile";
            element.section = "1";
            element.option = row.option;
            element.value = row.value;
            good = good && !uci_set(context, &element);
        }
        good = good && !uci_commit(context, &package, false);
        uci_free_context(context);
        if (!good)
            return false;
    }
    return true;
}

} // namespace

std::vector<bench::Row> bench::store_rows() {
    if (FILE *const file = fopen("/etc/config/data_profile", "w")) {
        fputs("config profile_idx 1\n", file);
        fclose(file);
    }
    return {{"profile write", "ns", 100, ours, base}};
}
