// Replies of the RIL service: whatever a blob can hold, into the reply parser and each family's handler.
#include "fuzz.h"

#include "tavrik_sdk.h"
#include "ubus/ril.h"

#include <cstring>
#include <vector>

namespace {

// As libubus hands a reply over: the length in the head is the memory that is there.
void handle(const std::string &body) {
    std::vector<uint32_t> memory((body.size() + 7) / 4);
    auto *message = reinterpret_cast<blob_attr *>(memory.data());
    message->id_len = cpu_to_be32(uint32_t(body.size()) + 4);
    memcpy(message + 1, body.data(), body.size());
    get_imei_request_cb(nullptr, 0, message);
    dms_get_op_mode_cb(nullptr, 0, message);
    dms_set_op_mode_cb(nullptr, 0, message);
    call_info_cb(nullptr, 0, message);
    uint32_t id;
    const void *data;
    size_t length;
    rilutil_parse_request(message, &id, &data, &length);
}

// A reply that is well-formed, with what the input says in it.
void handle_reply(uint32_t id, int32_t error, const std::string &data) {
    tavrik::BlobBuf reply;
    if (!reply.ok || rilutil_make_reply(&reply.buf, id, error, data.empty() ? nullptr : data.data(), data.size()))
        return;
    handle(std::string(static_cast<const char *>(blob_data(reply.head())), blob_len(reply.head())));
}

// What a request carries is what the service finds in it.
void round_trip(uint32_t id, const std::string &payload) {
    tavrik::RilRequest with(id, payload.data(), payload.size()), without(id);
    uint32_t got = ~id;
    const void *data = nullptr;
    size_t length = 0;
    if (!with.ok || rilutil_parse_request(with.head(), &got, &data, &length) || got != id || length != payload.size() ||
        (length && memcmp(data, payload.data(), length)))
        abort();
    if (!without.ok || rilutil_parse_request(without.head(), &got, &data, &length) || got != id || data || length)
        abort();
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const uint32_t kIds[] = {38, 537, 538, 0};
    fuzz::Input input(data, size);
    const unsigned how = input.byte();
    if (how & 0x80)
        handle(input.rest());
    else if (how & 0x40)
        round_trip(how, input.rest());
    else
        handle_reply(how & 8 ? 9 : kIds[how & 3], how & 4 ? int(how) : 0, input.rest());
    handle_reply(38, 0, "");
    get_imei_request_cb(nullptr, 0, nullptr);
    return 0;
}
