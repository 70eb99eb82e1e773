#include "control/faults.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "control/args.h"

namespace tavrik::sim {

using nlohmann::json;

namespace {

bool has_word(std::string_view words, std::string_view word) {
    for (size_t at = 0; at < words.size();) {
        size_t end = std::min(words.find(' ', at), words.size());
        if (words.substr(at, end - at) == word)
            return true;
        at = end + 1;
    }
    return false;
}

} // namespace

bool Fault::for_requests() const {
    return drop || close || delay_ms || !split.none() || raw || error || ril_error || ril_id || data || no_data ||
           reply || status || times != 1;
}

Fault Fault::from(Args &args, std::string_view effects) {
    Fault fault;
    fault.service = args.text("service").value_or("");
    auto knows = [&](const char *effect) {
        if (has_word(effects, effect))
            return true;
        if (args.take(effect))
            throw std::invalid_argument("\"" + fault.service + "\" does not know \"" + effect + "\"; it knows " +
                                        std::string(effects));
        return false;
    };
    std::optional<std::string> match = args.text_or_number("match");
    std::optional<int64_t> nth = args.number("nth", 1, INT64_MAX);
    fault.match = match.value_or("*");
    fault.nth = nth.value_or(1);
    fault.count = args.number("count", 1, INT64_MAX);
    if (nth && !fault.count)
        fault.count = 1;

    if (knows("delay"))
        fault.delay_ms = args.milliseconds("delay", 0);
    if (knows("split"))
        fault.split = args.cuts("split");
    if (knows("drop"))
        fault.drop = args.flag("drop");
    if (knows("raw"))
        fault.raw = args.bytes("raw");
    if (knows("error")) {
        const json *error = args.take("error");
        if (error && fault.service != "at")
            fault.ril_error = static_cast<int32_t>(*args.number("error", INT32_MIN, INT32_MAX));
        else if (error && error->is_number_integer())
            fault.error = "+CME ERROR: " + error->dump();
        else
            fault.error = args.text("error");
    }
    if (knows("id"))
        if (auto id = args.number("id", 0, UINT32_MAX))
            fault.ril_id = static_cast<uint32_t>(*id);
    if (knows("data")) {
        const json *data = args.take("data");
        fault.no_data = data && data->is_null();
        if (!fault.no_data)
            fault.data = args.hex("data");
    }
    if (knows("status"))
        if (auto status = args.number("status", INT32_MIN, INT32_MAX))
            fault.status = static_cast<int32_t>(*status);
    if (knows("reply"))
        if (const json *reply = args.take("reply")) {
            if (!reply->is_object())
                throw std::invalid_argument("\"reply\" is an object");
            fault.reply = *reply;
        }
    if (knows("times"))
        fault.times = static_cast<int>(args.number("times", 0, 1000).value_or(1));
    if (knows("close"))
        fault.close = args.flag("close");
    if (knows("freeze"))
        fault.standing.freeze = args.flag("freeze");
    if (knows("refuse"))
        fault.standing.refuse = args.flag("refuse");
    if (knows("stop"))
        fault.standing.stop = args.flag("stop");
    if (knows("full"))
        fault.standing.full = args.flag("full");
    if (knows("read_only"))
        fault.standing.read_only = args.flag("read_only");
    if (knows("lock"))
        if (auto package = args.text("lock"))
            fault.standing.locks.insert(*package);
    if (knows("sleep"))
        fault.standing.sleep_ms = args.milliseconds("sleep", 0);
    if (knows("signal"))
        fault.standing.signal = static_cast<int>(args.number("signal", 1, 64).value_or(0));
    if (knows("exit"))
        fault.standing.exit_code = static_cast<int>(args.number("exit", 1, 255).value_or(0));
    if (knows("deaf"))
        fault.standing.deaf = args.flag("deaf");
    if (knows("silent"))
        fault.standing.silent = args.flag("silent");
    if (knows("burst"))
        fault.standing.burst = static_cast<int>(args.number("burst", 1, 1000).value_or(1));
    if (knows("garble"))
        fault.standing.garble = static_cast<int>(args.number("garble", 1, INT32_MAX).value_or(0));
    if (knows("cuts"))
        fault.standing.cuts = args.cuts("cuts");
    if (knows("restart"))
        fault.restart = args.flag("restart");
    if (knows("flood"))
        fault.standing.flood = args.text("flood").value_or("");
    args.finish();
    // Alone, and without requests named, it means the connections that there are.
    if (fault.close && !match && !nth && !fault.count) {
        fault.close = false;
        fault.close_now = !fault.for_requests();
        fault.close = !fault.close_now;
    }
    if (!fault.for_requests() && !fault.stands() && !fault.restart && !fault.close_now)
        throw std::invalid_argument("a fault without effect; \"" + fault.service + "\" knows " + std::string(effects));
    return fault;
}

unsigned Faults::add(Fault fault) {
    fault.number = ++last_;
    faults_.push_back(std::move(fault));
    return last_;
}

const Fault *Faults::meet(std::string_view service, std::string_view request) {
    used_up_.clear();
    const Fault *met = nullptr;
    for (auto next = faults_.begin(); next != faults_.end();) {
        auto it = next++;
        Fault &fault = *it;
        if (fault.service != service || !fault.for_requests() || !wildcard_match(fault.match, request) ||
            ++fault.seen < fault.nth)
            continue;
        // Each counts the requests that fit it, whichever of them comes to act.
        if (!met)
            met = &fault;
        if (fault.count && fault.seen - fault.nth + 1 >= *fault.count)
            used_up_.splice(used_up_.end(), faults_, it);
    }
    return met;
}

Standing Faults::standing(std::string_view service) const {
    Standing all;
    for (const Fault &fault : faults_) {
        if (fault.service != service)
            continue;
        all.freeze |= fault.standing.freeze;
        all.refuse |= fault.standing.refuse;
        all.stop |= fault.standing.stop;
        all.full |= fault.standing.full;
        all.read_only |= fault.standing.read_only;
        all.locks.insert(fault.standing.locks.begin(), fault.standing.locks.end());
        all.sleep_ms = std::max(all.sleep_ms, fault.standing.sleep_ms);
        all.signal = std::max(all.signal, fault.standing.signal);
        all.exit_code = std::max(all.exit_code, fault.standing.exit_code);
        all.deaf |= fault.standing.deaf;
        all.silent |= fault.standing.silent;
        all.burst = std::max(all.burst, fault.standing.burst);
        all.garble = std::max(all.garble, fault.standing.garble);
        if (all.cuts.none())
            all.cuts = fault.standing.cuts;
        all.flood += fault.standing.flood;
    }
    return all;
}

size_t Faults::remove(const std::optional<unsigned> &number, const std::optional<std::string> &service) {
    size_t before = faults_.size();
    faults_.remove_if([&](const Fault &fault) {
        return (!number || fault.number == *number) && (!service || fault.service == *service);
    });
    return before - faults_.size();
}

} // namespace tavrik::sim
