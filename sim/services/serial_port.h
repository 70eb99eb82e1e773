#pragma once

#include "io/terminal.h"
#include "services/context.h"

namespace tavrik::sim {

// A service behind a serial port. What programs write is recorded under the port's name: a line or a binary message at
// a time, byte for byte.
class SerialPort : public Service {
  public:
    SerialPort(Context &context, std::string_view kind);

    void start() override { terminal_.plug(); }
    void stop() override { terminal_.unplug(); }
    std::string_view effects() const override { return "close deaf refuse restart stop"; }
    void stand(const Standing &standing) override;
    void close_connections() override;
    void discard_replies() override;
    void read_pending() override { terminal_.look(); }
    nlohmann::json describe() const override;

  protected:
    virtual void heard(const std::string &) {}
    virtual void turned() {}

    Context &context_;
    Terminal terminal_;
    Standing standing_;

  private:
    void received(std::string_view bytes);
    void take(const std::string &unit);

    std::string_view kind_;
    std::string input_; // no whole line or message yet
    Timer rest_timer_;
};

} // namespace tavrik::sim
