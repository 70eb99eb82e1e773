#include "services/bus_object.h"

#include <cstring>

namespace tavrik::sim {

namespace {

// The message service: takes whatever it is given to send.
class Sms : public BusObject {
  public:
    explicit Sms(Context &context) : BusObject(context, "sms", {"sms.send", "sms.send_pdu"}) {}

  protected:
    int serve(ubus_request_data *request, const char *method, blob_attr *message) override;

  private:
    int sent_ = 0;
};

int Sms::serve(ubus_request_data *request, const char *method, blob_attr *message) {
    const std::string written = json_of(message);
    context_.record.add("sms", 0, method + (" " + written));
    const auto parsed = nlohmann::json::parse(written, nullptr, false);
    const bool by_pdu = !strcmp(method, "sms.send_pdu");
    const char *const target = by_pdu ? "pdu" : "address";
    if (!parsed.is_object() || !parsed.contains("sms") || !parsed["sms"].is_object() ||
        !parsed["sms"].contains(target) || !parsed["sms"][target].is_string())
        return UBUS_STATUS_INVALID_ARGUMENT;

    const std::string number = std::to_string(++sent_ & 0xFF);
    nlohmann::ordered_json reply = {{"sms", {{"resp", "0"}, {"smsid", number}}}};
    if (!by_pdu)
        reply["sms"]["smsRef"] = number;
    const Fault *fault = context_.faults.meet("sms", method + (" " + parsed["sms"][target].get<std::string>()));
    return answer(request, {fields_of(reply), 0}, fault);
}

} // namespace

std::unique_ptr<Service> make_sms(Context &context) {
    return std::make_unique<Sms>(context);
}

} // namespace tavrik::sim
