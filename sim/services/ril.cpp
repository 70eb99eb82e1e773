#include <optional>

#include "model/addresses.h"
#include "rilutil.h"
#include "services/bus_object.h"

namespace tavrik::sim {

namespace {

// Errors of the RIL interface.
enum : int32_t { ril_success = 0, ril_generic_failure = 2 };

struct RilReply {
    int32_t error = ril_success;
    std::optional<std::string> data;
};

// Payload numbers are little-endian, whatever the machine.
std::string int32_bytes(uint32_t value) {
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8)
        bytes += static_cast<char>(value >> shift & 0xFF);
    return bytes;
}

std::optional<int32_t> int32_in(std::string_view bytes) {
    if (bytes.size() != 4)
        return {};
    uint32_t value = 0;
    for (size_t i = 4; i--;)
        value = value << 8 | static_cast<unsigned char>(bytes[i]);
    return static_cast<int32_t>(value);
}

RilReply get_imei(Modem &modem, std::string_view) {
    return {ril_success, modem.state().imei};
}

RilReply get_mode(Modem &modem, std::string_view) {
    return {ril_success, int32_bytes(static_cast<uint32_t>(modem.state().mode))};
}

RilReply set_mode(Modem &modem, std::string_view payload) {
    std::optional<int32_t> mode = int32_in(payload);
    if (!mode)
        return {ril_generic_failure, {}};
    const ModemState before = modem.state();
    modem.state().mode = *mode;
    modem.report(before);
    return {};
}

// A card status: present or not in front, and nothing told of the rest.
RilReply get_sim_status(Modem &modem, std::string_view) {
    std::string data = int32_bytes(modem.state().sim != "SIM REMOVED");
    data.resize(static_cast<size_t>(modem.state().sim_status_length));
    return {ril_success, data};
}

RilReply get_imsi(Modem &modem, std::string_view) {
    if (modem.text("card_error") != "0")
        return {ril_generic_failure, {}};
    return {ril_success, modem.state().imsi};
}

RilReply get_ps_state(Modem &modem, std::string_view) {
    return {ril_success, int32_bytes(modem.state().attached)};
}

RilReply get_calls(Modem &modem, std::string_view) {
    const std::vector<Call> &calls = modem.state().calls;
    if (calls.empty())
        return {};
    std::string data = int32_bytes(static_cast<uint32_t>(calls.size()));
    for (const Call &call : calls) {
        for (int32_t number : {call.state, call.id, int32_t(call.incoming)})
            data += int32_bytes(static_cast<uint32_t>(number));
        std::string number = call.number;
        number.resize(sizeof RilCall::number);
        data += number;
    }
    return {ril_success, data};
}

// Writes fields one behind the other, as the record has them.
std::string data_call(const ModemState &state, int32_t cid, int32_t status) {
    static const PdpContext plain; // of one that the network brought up
    const PdpContext *found = find_pdp(state, cid);
    const PdpContext &pdp = found ? *found : plain;
    const bool ipv4 = pdp.type != "IPV6", ipv6 = pdp.type != "IP";
    auto join = [&](std::initializer_list<std::string> four, std::initializer_list<std::string> six) {
        std::string text;
        for (auto &[wanted, addresses] : {std::pair(ipv4, four), std::pair(ipv6, six)})
            for (const std::string &address : addresses)
                if (wanted)
                    text += (text.empty() ? "" : " ") + address;
        return text;
    };
    std::string data;
    for (int32_t number : {status, int32_t(-1), cid, int32_t(status == 0)})
        data += int32_bytes(static_cast<uint32_t>(number));
    auto field = [&data](std::string text, size_t size) {
        text.resize(size);
        data += text;
    };
    field(pdp.type, sizeof RilDataCall::type);
    field(link_name(cid), sizeof RilDataCall::ifname);
    field(pdp.apn, sizeof RilDataCall::apn);
    field(join({link_ipv4(cid, 2)}, {link_ipv6(cid, 2)}), sizeof RilDataCall::addr);
    field(join({dns_ipv4[0], dns_ipv4[1]}, {dns_ipv6[0], dns_ipv6[1]}), sizeof RilDataCall::dns);
    field(join({link_ipv4(cid, 1)}, {link_ipv6(cid, 1)}), sizeof RilDataCall::gateway);
    field(ipv4 ? netmask_ipv4 : "", sizeof RilDataCall::submask);
    return data;
}

// Of the contexts that are up, those that a modem can have.
RilReply get_data_calls(Modem &modem, std::string_view) {
    std::string data;
    for (const std::string &context : contexts_in(modem.state().contexts))
        for (int32_t cid = 1; cid <= last_pdp_cid; cid++)
            if (std::to_string(cid) == context)
                data += data_call(modem.state(), cid, 0);
    return {ril_success, data.empty() ? std::nullopt : std::optional(data)};
}

// The payload is the number of the context, 1 without one. What is not defined gets a definition.
RilReply set_up_data_call(Modem &modem, std::string_view payload) {
    constexpr int32_t activation_rejected = 30;
    const int32_t cid = payload.empty() ? 1 : int32_in(payload).value_or(0);
    if (cid < 1 || cid > last_pdp_cid)
        return {ril_generic_failure, {}};
    const std::string name = std::to_string(cid);
    const bool up =
        (find_pdp(modem.state(), cid) || modem.act("define", name + "\nIP\ninternet")) && modem.act("activate", name);
    return {ril_success, data_call(modem.state(), cid, up ? 0 : activation_rejected)};
}

RilReply get_fail_cause(Modem &modem, std::string_view) {
    return {ril_success, int32_bytes(static_cast<uint32_t>(modem.state().fail_cause))};
}

RilReply send_tone(Modem &modem, std::string_view payload) {
    return {payload.size() == 4 && modem.act("tone", {payload[0]}) ? ril_success : ril_generic_failure, {}};
}

RilReply answer_call(Modem &modem, std::string_view) {
    return {modem.act("answer") ? ril_success : ril_generic_failure, {}};
}

const struct {
    uint32_t id;
    RilReply (*serve)(Modem &modem, std::string_view payload);
} ril_requests[] = {
    {1, get_sim_status}, {9, get_calls},       {11, get_imsi},          {18, get_fail_cause},
    {24, send_tone},     {57, get_data_calls}, {596, set_up_data_call}, {38, get_imei},
    {40, answer_call},   {521, get_ps_state},  {537, get_mode},         {538, set_mode},
};

// A request without a row is carried back to its sender: its number is its answer.
RilReply serve_request(Modem &modem, uint32_t id, std::string_view payload) {
    for (auto &row : ril_requests)
        if (row.id == id)
            return row.serve(modem, payload);
    return {ril_success, int32_bytes(id)};
}

class Ril : public BusObject {
  public:
    explicit Ril(Context &context) : BusObject(context, "ril", {"ril_request"}) { blob_buf_init(&message_, 0); }
    ~Ril() override { blob_buf_free(&message_); }
    std::string_view effects() const override {
        return "delay drop raw hex error id data status times close freeze refuse stop restart";
    }

  protected:
    int serve(ubus_request_data *request, const char *method, blob_attr *message) override;

  private:
    blob_buf message_{};
};

int Ril::serve(ubus_request_data *request, const char *, blob_attr *message) {
    uint32_t id = 0;
    const void *data = nullptr;
    size_t length = 0;
    if (!message || rilutil_parse_request(message, &id, &data, &length))
        return UBUS_STATUS_INVALID_ARGUMENT;
    context_.record.add_ril(id, data, length);
    const Fault *fault = context_.faults.meet("ril", std::to_string(id));
    RilReply reply;
    if (fault && fault->ril_error)
        reply.error = *fault->ril_error; // a request that fails changes nothing
    else
        reply = serve_request(context_.modem, id, {static_cast<const char *>(data), length});
    uint32_t reply_id = id;
    if (fault) {
        reply_id = fault->ril_id.value_or(id);
        if (fault->data)
            reply.data = fault->data;
        if (fault->no_data)
            reply.data.reset();
    }
    blob_buf_init(&message_, 0);
    const std::string payload = reply.data.value_or("");
    if (rilutil_make_reply(&message_, reply_id, reply.error, reply.data ? payload.data() : nullptr, payload.size()))
        return UBUS_STATUS_NO_MEMORY;
    return answer(request, {fields_of(message_), 0}, fault);
}

} // namespace

std::unique_ptr<Service> make_ril(Context &context) {
    return std::make_unique<Ril>(context);
}

} // namespace tavrik::sim
