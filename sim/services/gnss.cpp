#include "services/serial_port.h"

namespace tavrik::sim {

namespace {

constexpr size_t max_waiting = 64 << 10; // what comes on top is lost, as in a port whose buffer is full

// The receiver and its serial port.
class Gnss : public SerialPort {
  public:
    explicit Gnss(Context &context) : SerialPort(context, "ttyS3") {
        context.receiver.on_change = [this] { plan(); };
        context.from_receiver = [this](std::string_view bytes, const Cuts &cuts, const std::shared_ptr<void> &sent) {
            return terminal_.ready() && (say(bytes, cuts.none() ? standing_.cuts : cuts, sent), true);
        };
    }
    ~Gnss() override { context_.receiver.on_change = {}; }
    std::string_view effects() const override {
        return "burst close cuts deaf flood garble refuse restart silent stop";
    }
    void stand(const Standing &standing) override {
        if (standing.garble != standing_.garble)
            said_ = 0;
        SerialPort::stand(standing);
        if (standing.burst == 1)
            flush();
    }
    void discard_replies() override {
        collected_.clear();
        lost_ = 0;
        SerialPort::discard_replies();
    }
    nlohmann::json describe() const override {
        nlohmann::json described = SerialPort::describe();
        described["lost"] = lost_;
        described["receiver"] = context_.receiver.get();
        return described;
    }

  protected:
    void heard(const std::string &command) override { context_.receiver.obey(command, context_.clock.now()); }
    void turned() override {
        collected_.clear();
        collected_turns_ = 0;
        plan();
    }

  private:
    void plan(int64_t at_least = 0);
    void turn();
    void flush();
    void say(std::string_view bytes, const Cuts &cuts, const std::shared_ptr<void> &sent);

    uint64_t plans_ = 0; // the newest one counts
    int collected_turns_ = 0;
    std::string collected_;
    uint64_t said_ = 0; // bytes
    uint64_t lost_ = 0; // of what it says by itself
};

void Gnss::plan(int64_t at_least) {
    const uint64_t plan = ++plans_;
    const int64_t next = context_.receiver.next(context_.clock.now());
    if (next >= 0 && terminal_.open())
        context_.clock.after(std::max(next, at_least), [this, plan] {
            if (plan == plans_)
                turn();
        });
}

void Gnss::turn() {
    constexpr int64_t again_ms = 10; // whoever has opened the port sets it up first
    if (!terminal_.ready())
        return plan(again_ms);
    collected_ += context_.receiver.say(context_.clock.now());
    if (++collected_turns_ >= standing_.burst || context_.receiver.next(context_.clock.now()) < 0)
        flush();
    plan();
}

void Gnss::flush() {
    const std::string bytes = std::exchange(collected_, {});
    collected_turns_ = 0;
    if (terminal_.waiting() + bytes.size() > max_waiting)
        lost_ += bytes.size();
    else
        say(bytes, standing_.cuts, nullptr);
}

void Gnss::say(std::string_view bytes, const Cuts &cuts, const std::shared_ptr<void> &sent) {
    if (standing_.silent)
        return;
    std::string said(bytes);
    for (char &c : said)
        if (++said_; standing_.garble && said_ % static_cast<unsigned>(standing_.garble) == 0)
            c = static_cast<char>(c ^ 0x80);
    terminal_.send(said, cuts, sent);
}

} // namespace

std::unique_ptr<Service> make_gnss(Context &context) {
    return std::make_unique<Gnss>(context);
}

} // namespace tavrik::sim
