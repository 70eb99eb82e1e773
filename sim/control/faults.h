#pragma once

#include <cstdint>
#include <list>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "io/stream_server.h"

namespace tavrik::sim {

class Args;

// What a service does as long as a fault stands, whether it is asked or not.
struct Standing {
    bool freeze = false; // alive, but does nothing
    bool refuse = false; // no new connection
    bool stop = false;   // gone
    bool full = false;   // files take no byte
    bool read_only = false;
    std::set<std::string> locks; // packages of uci that another program holds
    // What a program does that was started: takes its time, dies of a signal, or ends with a code.
    int sleep_ms = 0, signal = 0, exit_code = 0;
    bool deaf = false;   // reads nothing
    bool silent = false; // says nothing
    int burst = 1;       // so much of what it says comes at once
    int garble = 0;      // each byte of this number is wrong
    Cuts cuts;           // of all that it says
    std::string flood;   // sent without end

    bool any() const {
        return freeze || refuse || stop || full || deaf || silent || burst > 1 || garble || !cuts.none() || read_only ||
               !locks.empty() || sleep_ms || signal || exit_code || !flood.empty();
    }
};

// What is wrong with a service (docs/simulator.md, "Faults").
struct Fault {
    unsigned number = 0;
    std::string service;
    // Which requests, by AT command, RIL request id or method, with wildcards.
    std::string match = "*";
    int64_t nth = 1;
    std::optional<int64_t> count;
    // What happens to their replies.
    bool drop = false;
    bool close = false;
    int delay_ms = 0;
    Cuts split;
    std::optional<std::string> raw;   // bytes in place of the reply
    std::optional<std::string> error; // final line of an AT reply
    std::optional<int32_t> ril_error; // error field of a RIL reply
    std::optional<uint32_t> ril_id;   // id field of a RIL reply
    std::optional<std::string> data;  // payload of a RIL reply
    bool no_data = false;             // RIL reply without payload
    std::optional<int32_t> status;    // of the bus call
    int times = 1;                    // that a bus reply is sent before the status
    // In place of the reply of a bus object.
    std::optional<nlohmann::ordered_json> reply;
    // What happens without any request.
    Standing standing;
    bool restart = false;
    bool close_now = false;

    bool for_requests() const;
    bool stands() const { return standing.any(); }
    // `effects` are the names that the service knows. Throws std::invalid_argument.
    static Fault from(Args &args, std::string_view effects);

    int64_t seen = 0;
};

class Faults {
  public:
    unsigned add(Fault fault);
    // The fault that meets this request, NULL when none does; it counts as used. Valid until the next call.
    const Fault *meet(std::string_view service, std::string_view request);
    Standing standing(std::string_view service) const;
    // Of a service, or all; by number. Returns how many there were.
    size_t remove(const std::optional<unsigned> &number, const std::optional<std::string> &service);

  private:
    std::list<Fault> faults_;
    std::list<Fault> used_up_;
    unsigned last_ = 0;
};

} // namespace tavrik::sim
