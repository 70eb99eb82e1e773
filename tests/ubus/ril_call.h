// RIL requests as these tests make them: the service answers an id that it has no rule for with the id itself.
#pragma once

#include "bus.h"
#include "rilutil.h"
#include "tavrik_sdk.h"

#include <chrono>

inline void take_number(ubus_request *request, int, blob_attr *message) {
    uint32_t id;
    int32_t error;
    void *data;
    size_t length;
    auto *number = static_cast<uint32_t *>(request->priv);
    if (!message || rilutil_parseResponseDSMaster(message, &id, &error, &data, &length))
        return;
    if (length == 4 && !error)
        memcpy(number, data, 4);
    if (data)
        rilutil_freeResponseData(id, data, length);
}

// Does the request come back right?
inline bool answered(uint32_t id, int timeout_ms) {
    id |= 0x10000000u; // no request that the service knows
    uint32_t number = ~id;
    return !tavrik_ubus_invoke(id, take_number, &number, timeout_ms) && number == id;
}

inline double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}
