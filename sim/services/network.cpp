#include "services/bus_object.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace tavrik::sim {

namespace {

// The network daemon: it is told what to do with interfaces, and only remembers it.
class Network : public BusObject {
  public:
    Network(Context &context, const char *name, const std::vector<const char *> &methods, bool named)
        : BusObject(context, name, methods),
          name_(name),
          named_(named) {}

  protected:
    int serve(ubus_request_data *request, const char *method, blob_attr *message) override;

  private:
    const char *name_;
    bool named_; // calls name an interface
};

int Network::serve(ubus_request_data *request, const char *method, blob_attr *message) {
    char *text = message ? blobmsg_format_json(message, true) : nullptr;
    const std::string written = text ? text : "{}";
    free(text);
    context_.record.add(name_, 0, method + (" " + written));
    const auto parsed = nlohmann::json::parse(written, nullptr, false);
    std::string target = method;
    if (named_) {
        if (!parsed.is_object() || !parsed.contains("interface") || !parsed["interface"].is_string())
            return UBUS_STATUS_INVALID_ARGUMENT;
        target += " " + parsed["interface"].get<std::string>();
    }
    return answer(request, {{}, 0, false}, context_.faults.meet(name_, target));
}

} // namespace

std::unique_ptr<Service> make_network(Context &context) {
    return std::make_unique<Network>(context, "network", std::vector<const char *>{"reload"}, false);
}

std::unique_ptr<Service> make_network_interface(Context &context) {
    return std::make_unique<Network>(context, "network.interface", std::vector<const char *>{"down", "up"}, true);
}

} // namespace tavrik::sim
