#include "module.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

#include "control/control_server.h"
#include "control/scenario.h"
#include "taps.h"

namespace tavrik::sim {

namespace {

constexpr int exit_failed = 1;
constexpr int exit_bad_scenario = 2;

int64_t now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

class Module {
  public:
    explicit Module(const ModuleOptions &options);
    ~Module();
    int run();

  private:
    void make_services();
    void renew();
    void begin();
    void make_call();
    void run_call(const Scenario::Call &call, const std::function<void(const std::string &)> &ended);
    void play();
    void fail(int code, const std::string &message);

    Context context_;
    Timer clock_timer_;
    Timer begin_timer_;
    Timer call_timer_;
    Taps taps_;
    std::unique_ptr<ControlServer> control_;
    Scenario scenario_;
    size_t next_call_ = 0;
    bool played_ = false;
    int exit_code_ = 0;
};

Module::Module(const ModuleOptions &options)
    : context_(options, now_ms),
      clock_timer_([this] { context_.clock.run(); }),
      begin_timer_([this] { begin(); }),
      call_timer_([this] { make_call(); }),
      taps_(context_) {
    context_.clock.on_plan = [this] {
        int64_t next = context_.clock.next();
        if (next >= 0)
            clock_timer_.start(static_cast<int>(std::min<int64_t>(next, 3600000)));
    };
    context_.read_taps = [this] {
        taps_.read();
        for (auto &[name, service] : context_.services)
            service->read_pending();
    };
    context_.renew = [this] { renew(); };
    context_.on_indication_client = [this] { play(); };
}

Module::~Module() {
    // What still waits for an answer refers to services and connections.
    control_.reset();
    context_.services.clear();
}

void Module::make_services() {
    const std::vector<std::string> &without = context_.options.without;
    auto left_out = [&](const std::string &name) { return std::count(without.begin(), without.end(), name) > 0; };
    for (const std::string &name : without) {
        const ServiceRow *row = service_rows;
        while (row->name && row->name != name)
            row++;
        if (!row->name)
            throw std::invalid_argument("there is no service \"" + name + "\"");
    }
    for (const ServiceRow *row = service_rows; row->name; row++)
        if (!left_out(row->name) && !(row->on_bus && left_out("bus")))
            context_.services.emplace_back(row->name, row->make(context_));
}

void Module::renew() {
    context_.modem.reset(scenario_.state);
    context_.read_taps(); // what was written to the old
    context_.power = {};
    context_.rules = RuleTable::built_in();
    context_.rules.add(scenario_.rules);
    context_.clock.reset();
    for (auto &[name, service] : context_.services)
        service->renew();
    context_.receiver.reset();
}

void Module::fail(int code, const std::string &message) {
    fprintf(stderr, "tavrik-sim: %s\n", message.c_str());
    exit_code_ = code;
    uloop_end();
}

void Module::begin() {
    try {
        for (auto &[name, service] : context_.services)
            service->start();
        control_ = std::make_unique<ControlServer>(context_);
        control_->start();
    } catch (const std::exception &error) {
        return fail(exit_failed, error.what());
    }
    context_.waiting.until([this] { return context_.settled(); }, 10000,
                           [](bool in_time) {
                               return Outcome{{}, in_time ? "" : "the services do not come up"};
                           },
                           [this](const Outcome &outcome) {
                               if (!outcome.error.empty())
                                   return fail(exit_failed, outcome.error);
                               make_call();
                           });
}

// Makes the calls without a time, one after the other, and says then that the module is ready.
void Module::make_call() {
    const std::vector<Scenario::Call> &calls = scenario_.calls;
    while (next_call_ < calls.size() && calls[next_call_].at_ms)
        next_call_++;
    if (next_call_ == calls.size()) {
        if (context_.options.ready_fd >= 0)
            (void)!write(context_.options.ready_fd, "", 1);
        return;
    }
    const Scenario::Call &call = calls[next_call_++];
    run_call(call, [this](const std::string &failure) {
        if (failure.empty())
            call_timer_.start(0);
        else
            fail(exit_bad_scenario, failure);
    });
}

void Module::run_call(const Scenario::Call &call, const std::function<void(const std::string &)> &ended) {
    auto done = [this, &call, ended](const Outcome &outcome) {
        ended(outcome.error.empty() ? "" : context_.options.scenario + ": " + call.place + ": " + outcome.error);
    };
    try {
        call.action(done);
    } catch (const std::exception &error) {
        done({{}, error.what()});
    }
}

// The first client of the indication socket starts the calls that have a time.
void Module::play() {
    if (std::exchange(played_, true))
        return;
    for (const Scenario::Call &call : scenario_.calls)
        if (call.at_ms)
            context_.clock.after(*call.at_ms, [this, &call] {
                run_call(call, [](const std::string &failure) {
                    if (!failure.empty())
                        fprintf(stderr, "tavrik-sim: %s\n", failure.c_str());
                });
            });
}

int Module::run() {
    try {
        make_services();
        if (!context_.options.scenario.empty())
            scenario_ = Scenario::load(context_.options.scenario, context_);
        renew();
    } catch (const std::exception &error) {
        fprintf(stderr, "tavrik-sim: %s\n", error.what());
        return exit_bad_scenario;
    }
    begin_timer_.start(0);
    uloop_run();
    return exit_code_;
}

} // namespace

int run_module(const ModuleOptions &options) {
    if (uloop_init()) {
        fprintf(stderr, "tavrik-sim: no event loop: %s\n", strerror(errno));
        return exit_failed;
    }
    if (options.ready_fd >= 0)
        fcntl(options.ready_fd, F_SETFD, FD_CLOEXEC);
    int code = Module(options).run();
    uloop_done();
    return code;
}

} // namespace tavrik::sim
