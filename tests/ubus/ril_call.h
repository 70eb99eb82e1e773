// What these tests have in common: RIL requests, of which the service answers an id that it has no rule for with the id
// itself, threads, and time.
#pragma once

#include "bus.h"
#include "rilutil.h"
#include "tavrik_sdk.h"

#include <chrono>
#include <filesystem>
#include <thread>
#include <vector>

inline void take_number(ubus_request *request, int, blob_attr *message) {
    uint32_t id;
    int32_t error;
    void *data;
    size_t length;
    if (!message || rilutil_parseResponseDSMaster(message, &id, &error, &data, &length))
        return;
    if (length == 4 && !error)
        memcpy(request->priv, data, 4);
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

// Of one call.
template <class Call>
double seconds_of(Call call) {
    const auto start = std::chrono::steady_clock::now();
    call();
    return seconds_since(start);
}

// Runs `run(0)`, `run(1)`, ... each on a thread of its own, to their end.
template <class Run>
void in_threads(unsigned count, Run run) {
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < count; i++)
        threads.emplace_back(run, i);
    for (std::thread &thread : threads)
        thread.join();
}

inline auto count_in(const char *folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
}
