#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "at/rule_table.h"
#include "control/faults.h"
#include "control/record.h"
#include "control/waiting.h"
#include "io/file_events.h"
#include "io/stream_server.h"
#include "model/clock.h"
#include "model/modem.h"
#include "model/power.h"
#include "model/receiver.h"
#include "module.h"
#include "services/service.h"

namespace tavrik::sim {

// What the parts of the module process share.
struct Context {
    Context(const ModuleOptions &o, Clock::Source time) : options(o), clock(std::move(time)) {
        modem.plan = [this](int64_t ms, std::function<void()> action) { clock.after(ms, std::move(action)); };
    }

    const ModuleOptions &options;
    Clock clock;
    Modem modem;
    Power power;
    Receiver receiver;
    FileEvents files;
    RuleTable rules = RuleTable::built_in();
    Record record;
    Faults faults;
    Waiting waiting;
    std::vector<std::pair<std::string, std::unique_ptr<Service>>> services;

    // Counts the bus daemons that were started; 0 while none runs that may answer.
    uint64_t bus_running = 0;

    // Sends raw bytes to every client of the indication socket; `sent` is released once they are on their way. Returns
    // how many clients there are.
    std::function<size_t(std::string_view bytes, const Cuts &cuts, std::shared_ptr<void> sent)> indicate;
    std::function<void()> on_indication_client;
    // Who reads the receiver's port gets these bytes, `sent` is released behind the last one; false while nobody does.
    std::function<bool(std::string_view bytes, const Cuts &cuts, std::shared_ptr<void> sent)> from_receiver;
    // Reads what programs have written, so that the record is complete.
    std::function<void()> read_taps;
    // Models, rules and clock as after the start.
    std::function<void()> renew;

    Service *find(std::string_view name) const {
        for (auto &[known, service] : services)
            if (known == name)
                return service.get();
        return nullptr;
    }
    // Each service does what the faults say.
    void apply_faults() {
        for (auto &[name, service] : services)
            service->stand(faults.standing(name));
    }
    bool settled() const {
        for (auto &[name, service] : services)
            if (!service->settled())
                return false;
        return true;
    }
    // Runs a command of the modem and plans what it says later.
    std::string obey(std::string_view command);
};

} // namespace tavrik::sim
