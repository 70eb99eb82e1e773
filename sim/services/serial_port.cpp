#include "services/serial_port.h"

#include "model/receiver.h"

namespace tavrik::sim {

namespace {

constexpr int rest_ms = 50; // what then is no whole line still is what a program wrote
constexpr size_t max_unit = 1 << 16;

// The port that the host sees, on which the module puts out positions.
class Output : public SerialPort {
  public:
    explicit Output(Context &context) : SerialPort(context, "ttyGS0") {}
};

} // namespace

SerialPort::SerialPort(Context &context, std::string_view kind)
    : context_(context),
      terminal_(context.files, "/dev/" + std::string(kind),
                {[this](std::string_view bytes) { received(bytes); }, [this] { turned(); }}),
      kind_(kind),
      rest_timer_([this] { take(std::exchange(input_, {})); }) {
}

void SerialPort::received(std::string_view bytes) {
    input_ += bytes;
    for (size_t n; (n = Receiver::command_length(input_)) || input_.size() > max_unit;) {
        n = n ? n : input_.size();
        const std::string unit = input_.substr(0, n);
        input_.erase(0, n);
        take(unit);
    }
    if (input_.empty())
        rest_timer_.stop();
    else
        rest_timer_.start(rest_ms);
}

void SerialPort::take(const std::string &unit) {
    context_.record.add(kind_, 0, unit);
    heard(unit);
}

void SerialPort::stand(const Standing &standing) {
    const Standing before = std::exchange(standing_, standing);
    if (standing.refuse != before.refuse)
        terminal_.hide(standing.refuse);
    if (standing.stop != before.stop)
        standing.stop ? terminal_.unplug() : terminal_.plug();
    if (standing.deaf != before.deaf)
        terminal_.deafen(standing.deaf);
    if (standing.flood != before.flood)
        terminal_.flood(standing.flood);
}

void SerialPort::close_connections() {
    if (!terminal_.plugged())
        return;
    terminal_.unplug();
    terminal_.plug();
}

void SerialPort::discard_replies() {
    terminal_.look();
    terminal_.discard();
    input_.clear();
    rest_timer_.stop();
    if (!terminal_.open()) // with settings as they are at first
        close_connections();
}

nlohmann::json SerialPort::describe() const {
    return {{"open", terminal_.open()}, {"settings", terminal_.settings()}};
}

std::unique_ptr<Service> make_nmea_output(Context &context) {
    return std::make_unique<Output>(context);
}

} // namespace tavrik::sim
