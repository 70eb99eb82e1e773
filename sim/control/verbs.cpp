#include "control/verbs.h"

#include <algorithm>
#include <stdexcept>
#include <unistd.h>

#include "control/args.h"
#include "model/message.h"
#include "services/uci_packages.h"

namespace tavrik::sim {

using nlohmann::json;

namespace {

constexpr int default_limit_ms = 10000;
constexpr int64_t max_advance_ms = int64_t(1000) * 24 * 3600 * 1000;

void succeed(const Done &done, json result = json::object()) {
    done({std::move(result), {}});
}

// Ends the call once all services do what they were told to.
void settle(Context &context, const Done &done, const json &result = json::object()) {
    context.waiting.until([&context] { return context.settled(); }, default_limit_ms,
                          [result](bool in_time) {
                              return Outcome{result, in_time ? "" : "the services are not ready"};
                          },
                          done);
}

json describe(const Context &context) {
    json pids = {{"module", getpid()}};
    json services = json::object();
    for (auto &[name, service] : context.services) {
        services[name] = service->describe();
        if (services[name].contains("pid"))
            pids[name] = services[name]["pid"];
        else
            pids[name] = getpid();
    }
    return {{"state", context.modem.get()}, {"services", services}, {"pids", pids}};
}

Action parse_state(Context &context, const json &args) {
    // Fields and values are checked on a modem that nobody sees.
    Modem().set(args);
    return [&context, args](const Done &done) {
        context.modem.set(args);
        succeed(done, describe(context));
    };
}

Action parse_reset(Context &context, const json &args) {
    Args(args).finish();
    return [&context](const Done &done) {
        context.faults.remove({}, {});
        for (auto &[name, service] : context.services)
            service->discard_replies();
        context.apply_faults();
        // A daemon that died by itself is new, too.
        if (Service *bus = context.find("bus"); bus && !context.bus_running)
            bus->start();
        context.renew();
        settle(context, [&context, done](const Outcome &outcome) {
            context.read_taps();
            context.record.clear();
            done(outcome);
        });
    };
}

Action parse_line(Context &context, const json &object) {
    Args args(object);
    std::optional<std::string> bytes = args.bytes("text");
    Cuts cuts = args.cuts("cuts");
    int limit = args.milliseconds("limit", default_limit_ms);
    args.finish();
    if (!bytes)
        throw std::invalid_argument("\"text\" or \"hex\" is missing");
    return [&context, bytes, cuts, limit](const Done &done) {
        if (!context.indicate)
            throw std::invalid_argument("there is no indication socket");
        auto mark = std::make_shared<int>();
        std::weak_ptr<int> under_way = mark;
        size_t clients = context.indicate(*bytes, cuts, std::move(mark));
        context.waiting.until([under_way] { return under_way.expired(); }, limit,
                              [clients](bool in_time) {
                                  return Outcome{{{"clients", clients}}, in_time ? "" : "a client does not read"};
                              },
                              done);
    };
}

// Bytes of the receiver, once somebody listens.
Action parse_nmea(Context &context, const json &object) {
    Args args(object);
    const std::optional<std::string> bytes = args.bytes("text");
    const Cuts cuts = args.cuts("cuts");
    const int limit = args.milliseconds("limit", default_limit_ms);
    args.finish();
    if (!bytes)
        throw std::invalid_argument("\"text\" or \"hex\" is missing");
    return [&context, bytes, cuts, limit](const Done &done) {
        if (!context.from_receiver)
            throw std::invalid_argument("there is no receiver");
        auto mark = std::make_shared<int>();
        std::weak_ptr<int> under_way = mark;
        context.waiting.until(
            [&context, bytes, cuts, under_way, mark]() mutable {
                if (mark && context.from_receiver(*bytes, cuts, mark))
                    mark.reset();
                return under_way.expired();
            },
            limit,
            [](bool in_time) {
                return Outcome{json::object(), in_time ? "" : "nobody reads the receiver's port"};
            },
            done);
    };
}

Action parse_gnss(Context &context, const json &args) {
    // Settings are checked on a receiver that nobody hears.
    Receiver().set(args, 0);
    return [&context, args](const Done &done) {
        context.receiver.set(args, context.clock.now());
        succeed(done, context.receiver.get());
    };
}

// An incoming message: a text, a PDU as it stands, or the report on one that was sent.
Action parse_message(Context &context, const json &object) {
    Args args(object);
    const std::optional<std::string> pdu = args.text("pdu"), from = args.text("from"), text = args.text("text"),
                                     to = args.text("to");
    const bool reverse = args.flag("reverse");
    const auto reference = static_cast<int>(args.number("reference", 0, 255).value_or(42));
    const std::optional<int64_t> status = args.number("status", 0, 255);
    args.finish();
    std::vector<std::string> lines;
    if (from && text && !pdu && !to)
        lines = deliver_pdus(*from, *text, reference);
    else if (to && status && !from && !text && !pdu)
        lines = {report_pdu(*to, reference, static_cast<int>(*status))};
    else if (pdu && !from && !text && !to)
        lines = {*pdu};
    else
        throw std::invalid_argument("a message is \"from\" and \"text\", or \"pdu\", or \"to\" and \"status\"");
    if (reverse)
        std::reverse(lines.begin(), lines.end());
    for (std::string &line : lines)
        line = message_line(line);
    return [&context, lines](const Done &done) {
        for (const std::string &line : lines)
            context.modem.unsolicited(line);
        succeed(done, {{"parts", lines.size()}});
    };
}

Action parse_advance(Context &context, const json &object) {
    Args args(object);
    std::optional<int64_t> ms = args.number("ms", 0, max_advance_ms);
    args.finish();
    if (!ms)
        throw std::invalid_argument("\"ms\" is missing");
    return [&context, ms](const Done &done) {
        context.clock.advance(*ms);
        succeed(done, {{"now", context.clock.now()}});
    };
}

Action parse_call(Context &context, const json &object) {
    Args args(object);
    std::string number = args.text("number").value_or("");
    args.finish();
    return [&context, number](const Done &done) {
        if (!context.modem.act("ring", number))
            throw std::invalid_argument("the modem cannot be called");
        succeed(done);
    };
}

Action parse_hangup(Context &context, const json &object) {
    Args args(object);
    std::optional<int64_t> id = args.number("call", INT32_MIN, INT32_MAX);
    const int64_t cause = args.number("cause", INT32_MIN, INT32_MAX).value_or(16);
    args.finish();
    return [&context, id, cause](const Done &done) {
        if (!context.modem.act("drop", std::to_string(cause) + (id ? "," + std::to_string(*id) : "")))
            throw std::invalid_argument("there is no such call");
        succeed(done);
    };
}

Action parse_record(Context &context, const json &object) {
    Args args(object);
    Record::Filter filter = Record::Filter::from(args);
    auto limit = static_cast<size_t>(args.number("limit", 1, INT64_MAX).value_or(INT64_MAX));
    bool clear = args.flag("clear");
    args.finish();
    return [&context, filter, limit, clear](const Done &done) {
        context.read_taps();
        json result = context.record.read(filter, limit);
        if (clear)
            context.record.clear();
        succeed(done, std::move(result));
    };
}

Action parse_wait(Context &context, const json &object) {
    Args args(object);
    Record::Filter filter = Record::Filter::from(args);
    auto wanted = static_cast<size_t>(args.number("count", 1, Record::max_entries).value_or(1));
    int limit = args.milliseconds("limit", default_limit_ms);
    args.finish();
    return [&context, filter, wanted, limit](const Done &done) {
        auto have = std::make_shared<size_t>(0);
        auto enough = [&context, wanted, have, rest = filter]() mutable {
            context.read_taps();
            *have += context.record.count(rest);
            rest.after = std::max(rest.after, context.record.last());
            return *have >= wanted;
        };
        context.waiting.until(
            enough, limit,
            [wanted, have](bool in_time) {
                return Outcome{
                    {{"count", *have}},
                    in_time ? "" : "only " + std::to_string(*have) + " of " + std::to_string(wanted) + " in time"};
            },
            done);
    };
}

// Names of services that faults can be given to.
Service &service_in(const Context &context, const std::string &name) {
    Service *service = context.find(name);
    if (service && !service->effects().empty())
        return *service;
    std::string known;
    for (auto &[other, one] : context.services)
        if (!one->effects().empty())
            known += (known.empty() ? "" : ", ") + other;
    throw std::invalid_argument("no service \"" + name + "\"; there are " + known);
}

Action parse_fault(Context &context, const json &object) {
    Args args(object);
    std::string name = args.text("service").value_or("");
    Fault fault = Fault::from(args, service_in(context, name).effects());
    return [&context, name, fault](const Done &done) {
        Service &service = service_in(context, name);
        if (fault.close_now)
            service.close_connections();
        if (fault.restart) {
            service.stop();
            service.start();
        }
        json result = json::object();
        if (fault.for_requests() || fault.stands())
            result["fault"] = context.faults.add(fault);
        try {
            context.apply_faults();
        } catch (const std::exception &) {
            // It cannot be done, and is not.
            context.faults.remove(result["fault"].get<unsigned>(), {});
            context.apply_faults();
            throw;
        }
        settle(context, done, result);
    };
}

Action parse_clear(Context &context, const json &object) {
    Args args(object);
    std::optional<int64_t> number = args.number("fault", 1, UINT32_MAX);
    std::optional<std::string> service = args.text("service");
    args.finish();
    if (service)
        service_in(context, *service);
    return [&context, number, service](const Done &done) {
        size_t removed = context.faults.remove(number, service);
        context.apply_faults();
        settle(context, done, {{"removed", removed}});
    };
}

Action parse_context(Context &context, const json &object) {
    Args args(object);
    std::optional<int64_t> cid = args.number("cid", 1, 255), state = args.number("state", 0, 1);
    const bool words = args.flag("words");
    args.finish();
    if (!cid || !state)
        throw std::invalid_argument("\"cid\" or \"state\" is missing");
    return [&context, name = std::to_string(*cid), up = *state != 0, words](const Done &done) {
        Modem &modem = context.modem;
        ModemState before = modem.state();
        modem.state().contexts = with_context(before.contexts, name, up);
        if (words) // this is the news then
            before.contexts = modem.state().contexts;
        modem.report(before);
        if (words)
            modem.unsolicited(std::string("+ZCONSTAT: NW PDN ") + (up ? "ACT " : "DEACT ") + name);
        succeed(done, {{"contexts", modem.state().contexts}});
    };
}

Action parse_rules(Context &context, const json &object) {
    Args args(object);
    const json *rules = args.take("add");
    args.finish();
    if (!rules)
        throw std::invalid_argument("\"add\" is missing");
    RuleTable().add(*rules);
    return [&context, added = *rules](const Done &done) {
        context.rules.add(added);
        succeed(done);
    };
}

Action parse_uci(Context &, const json &object) {
    Args args(object);
    const std::optional<std::string> package = args.text("package"), text = args.text("text");
    args.finish();
    if (!package)
        throw std::invalid_argument("\"package\" is missing");
    uci_file(*package);
    return [package, text](const Done &done) {
        put_uci_package(*package, text);
        succeed(done);
    };
}

Action parse_verbs(Context &, const json &args) {
    Args(args).finish();
    return [](const Done &done) { succeed(done, {{"verbs", verb_names()}}); };
}

const struct {
    const char *name;
    Action (*parse)(Context &context, const json &args);
} verbs[] = {
    {"advance", parse_advance}, {"call", parse_call},   {"clear", parse_clear},   {"context", parse_context},
    {"fault", parse_fault},     {"gnss", parse_gnss},   {"hangup", parse_hangup}, {"line", parse_line},
    {"message", parse_message}, {"nmea", parse_nmea},   {"record", parse_record}, {"reset", parse_reset},
    {"rules", parse_rules},     {"state", parse_state}, {"uci", parse_uci},       {"verbs", parse_verbs},
    {"wait", parse_wait},
};

} // namespace

Action prepare(Context &context, const std::string &verb, const json &args) {
    for (auto &row : verbs)
        if (row.name == verb)
            return row.parse(context, args);
    std::string known;
    for (auto &row : verbs)
        known += std::string(known.empty() ? "" : ", ") + row.name;
    throw std::invalid_argument("unknown verb \"" + verb + "\"; there are " + known);
}

void call(Context &context, const std::string &verb, const json &args, const Done &done) {
    try {
        prepare(context, verb, args)(done);
    } catch (const std::exception &error) {
        done({{}, error.what()});
    }
}

std::vector<const char *> verb_names() {
    std::vector<const char *> names;
    for (auto &row : verbs)
        names.push_back(row.name);
    return names;
}

} // namespace tavrik::sim
