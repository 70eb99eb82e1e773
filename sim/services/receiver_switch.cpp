#include "services/bus_object.h"

#include <cstring>

namespace tavrik::sim {

namespace {

// An object of the bus by which programs switch the receiver on and off.
class ReceiverSwitch : public BusObject {
  public:
    // With a parameter, "on" takes a 32-bit number of this name.
    ReceiverSwitch(Context &context, const char *name, const char *on, const char *off, const char *parameter)
        : BusObject(context, name, {on, off}),
          name_(name),
          on_(on),
          parameter_(parameter) {}

  protected:
    int serve(ubus_request_data *request, const char *method, blob_attr *message) override;

  private:
    const char *name_, *on_, *parameter_;
};

int ReceiverSwitch::serve(ubus_request_data *request, const char *method, blob_attr *message) {
    const std::string written = json_of(message);
    context_.record.add(name_, 0, method + (written.empty() ? "" : " " + written));
    const bool on = !strcmp(method, on_);
    if (on && parameter_) {
        blobmsg_policy policy{};
        policy.name = parameter_;
        policy.type = BLOBMSG_TYPE_INT32;
        blob_attr *number = nullptr;
        if (message)
            blobmsg_parse(&policy, 1, &number, blob_data(message), static_cast<unsigned>(blob_len(message)));
        if (!number)
            return UBUS_STATUS_INVALID_ARGUMENT;
    }
    const Fault *fault = context_.faults.meet(name_, method);
    if (!fault || !fault->status.value_or(0))
        context_.receiver.power(on, context_.clock.now());
    return answer(request, {{}, 0, false}, fault);
}

} // namespace

std::unique_ptr<Service> make_gps(Context &context) {
    return std::make_unique<ReceiverSwitch>(context, "gps", "gnss_init", "gnss_deinit", "gnss_init_param");
}

std::unique_ptr<Service> make_hdgnssapp(Context &context) {
    return std::make_unique<ReceiverSwitch>(context, "hdgnssapp", "start", "close", nullptr);
}

} // namespace tavrik::sim
