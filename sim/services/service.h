#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "control/faults.h"

namespace tavrik::sim {

struct Context;

// One service of the module. It is made stopped.
class Service {
  public:
    virtual ~Service() = default;

    // Both throw std::runtime_error when the service cannot start.
    virtual void start() = 0;
    virtual void stop() = 0;
    // It does what it was told to do last, as far as the others let it.
    virtual bool settled() const { return true; }
    // The effects of faults that it knows, as words.
    virtual std::string_view effects() const = 0;
    // Goes over to what stands from now on.
    virtual void stand(const Standing &standing) = 0;
    virtual void close_connections() {}
    // Forgets replies that have not gone out.
    virtual void discard_replies() {}
    // As new; before the start, too.
    virtual void renew() {}
    // Reads what programs have written, so that the record is complete.
    virtual void read_pending() {}
    virtual nlohmann::json describe() const;
};

struct ServiceRow {
    const char *name;
    std::unique_ptr<Service> (*make)(Context &);
    bool on_bus;
};

// All services, in the order in which they start. The last row has no name.
extern const ServiceRow service_rows[];

std::unique_ptr<Service> make_bus_daemon(Context &);
std::unique_ptr<Service> make_at_server(Context &);
std::unique_ptr<Service> make_indication_server(Context &);
std::unique_ptr<Service> make_links(Context &);
std::unique_ptr<Service> make_network(Context &);
std::unique_ptr<Service> make_network_interface(Context &);
std::unique_ptr<Service> make_gnss(Context &);
std::unique_ptr<Service> make_gpio(Context &);
std::unique_ptr<Service> make_gps(Context &);
std::unique_ptr<Service> make_hdgnssapp(Context &);
std::unique_ptr<Service> make_nmea_output(Context &);
std::unique_ptr<Service> make_ota(Context &);
std::unique_ptr<Service> make_power(Context &);
std::unique_ptr<Service> make_etc(Context &);
std::unique_ptr<Service> make_tmp(Context &);
std::unique_ptr<Service> make_wifi(Context &);
std::unique_ptr<Service> make_ril(Context &);
std::unique_ptr<Service> make_sms(Context &);
std::unique_ptr<Service> make_userdata(Context &);
std::unique_ptr<Service> make_bus_control(Context &);

} // namespace tavrik::sim
