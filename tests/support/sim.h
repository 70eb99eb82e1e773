// The simulator around this program, asked from inside.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tavrik_sdk.h"

namespace sim {

// Makes one control call on the private socket, which works when the bus is the faulty part. Returns its result.
inline nlohmann::json call(const std::string &verb, const nlohmann::json &args = nlohmann::json::object()) {
    const char *folder = std::getenv("TAVRIK_SIM");
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s/control", folder ? folder : "/nonexistent");
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::string reply;
    if (!connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address)) {
        const std::string line = nlohmann::json{{"verb", verb}, {"args", args}}.dump() + "\n";
        if (send(fd, line.data(), line.size(), MSG_NOSIGNAL) == ssize_t(line.size())) {
            char chunk[4096];
            for (ssize_t n; (reply.empty() || reply.back() != '\n') && (n = read(fd, chunk, sizeof chunk)) > 0;)
                reply.append(chunk, size_t(n));
        }
    }
    close(fd);
    const auto parsed = nlohmann::json::parse(reply, nullptr, false);
    if (!parsed.is_object() || !parsed.contains("result")) {
        ADD_FAILURE() << "simulator, " << verb << " " << args << ": " << (reply.empty() ? "no reply" : reply);
        return nullptr;
    }
    return parsed["result"];
}

inline void fault(const char *service, const nlohmann::json &match, nlohmann::json effect) {
    effect["service"] = service;
    effect["match"] = match;
    call("fault", effect);
}

// What a call logged (log mode 0), each line as "FUNCTION: TEXT\n", with its level in front unless that is error.
template <class Run>
std::string log_of(Run run) {
    testing::internal::CaptureStdout();
    run();
    fflush(stdout);
    const std::string log = std::regex_replace(testing::internal::GetCapturedStdout(),
                                               std::regex("\\[sdklog (\\w+):(\\w+):[0-9]+\\]:"), "$1 $2: ");
    return std::regex_replace(log, std::regex("(^|\n)err "), "$1");
}

inline std::string hex(const std::string &bytes) {
    std::string text;
    char pair[3];
    for (const unsigned char byte : bytes) {
        snprintf(pair, sizeof pair, "%02x", byte);
        text += pair;
    }
    return text;
}

// What the record holds of a kind, in order; it is forgotten then.
inline std::vector<std::string> recorded(const char *kind) {
    std::vector<std::string> texts;
    const nlohmann::json record = call("record", {{"kind", kind}, {"clear", true}});
    for (const nlohmann::json &entry : record["entries"])
        texts.push_back(entry.value("text", entry.value("hex", "")));
    return texts;
}

// AT commands as they stand, RIL requests as "ril ID" or "ril ID PAYLOAD", and what was written for the kernel's power
// management and run, with the kind in front; in order, and they are forgotten then.
inline std::vector<std::string> sent() {
    std::vector<std::string> texts;
    const nlohmann::json record = call("record", {{"clear", true}});
    for (const nlohmann::json &entry : record["entries"]) {
        const std::string kind = entry["kind"];
        if (kind == "at")
            texts.push_back(entry.value("text", entry.value("hex", "")));
        else if (kind == "ril")
            texts.push_back("ril " + entry["id"].dump() + (entry.contains("data") ? " " : "") +
                            entry.value("data", ""));
        else if (kind == "autosleep" || kind == "wake_lock" || kind == "wake_unlock" || kind == "program")
            texts.push_back(kind + " " + entry.value("text", ""));
    }
    return texts;
}

// The values with blanks between them; they are read here, so that the first may be the call that writes the others.
template <class... Values>
std::string words(const Values &...values) {
    std::ostringstream text;
    ((text << ' ' << values), ...);
    return text.str().substr(1);
}

// An operation as a Row has it: makes the call, and tells its result and outputs.
using Operation = std::function<std::string()>;

// Tells the result alone.
template <class Function, class... Arguments>
Operation calling(Function function, Arguments... arguments) {
    return [=] { return words(function(arguments...)); };
}

// The result of an operation that tells a number, and the number; 77 was there before.
inline std::string number(int (*tell)(int *)) {
    int number = 77;
    return words(tell(&number), number);
}

// "KEY=VALUE KEY=VALUE…" as an object. A value goes to the next key; it is JSON, or a text where it cannot be read so.
inline nlohmann::json fields(const std::string &text) {
    nlohmann::json object;
    const std::regex key("(^| )([a-z_0-9]+)=");
    for (std::sregex_iterator at(text.begin(), text.end(), key), next, end; at != end; at = next) {
        next = std::next(at);
        const std::string value((*at)[0].second, next == end ? text.end() : (*next)[0].first);
        const auto parsed = nlohmann::json::parse(value, nullptr, false);
        object[(*at)[2]] = parsed.is_discarded() ? nlohmann::json(value) : parsed;
    }
    return object;
}

// Steps parted by " | ": "SERVICE MATCH FIELDS" and "SERVICE FIELDS" are faults, "FIELDS" are fields of the modem.
inline void given(const std::string &steps) {
    const std::regex fault_step("(at|atind|bus|power|ril) (?:(?![a-z_0-9]+=)([^ ]+) )?([\\s\\S]+)");
    for (size_t from = 0, to; from < steps.size(); from = to + 3) {
        to = std::min(steps.find(" | ", from), steps.size());
        const std::string step = steps.substr(from, to - from);
        std::smatch parts;
        if (!std::regex_match(step, parts, fault_step)) {
            call("state", fields(step));
            continue;
        }
        nlohmann::json fault = fields(parts[3]);
        fault["service"] = parts[1].str();
        if (parts[2].matched)
            fault["match"] = parts[2].str();
        call("fault", fault);
    }
}

// One case of an operation: what is given(), the call, its outcome, what is sent() with blanks between, and the log.
struct Row {
    std::string given;
    Operation run;
    std::string outcome, wire, log = {};
};

// A test whose every row finds a new modem.
class AtTest : public testing::Test {
  protected:
    AtTest() {
        call("reset");
        Tavrik_Switch_Log_Mode(TAVRIK_LOG_STDOUT);
        EXPECT_EQ(Tavrik_AT_Init(), 0);
    }
    ~AtTest() override {
        Tavrik_AT_Deinit();
        call("reset");
    }
    static void table(const std::vector<Row> &rows) {
        for (const Row &row : rows) {
            SCOPED_TRACE(row.given);
            given(row.given);
            std::string outcome, wire;
            EXPECT_EQ(log_of([&] { outcome = row.run(); }), row.log);
            EXPECT_EQ(outcome, row.outcome);
            for (const std::string &text : sent())
                wire += (wire.empty() ? "" : " ") + text;
            EXPECT_EQ(wire, row.wire);
            call("reset");
        }
    }
    // Calls that end with -1 and one line of the log, and send nothing.
    static void refuse(const std::vector<std::pair<std::string, std::function<int()>>> &calls) {
        sent();
        for (const auto &[line, run] : calls)
            EXPECT_EQ(log_of([&run = run] { EXPECT_EQ(run(), -1); }), line + "\n");
        EXPECT_TRUE(sent().empty());
    }
};

// What logs of a refused command and of an answer without the expected line say first.
inline const std::string refused = "Tavrik_AT_Send: response error\n",
                         unmatched = "handle_response_data: failed to match the keyword\n";

} // namespace sim
