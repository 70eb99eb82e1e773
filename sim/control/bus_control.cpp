#include "control/args.h"
#include "control/verbs.h"
#include "services/bus_object.h"

#include <cstdlib>

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace tavrik::sim {

using nlohmann::json;

namespace {

constexpr size_t max_reply = 512 << 10; // of JSON text; the bus carries a megabyte

// The control calls as the methods of a bus object.
class BusControl : public BusObject {
  public:
    explicit BusControl(Context &context) : BusObject(context, "tavrik.sim", verb_names()) {}

    std::string_view effects() const override { return {}; }
    void discard_replies() override {}

  protected:
    int serve(ubus_request_data *request, const char *method, blob_attr *message) override;

  private:
    void finish(ubus_request_data *request, const Outcome &outcome);
};

// Whether libubox, which calls itself for each level, can be trusted with it.
bool is_flat_enough(void *fields, size_t length, int levels) {
    blob_attr *field;
    size_t left = length;
    __blob_for_each_attr(field, fields, left) {
        if (!blobmsg_check_attr(field, false))
            return false;
        bool nested = blobmsg_type(field) == BLOBMSG_TYPE_TABLE || blobmsg_type(field) == BLOBMSG_TYPE_ARRAY;
        if (nested && (!levels || !is_flat_enough(blobmsg_data(field), blobmsg_data_len(field), levels - 1)))
            return false;
    }
    return true;
}

json arguments_of(blob_attr *message) {
    if (!message)
        return json::object();
    if (!is_flat_enough(blob_data(message), blob_len(message), 16))
        throw std::invalid_argument("nested too deeply, or no message");
    std::unique_ptr<char, decltype(&free)> text(blobmsg_format_json(message, true), free);
    return parse_json(text ? text.get() : "");
}

int BusControl::serve(ubus_request_data *request, const char *method, blob_attr *message) {
    auto waiting = std::make_shared<ubus_request_data>();
    ubus_defer_request(nullptr, request, waiting.get());
    Done done = [this, waiting, asked_by = connection()](const Outcome &outcome) {
        if (asked_by == connection())
            finish(waiting.get(), outcome);
    };
    json args;
    try {
        args = arguments_of(message);
    } catch (const std::exception &error) {
        done({{}, error.what()});
        return 0;
    }
    call(context_, method, args, done);
    return 0;
}

void BusControl::finish(ubus_request_data *request, const Outcome &outcome) {
    json reply = outcome.error.empty() ? outcome.result : json{{"error", outcome.error}};
    std::string text = reply.dump(-1, ' ', false, json::error_handler_t::replace);
    int status = outcome.error.empty() ? UBUS_STATUS_OK : UBUS_STATUS_INVALID_ARGUMENT;
    if (text.size() > max_reply) {
        text = R"({"error": "too long for the bus; ask for less, or use the private socket"})";
        status = UBUS_STATUS_NOT_SUPPORTED;
    }
    blob_buf buffer{};
    blob_buf_init(&buffer, 0);
    blobmsg_add_json_from_string(&buffer, text.c_str());
    send(request, fields_of(buffer));
    blob_buf_free(&buffer);
    complete(request, status);
}

} // namespace

std::unique_ptr<Service> make_bus_control(Context &context) {
    return std::make_unique<BusControl>(context);
}

} // namespace tavrik::sim
