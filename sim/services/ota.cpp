#include "services/bus_object.h"

#include <cstring>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace tavrik::sim {

namespace {

// The over-the-air service: takes packages as they are named, and tells how far the upgrade is.
class Ota : public BusObject {
  public:
    explicit Ota(Context &context) : BusObject(context, "ota", {"download", "query"}) {}

  protected:
    int serve(ubus_request_data *request, const char *method, blob_attr *message) override;

  private:
    int download(ubus_request_data *request, bool sync, const Fault *fault);
};

int Ota::serve(ubus_request_data *request, const char *method, blob_attr *message) {
    char *text = message ? blobmsg_format_json(message, true) : nullptr;
    const std::string written = text ? text : "";
    free(text);
    context_.record.add("ota", 0, method + (" " + written));
    const auto fields = nlohmann::json::parse(written, nullptr, false);
    if (!strcmp(method, "query"))
        return answer(request, {fields_of(nlohmann::ordered_json{{"response", context_.modem.state().ota}}), 0},
                      context_.faults.meet("ota", "query"));
    if (!fields.is_object() || !fields.contains("url") || !fields["url"].is_string())
        return UBUS_STATUS_INVALID_ARGUMENT;
    return download(request, fields.contains("sync") && fields["sync"] == 1,
                    context_.faults.meet("ota", "download " + fields["url"].get<std::string>()));
}

int Ota::download(ubus_request_data *request, bool sync, const Fault *fault) {
    const ModemState &state = context_.modem.state();
    const bool refused = fault && fault->status.value_or(0);
    const int status = refused || context_.modem.act("upgrade") ? 0 : UBUS_STATUS_UNKNOWN_ERROR;
    if (fault)
        return answer(request, {"", status}, fault);
    const int64_t ms = !sync ? 0 : state.ota_reply_ms < 0 ? state.ota_ms : state.ota_reply_ms;
    if (status || !ms)
        return status;
    auto waiting = std::make_shared<ubus_request_data>();
    ubus_defer_request(nullptr, request, waiting.get());
    if (ms > 0)
        context_.clock.after(ms, [this, waiting, asked_by = connection()] {
            if (asked_by == connection())
                complete(waiting.get(), UBUS_STATUS_OK);
        });
    return 0;
}

} // namespace

std::unique_ptr<Service> make_ota(Context &context) {
    return std::make_unique<Ota>(context);
}

} // namespace tavrik::sim
