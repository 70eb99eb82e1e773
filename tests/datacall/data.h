// What the tests of packet data have in common.
#pragma once

#include "support/descriptors.h"
#include "support/shell.h"
#include "support/sim.h"

using nlohmann::json;
using Texts = std::vector<std::string>;

// A section as uci writes it, of words: "TYPE NAME OPTION=VALUE LIST+=VALUE".
inline std::string section(const std::string &words) {
    const std::string head = std::regex_replace(words, std::regex("^(\\w+) (\\w+)"), "\nconfig $1 '$2'\n"),
                      lists = std::regex_replace(head, std::regex(" (\\w+)\\+=(\\S*)"), "\tlist $1 '$2'\n");
    return std::regex_replace(lists, std::regex(" (\\w+)=(\\S*)"), "\toption $1 '$2'\n");
}

inline std::string profile(const std::string &words) {
    return section("profile_idx " + words);
}

inline void put(const char *package, const std::string &text) {
    sim::call("uci", {{"package", package}, {"text", text}});
}

// What a call returns, if anything, and logs. Line numbers in the log are those of the source.
template <class Run, class... Args>
std::string did(Run run, Args... args) {
    std::string result;
    const std::string log = sim::log_of([&] {
        if constexpr (std::is_void_v<decltype(run(args...))>)
            run(args...);
        else
            result = std::to_string(run(args...)) + " ";
    });
    return result + std::regex_replace(log, std::regex("(: |error, )[0-9]+(, |\n)"), "$1LINE$2");
}

// Commands that were sent, each with a ";" behind; they are forgotten then.
inline std::string sent() {
    std::string all;
    for (const std::string &command : sim::sent())
        all += command + ";";
    return all;
}

// The rows of the table that have a context, as "INDEX:CID ", and that are to be set up again.
inline std::string contexts() {
    std::string rows;
    for (int i = 0; i < TAVRIK_IDX_CID_COUNT; i++)
        if (g_idx_cid[i].cid)
            rows += std::to_string(i) + ":" + std::to_string(g_idx_cid[i].cid) + (g_idx_cid[i].reconnect ? "r " : " ");
    return rows;
}

class DataTest : public sim::AtTest {
  protected:
    ~DataTest() override {
        Tavrik_DataCall_Destroy();
        tavrik_indication_deregister(); // each Destroy() takes one registration away, whether there was one or not
        tavrik_ubus_deinit();
        memset(g_idx_cid, 0, sizeof g_idx_cid);
    }
};
